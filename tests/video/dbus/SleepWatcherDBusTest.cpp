#include "qrl/video/dbus/SleepWatcherDBus.h"

#include <dlfcn.h>
#include <gtest/gtest.h>

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <vector>

#include "support/PrivateServer.h"

namespace qrl {
namespace {

// A bus client of the test's own, through libsystemd loaded with dlopen.
class Emitter {
public:
    Emitter(const std::string& address, const char* name) {
        lib_ = ::dlopen("libsystemd.so.0", RTLD_NOW | RTLD_LOCAL);
        if (!lib_) return;
        auto sym = [&](const char* n) { return ::dlsym(lib_, n); };
        auto busNew = reinterpret_cast<int (*)(void**)>(sym("sd_bus_new"));
        auto setAddress = reinterpret_cast<int (*)(void*, const char*)>(sym("sd_bus_set_address"));
        auto setClient = reinterpret_cast<int (*)(void*, int)>(sym("sd_bus_set_bus_client"));
        auto start = reinterpret_cast<int (*)(void*)>(sym("sd_bus_start"));
        auto requestName = reinterpret_cast<int (*)(void*, const char*, uint64_t)>(sym("sd_bus_request_name"));
        emit_ = reinterpret_cast<int (*)(void*, const char*, const char*, const char*, const char*, ...)>(
            sym("sd_bus_emit_signal"));
        flush_ = reinterpret_cast<int (*)(void*)>(sym("sd_bus_flush"));
        close_ = reinterpret_cast<void* (*)(void*)>(sym("sd_bus_flush_close_unref"));
        if (busNew(&bus_) < 0 || setAddress(bus_, address.c_str()) < 0 || setClient(bus_, 1) < 0 || start(bus_) < 0) {
            return;
        }
        ok_ = !name || requestName(bus_, name, 0) >= 0;
    }
    ~Emitter() {
        if (bus_) close_(bus_);
    }
    bool ok() const { return ok_; }
    void prepareForSleep(bool start) {
        emit_(bus_, "/org/freedesktop/login1", "org.freedesktop.login1.Manager", "PrepareForSleep", "b", start ? 1 : 0);
        flush_(bus_);
    }

private:
    void* lib_ = nullptr;
    void* bus_ = nullptr;
    bool ok_ = false;
    int (*emit_)(void*, const char*, const char*, const char*, const char*, ...) = nullptr;
    int (*flush_)(void*) = nullptr;
    void* (*close_)(void*) = nullptr;
};

TEST(SleepWatcherDBus, FollowsPrepareForSleepFromLogindOnly) {
    auto bus = test::PrivateServer::dbusDaemon(test::PrivateServer::Bus::System);
    QRL_REQUIRE_SERVER(bus);
    std::mutex m;
    std::condition_variable cv;
    std::vector<bool> seen;
    std::string why;
    auto watcher = SleepWatcherDBus::start(
        bus.address(),
        [&](bool sleeping) {
            std::lock_guard lock(m);
            seen.push_back(sleeping);
            cv.notify_all();
        },
        &why);
    ASSERT_TRUE(watcher) << why;

    Emitter impostor(bus.address(), nullptr);  // does not own the logind name
    Emitter logind(bus.address(), "org.freedesktop.login1");
    ASSERT_TRUE(impostor.ok());
    ASSERT_TRUE(logind.ok());
    impostor.prepareForSleep(true);
    logind.prepareForSleep(true);
    logind.prepareForSleep(false);
    std::unique_lock lock(m);
    ASSERT_TRUE(cv.wait_for(lock, std::chrono::seconds(5), [&] { return seen.size() >= 2; }));
    EXPECT_EQ(seen, (std::vector<bool>{true, false}));
    lock.unlock();
    watcher.reset();  // stops and joins while the bus is still there
}

TEST(SleepWatcherDBus, UnreachableBusGivesAReason) {
    std::string why;
    EXPECT_EQ(SleepWatcherDBus::start(std::string("unix:path=/nonexistent/bus"), [](bool) {}, &why), nullptr);
    EXPECT_NE(why.find("cannot connect to the bus"), std::string::npos) << why;
}

}  // namespace
}  // namespace qrl
