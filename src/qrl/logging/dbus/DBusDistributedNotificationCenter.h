// DBusDistributedNotificationCenter: cross-process notifications as a D-Bus
// signal on the user's session bus, read through a file-descriptor source of
// a run loop, so that observers are called on that loop's thread.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/DistributedNotificationCenter.h"

struct sd_bus;
struct sd_bus_slot;
struct sd_bus_message;

namespace qrl {

// Wire form: the signal PostNotification of the interface
// org.qrlshared.DistributedNotificationCenter on the object path
// /org/qrlshared/DistributedNotificationCenter, sent without a destination,
// with the signature "ssa{sv}": name, object string, user information.
// Values travel as variants: booleans "b", integers "x", reals "d", strings
// "s", data "ay", arrays "av", dictionaries "a{sv}". Every connection that
// listens gets it, the sender's own included, so a process hears its own
// posts as the others do.
//
// Received signals of another signature, or that cannot be read, are ignored
// (the first one is reported on the platform log; ignoredCount() counts
// them). From senders of other make, integers of every width, object paths
// and signatures are taken (unsigned 64-bit values above the signed range as
// decimals), dictionaries with string keys of any value type too; file
// descriptors, structures and dictionaries with other keys are left out, as
// is nesting deeper than kMaxNesting.
//
// When the bus goes away the platform log says so once; from then on posts
// reach this process only, through the delivery loop.
//
// Thread-safe: one lock guards the connection; observers are called with no
// lock held.
class DBusDistributedNotificationCenter final : public DistributedNotificationCenter {
    struct Passkey {};

public:
    static constexpr const char* kObjectPath = "/org/qrlshared/DistributedNotificationCenter";
    static constexpr const char* kInterface = "org.qrlshared.DistributedNotificationCenter";
    static constexpr const char* kMember = "PostNotification";

    // Connects to `busAddress` (nullopt: the session bus of
    // $DBUS_SESSION_BUS_ADDRESS, else $XDG_RUNTIME_DIR/bus) and listens for
    // the signal, before it returns. Null, with the reason at *whyNot when
    // given, when that fails. `deliveryLoop` must outlive the centre.
    static std::shared_ptr<DBusDistributedNotificationCenter> open(const std::optional<std::string>& busAddress,
                                                                   RunLoop& deliveryLoop,
                                                                   std::string* whyNot = nullptr);
    DBusDistributedNotificationCenter(Passkey, RunLoop& deliveryLoop);
    // Sends what is still queued, then closes the connection.
    ~DBusDistributedNotificationCenter() override;

    std::string_view backendName() const override { return "dbus"; }

    // False once the bus has gone away.
    bool connected() const;
    // The connection's unique name on the bus (":1.42"); empty when unknown.
    std::string uniqueName() const;
    std::size_t ignoredCount() const { return ignored_.load(std::memory_order_relaxed); }

protected:
    void send(const DistributedNotification& notification) override;

private:
    struct BusCloser {
        void operator()(sd_bus* bus) const noexcept;
    };
    struct SlotUnref {
        void operator()(sd_bus_slot* slot) const noexcept;
    };
    friend struct DBusDistributedNotificationCenterCallbacks;

    void watch();
    void process();
    void onSignal(sd_bus_message* message) noexcept;  // inside process(), lock held
    void updateWriteWatchLocked();
    void loseBusLocked(int error);

    mutable std::mutex mutex_;
    std::unique_ptr<sd_bus, BusCloser> bus_;  // guarded by mutex_
    std::unique_ptr<sd_bus_slot, SlotUnref> slot_;
    RunLoop::Token readToken_ = 0;                   // guarded by mutex_
    RunLoop::Token writeToken_ = 0;                  // guarded by mutex_
    bool connected_ = false;                         // guarded by mutex_
    std::vector<DistributedNotification> received_;  // guarded by mutex_; filled while processing
    std::atomic<std::size_t> ignored_{0};
};

}  // namespace qrl
