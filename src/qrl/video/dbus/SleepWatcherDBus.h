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

struct sd_bus;
struct sd_bus_slot;

namespace qrl {

class SleepWatcherDBus {
public:
    // Runs on the watcher's thread; it must not throw (an exception is
    // caught and reported on the platform log) and should only hand work on.
    using Handler = std::function<void(bool goingToSleep)>;

    // Connects to `busAddress` (nullopt: the system bus) and subscribes to
    // PrepareForSleep from org.freedesktop.login1. Null, with the reason at
    // *whyNot when given, when the bus cannot be reached.
    static std::unique_ptr<SleepWatcherDBus> start(const std::optional<std::string>& busAddress, Handler handler,
                                                   std::string* whyNot = nullptr);
    // Stops and joins the thread, then closes the connection.
    ~SleepWatcherDBus();
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
