// DistributedNotificationCenter: the port through which the processes of the
// product tell each other of named events: a name, an object string and a
// map of simple values reach every process of the user that registered for
// the name, the sender included, on each one's main run loop.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/InstalledPort.h"
#include "qrl/foundation/Value.h"

namespace qrl {

class RunLoop;

struct DistributedNotification {
    std::string name;
    std::string object;  // the sender's object string; may be empty
    Value userInfo;      // a dictionary of what could travel, or null
};

// What travels. Names, object strings and dictionary keys are UTF-8 text.
// User information is a dictionary whose values may be booleans, integers
// (64-bit), reals, strings, data, arrays and dictionaries of those. Left out
// on the way, and reported once per centre through the platform log: nulls,
// dates, decimals, objects, strings and keys that are not valid UTF-8 (or
// hold U+0000 or a Unicode noncharacter), and containers nested deeper than
// kMaxNesting. portableUserInfo() says what a receiver will see.
//
// Observers. addObserver registers a callback for a name (empty: every name)
// and an object string (nullopt: any sender), under an observer identity that
// is never dereferenced. Callbacks run on the centre's delivery loop (the
// main run loop unless a backend was made for another), never inside
// postNotificationName; they are called in the order they were added, with
// no lock held, and may add and remove observers freely. Once
// removeObserver returns, no new call of the callback starts, on any thread;
// removal never waits for a call already running on the delivery loop (that
// call may need a lock the remover holds), so a callback must not depend on
// state its remover frees without its own guard (a weak_ptr, say).
// An exception from a callback is reported on the platform log and the
// other observers are still called.
//
// Backends: dbus/ (a signal on the session bus), sim/ (in-process centres
// joined together), and a local one chosen where no bus can be reached.
// Thread-safe: every member may be called from any thread.
class DistributedNotificationCenter : public std::enable_shared_from_this<DistributedNotificationCenter> {
public:
    using Token = uint64_t;  // 0 is never a valid token
    using Callback = std::function<void(const DistributedNotification&)>;

    static constexpr int kMaxNesting = 16;

    virtual ~DistributedNotificationCenter();
    DistributedNotificationCenter(const DistributedNotificationCenter&) = delete;
    DistributedNotificationCenter& operator=(const DistributedNotificationCenter&) = delete;

    // "dbus", "sim", "local".
    virtual std::string_view backendName() const = 0;

    // Throws qrl::Exception("DistributedNotificationCenter", ...) for an
    // empty callback.
    Token addObserver(const void* observer, std::string_view name, std::optional<std::string> object,
                      Callback callback);
    // False when the token is unknown.
    bool removeObserver(Token token);
    // Removes every registration of `observer` (for `name` only, when one is
    // given); answers how many were removed.
    std::size_t removeObserver(const void* observer, std::string_view name = {});
    std::size_t observerCount() const;

    // Sends the notification to every process of the user that listens, this
    // one included; returns before anyone is called. Throws
    // qrl::Exception("DistributedNotificationCenter", ...), and sends
    // nothing, for an empty name, a name or object that is not portable text,
    // or user information that is neither a dictionary nor null.
    void postNotificationName(std::string_view name, std::string_view object, const Value& userInfo = {});

    // The user information as a receiver will see it (a deep copy with what
    // cannot travel left out); *dropped, when given, gets how many values were
    // left out. Null stays null.
    static Value portableUserInfo(const Value& userInfo, std::size_t* dropped = nullptr);
    // Valid UTF-8 without U+0000, surrogates or noncharacters.
    static bool isPortableText(std::string_view text);

    // Notifications handed to this process's observers so far.
    std::size_t deliveredCount() const { return delivered_.load(std::memory_order_relaxed); }

    // The process's centre, chosen on first use from the logging backend
    // list: $QRL_NOTIFICATION_PLATFORM, else $QRL_PLATFORM, may name "dbus",
    // "sim" (a centre joined to nobody) or "local" ("none"). Unnamed (or named "dbus"), the list is [dbus]: the session
    // bus of $DBUS_SESSION_BUS_ADDRESS (else $XDG_RUNTIME_DIR/bus). Where it
    // cannot be reached, the platform log says so once and the centre is the
    // local one: notifications reach this process only. A name that no
    // backend has is reported and treated as unnamed.
    static std::shared_ptr<DistributedNotificationCenter> defaultCenter();
    // Replaces the process's centre; null goes back to the automatic choice
    // on next use.
    static void install(std::shared_ptr<DistributedNotificationCenter> center);
    // Why the automatic choice ended where it did ("" before it was made).
    static std::string choiceReport();
    static InstalledPort<DistributedNotificationCenter>& slot();

    // A centre that reaches this process only, delivering on `deliveryLoop`.
    static std::shared_ptr<DistributedNotificationCenter> makeLocal(RunLoop& deliveryLoop);

protected:
    // `deliveryLoop` must outlive the centre.
    explicit DistributedNotificationCenter(RunLoop& deliveryLoop);

    // Hands a portable notification to every listening process, this one
    // included. Called with no lock of the centre held, on the posting thread.
    virtual void send(const DistributedNotification& notification) = 0;

    // Calls this process's observers now, on the calling thread (which should
    // be the delivery loop's).
    void deliver(const DistributedNotification& notification);
    // Calls them in a later pass of the delivery loop, if the centre is still
    // alive then (it must be owned by a shared_ptr; otherwise nothing is
    // delivered).
    void deliverLater(DistributedNotification notification);

    RunLoop& deliveryLoop() const { return loop_; }

private:
    RunLoop& loop_;
    struct Registration;
    std::size_t removeWhere(const std::function<bool(const Registration&)>& match);

    mutable std::mutex mutex_;
    std::vector<std::shared_ptr<Registration>> registrations_;  // in the order added; guarded by mutex_
    Token nextToken_ = 1;                                        // guarded by mutex_
    std::atomic<std::size_t> delivered_{0};
    std::atomic<bool> reportedDrop_{false};
};

// Installs a centre for the lifetime of the object and puts the previous one back.
class ScopedDistributedNotificationCenter : public ScopedPort<DistributedNotificationCenter> {
public:
    explicit ScopedDistributedNotificationCenter(std::shared_ptr<DistributedNotificationCenter> center);
};

}  // namespace qrl
