// SleepWatcher: the port through which a display server learns that the
// system is going to sleep or has woken. Backends: dbus/ (logind's
// PrepareForSleep on the system bus). start() walks the video backend list.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

namespace qrl {

class SleepWatcher {
public:
    // Runs on the watcher's own thread; it must not throw and should only
    // hand work on.
    using Handler = std::function<void(bool goingToSleep)>;

    virtual ~SleepWatcher() = default;
    virtual std::string_view backendName() const = 0;

    // The first backend of the list ($QRL_SLEEP_PLATFORM, then $QRL_PLATFORM,
    // may name one) that can follow sleep and wake here, calling `handler`
    // until it is destroyed. `busAddress` names the bus to watch instead of
    // the system's (tests). Null, with the reasons at *whyNot when given,
    // when none can.
    static std::unique_ptr<SleepWatcher> start(Handler handler,
                                               const std::optional<std::string>& busAddress = std::nullopt,
                                               std::string* whyNot = nullptr);
};

}  // namespace qrl
