// qrl::NotificationCenter: local notifications by name, delivered at once on
// the posting thread to the observers registered for the name and sender.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

// Posted when the application is about to end; the log engine flushes on it.
inline constexpr std::string_view kApplicationWillTerminateNotification = "NSApplicationWillTerminateNotification";

struct Notification {
    std::string name;
    // The sender's identity, compared with observers' sender filters; never
    // dereferenced here.
    const void* sender = nullptr;
    // The sender itself when the poster hands it over (retained for the post).
    std::shared_ptr<void> senderObject;
    // A dictionary, or null.
    Value userInfo;
};

// post() calls, on the posting thread and in the order they were added, the
// observers whose name matches (an empty observer name matches every
// notification) and whose sender filter is null or equals the sender. No lock
// is held while an observer runs, so observers may post, add and remove
// freely:
// - an observer added during a post is not called for that post;
// - an observer removed during a post is not called afterwards, not even
//   later in the same post;
// - once removeObserver() returns, the observer is not called again, on any
//   thread: the removal waits for calls in flight on other threads (never for
//   those on its own). Two observers whose callbacks remove each other while
//   both run on different threads would wait for each other; don't.
// If observers throw, the others are still called, and the first exception
// is rethrown to the poster afterwards.
//
// Thread-safe.
class NotificationCenter {
public:
    using Token = uint64_t;  // 0 is never a valid token
    using Callback = std::function<void(const Notification&)>;

    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    // The process's centre; never destroyed, so that observers may be removed
    // from destructors of static objects.
    static NotificationCenter& defaultCenter();

    // Throws qrl::Exception("NotificationCenter", ...) for an empty callback.
    Token addObserver(std::string_view name, const void* sender, Callback callback);
    // False when the token is unknown (already removed, or never given).
    bool removeObserver(Token token);

    // Throws qrl::Exception("NotificationCenter", ...) for an empty name, or
    // user information that is neither a dictionary nor null; nobody is called.
    void post(std::string_view name, const void* sender = nullptr, Value userInfo = {});
    // The sender's identity is senderObject.get().
    void post(std::string_view name, std::shared_ptr<void> senderObject, Value userInfo = {});
    void post(const Notification& notification);

    std::size_t observerCount() const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qrl
