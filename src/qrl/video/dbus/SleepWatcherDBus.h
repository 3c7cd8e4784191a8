// SleepWatcherDBus: follows logind's PrepareForSleep signal on the system bus
// (or a given bus) on a thread of its own and tells a handler that the
// system is going to sleep (true) or has woken (false).
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>

#include "qrl/foundation/detail/UniqueFd.h"
#include "qrl/video/SleepWatcher.h"

struct sd_bus;
struct sd_bus_slot;

namespace qrl {

class SleepWatcherDBus final : public SleepWatcher {
public:
    // An exception thrown by the handler is caught and reported on the
    // platform log.
    using Handler = SleepWatcher::Handler;

    // Connects to `busAddress` (nullopt: the system bus) and subscribes to
    // PrepareForSleep from org.freedesktop.login1. Null, with the reason at
    // *whyNot when given, when the bus cannot be reached.
    static std::unique_ptr<SleepWatcherDBus> start(const std::optional<std::string>& busAddress, Handler handler,
                                                   std::string* whyNot = nullptr);
    // Stops and joins the thread, then closes the connection.
    ~SleepWatcherDBus() override;
    std::string_view backendName() const override { return "dbus"; }
    SleepWatcherDBus(const SleepWatcherDBus&) = delete;
    SleepWatcherDBus& operator=(const SleepWatcherDBus&) = delete;

    // Signals handled so far.
    int signalsSeen() const { return signals_.load(); }

private:
    struct BusCloser {
        void operator()(sd_bus* bus) const noexcept;
    };
    struct SlotUnref {
        void operator()(sd_bus_slot* slot) const noexcept;
    };

    explicit SleepWatcherDBus(Handler handler);
    void run() noexcept;
    void deliver(bool goingToSleep) noexcept;
    friend struct SleepWatcherDBusCallbacks;

    Handler handler_;
    std::unique_ptr<sd_bus, BusCloser> bus_;
    std::unique_ptr<sd_bus_slot, SlotUnref> slot_;
    detail::UniqueFd wake_;
    std::thread thread_;
    std::atomic<int> signals_{0};
};

}  // namespace qrl
