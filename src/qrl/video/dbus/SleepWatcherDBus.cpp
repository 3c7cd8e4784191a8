#include "qrl/video/dbus/SleepWatcherDBus.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {
constexpr const char* kMatch =
    "type='signal',sender='org.freedesktop.login1',interface='org.freedesktop.login1.Manager',"
    "member='PrepareForSleep',path='/org/freedesktop/login1'";
}

void SleepWatcherDBus::BusCloser::operator()(sd_bus* bus) const noexcept { sd_bus_flush_close_unref(bus); }
void SleepWatcherDBus::SlotUnref::operator()(sd_bus_slot* slot) const noexcept { sd_bus_slot_unref(slot); }

struct SleepWatcherDBusCallbacks {
    static int onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) noexcept {
        int goingToSleep = 0;
        if (sd_bus_message_read(message, "b", &goingToSleep) < 0) return 0;
        static_cast<SleepWatcherDBus*>(userdata)->deliver(goingToSleep != 0);
        return 0;
    }
};

SleepWatcherDBus::SleepWatcherDBus(Handler handler) : handler_(std::move(handler)) {}

std::unique_ptr<SleepWatcherDBus> SleepWatcherDBus::start(const std::optional<std::string>& busAddress,
                                                          Handler handler, std::string* whyNot) {
    auto fail = [&](const char* what, int r) {
        if (whyNot) *whyNot = qrl::format("%s: %s", what, std::strerror(-r));
        return nullptr;
    };
    std::unique_ptr<SleepWatcherDBus> watcher(new SleepWatcherDBus(std::move(handler)));
    sd_bus* raw = nullptr;
    int r = 0;
    if (busAddress) {
        r = sd_bus_new(&raw);
        if (r < 0) return fail("cannot make a bus connection", r);
        watcher->bus_.reset(raw);
        r = sd_bus_set_address(raw, busAddress->c_str());
        if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
        if (r >= 0) r = sd_bus_start(raw);
        if (r < 0) return fail("cannot connect to the bus", r);
    } else {
        r = sd_bus_open_system(&raw);
        if (r < 0) return fail("cannot connect to the system bus", r);
        watcher->bus_.reset(raw);
    }
    sd_bus_slot* slot = nullptr;
    r = sd_bus_add_match(watcher->bus_.get(), &slot, kMatch, &SleepWatcherDBusCallbacks::onSignal, watcher.get());
    if (r < 0) return fail("cannot subscribe to PrepareForSleep", r);
    watcher->slot_.reset(slot);
    watcher->wake_ = detail::makeWakeFd();
    if (!watcher->wake_) return fail("cannot make an eventfd", -errno);
    watcher->thread_ = std::thread([w = watcher.get()] { w->run(); });
    return watcher;
}

SleepWatcherDBus::~SleepWatcherDBus() {
    detail::signalWakeFd(wake_);
    if (thread_.joinable()) thread_.join();
    slot_.reset();
    bus_.reset();
}


void SleepWatcherDBus::deliver(bool goingToSleep) noexcept {
    ++signals_;
    try {
        if (handler_) handler_(goingToSleep);
    } catch (const std::exception& e) {
        platformLogFormat("Sleep handler failed: %@", e.what());
    } catch (...) {
        platformLog("Sleep handler failed");
    }
}

void SleepWatcherDBus::run() noexcept {
    sd_bus* bus = bus_.get();
    for (;;) {
        int r;
        while ((r = sd_bus_process(bus, nullptr)) > 0) {
        }
        if (r < 0) {
            platformLogFormat("Sleep and wake notifications stopped: %s", std::strerror(-r));
            return;
        }
        const int fd = sd_bus_get_fd(bus);
        const int events = sd_bus_get_events(bus);
        uint64_t until = 0;
        int timeout = -1;
        if (sd_bus_get_timeout(bus, &until) >= 0 && until != UINT64_MAX) {
            timespec now{};
            clock_gettime(CLOCK_MONOTONIC, &now);
            const uint64_t nowUs = static_cast<uint64_t>(now.tv_sec) * 1'000'000u + static_cast<uint64_t>(now.tv_nsec) / 1000u;
            timeout = until <= nowUs ? 0 : static_cast<int>(std::min<uint64_t>((until - nowUs + 999) / 1000, 60'000));
        }
        pollfd fds[2] = {{fd, static_cast<short>(events < 0 ? POLLIN : events), 0}, {wake_.get(), POLLIN, 0}};
        if (::poll(fds, 2, timeout) < 0 && errno != EINTR) {
            platformLogFormat("Sleep and wake notifications stopped: poll failed (errno %d)", errno);
            return;
        }
        if (fds[1].revents) return;
    }
}

}  // namespace qrl
