#include "qrl/foundation/NotificationCenter.h"

#include <exception>
#include <mutex>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/detail/ObserverCalls.h"

namespace qrl {

namespace {

struct Observer {
    NotificationCenter::Token token;
    std::string name;  // empty: every name
    const void* sender;
    NotificationCenter::Callback callback;
    detail::ObserverGate gate;
};

}  // namespace

struct NotificationCenter::Impl {
    mutable std::mutex mutex;
    std::vector<std::shared_ptr<Observer>> observers;  // in the order added
    Token nextToken = 1;
    detail::ObserverCalls calls;
};

NotificationCenter::NotificationCenter() : impl_(std::make_unique<Impl>()) {}

NotificationCenter::~NotificationCenter() = default;

NotificationCenter& NotificationCenter::defaultCenter() {
    static NotificationCenter* const center = new NotificationCenter;
    return *center;
}

NotificationCenter::Token NotificationCenter::addObserver(std::string_view name, const void* sender,
                                                          Callback callback) {
    if (!callback) Exception::raise("NotificationCenter", "addObserver() needs a callback, got an empty one");
    auto observer = std::make_shared<Observer>();
    observer->name = name;
    observer->sender = sender;
    observer->callback = std::move(callback);
    std::lock_guard lock(impl_->mutex);
    observer->token = impl_->nextToken++;
    impl_->observers.push_back(observer);
    return observer->token;
}

bool NotificationCenter::removeObserver(Token token) {
    std::shared_ptr<Observer> removed;
    {
        std::lock_guard lock(impl_->mutex);
        auto& list = impl_->observers;
        for (auto it = list.begin(); it != list.end(); ++it) {
            if ((*it)->token == token) {
                removed = std::move(*it);
                list.erase(it);
                break;
            }
        }
    }
    if (!removed) return false;
    impl_->calls.close(removed->gate, detail::callsOnThisThread(removed->gate));
    return true;
}

void NotificationCenter::post(std::string_view name, const void* sender, Value userInfo) {
    Notification n;
    n.name = name;
    n.sender = sender;
    n.userInfo = std::move(userInfo);
    post(n);
}

void NotificationCenter::post(std::string_view name, std::shared_ptr<void> senderObject, Value userInfo) {
    Notification n;
    n.name = name;
    n.sender = senderObject.get();
    n.senderObject = std::move(senderObject);
    n.userInfo = std::move(userInfo);
    post(n);
}

void NotificationCenter::post(const Notification& notification) {
    if (notification.name.empty())
        Exception::raise("NotificationCenter", "post() needs a notification name, got an empty one");
    if (!notification.userInfo.isNull() && !notification.userInfo.isDictionary())
        Exception::raise("NotificationCenter", "the user information of \"" + notification.name +
                                                   "\" must be a dictionary or null");
    std::vector<std::shared_ptr<Observer>> targets;
    {
        std::lock_guard lock(impl_->mutex);
        for (const auto& o : impl_->observers) {
            if ((o->name.empty() || o->name == notification.name) && (!o->sender || o->sender == notification.sender))
                targets.push_back(o);
        }
    }
    std::exception_ptr first;
    for (const auto& o : targets) {
        detail::ObserverCallScope scope(impl_->calls, o->gate);
        if (!scope.entered()) continue;  // removed since the snapshot
        try {
            o->callback(notification);
        } catch (...) {
            if (!first) first = std::current_exception();
        }
    }
    if (first) std::rethrow_exception(first);
}

std::size_t NotificationCenter::observerCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->observers.size();
}

}  // namespace qrl
