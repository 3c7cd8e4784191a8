#include "qrl/foundation/KeyObservation.h"

#include <algorithm>
#include <cstdio>
#include <exception>
#include <mutex>
#include <thread>
#include <unordered_map>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/detail/ObserverCalls.h"

namespace qrl {

namespace {

struct KeyObserver {
    KeyObservable::Token token = 0;
    std::string key;
    KeyObservable::Callback callback;
    NSKeyValueObservingOptions options = 0;
    const void* identity = nullptr;
    detail::ObserverGate gate;

    bool wants(NSKeyValueObservingOptions option) const { return (options & option) != 0; }
};

using ObserverList = std::vector<std::shared_ptr<KeyObserver>>;

struct StringHash {
    using is_transparent = void;
    std::size_t operator()(std::string_view s) const noexcept { return std::hash<std::string_view>{}(s); }
};

// A willChangeValueForKey waiting for its didChangeValueForKey.
struct PendingChange {
    std::thread::id thread;
    std::string key;
    std::optional<Value> oldValue;  // read when someone observed the key
};

std::string describePointer(const void* p) {
    char buf[32];
    std::snprintf(buf, sizeof buf, "%p", p);
    return buf;
}

}  // namespace

struct KeyObservable::Impl {
    mutable std::mutex mutex;
    std::shared_ptr<const Getter> getter;
    std::unordered_map<std::string, ObserverList, StringHash, std::equal_to<>> byKey;
    std::unordered_map<Token, std::shared_ptr<KeyObserver>> byToken;
    std::vector<PendingChange> pending;
    Token nextToken = 1;
    detail::ObserverCalls calls;

    ObserverList snapshot(std::string_view key) const {
        std::lock_guard lock(mutex);
        auto it = byKey.find(key);
        return it == byKey.end() ? ObserverList{} : it->second;
    }

    // Unlinks under the lock; the caller closes the gate after unlocking.
    std::shared_ptr<KeyObserver> unlinkLocked(Token token) {
        auto it = byToken.find(token);
        if (it == byToken.end()) return nullptr;
        std::shared_ptr<KeyObserver> o = std::move(it->second);
        byToken.erase(it);
        auto list = byKey.find(o->key);
        if (list != byKey.end()) {
            std::erase(list->second, o);
            if (list->second.empty()) byKey.erase(list);
        }
        return o;
    }

    void close(KeyObserver& o) { calls.close(o.gate, detail::callsOnThisThread(o.gate)); }

    // Calls `o` unless it has been removed; keeps the first exception.
    void call(KeyObserver& o, std::string_view key, const KeyValueChange& change, std::exception_ptr& first) {
        detail::ObserverCallScope scope(calls, o.gate);
        if (!scope.entered()) return;
        try {
            o.callback(key, change);
        } catch (...) {
            if (!first) first = std::current_exception();
        }
    }
};

KeyObservable::KeyObservable(Getter getter) : impl_(std::make_unique<Impl>()) {
    if (getter) impl_->getter = std::make_shared<const Getter>(std::move(getter));
}

KeyObservable::~KeyObservable() {
    std::vector<std::shared_ptr<KeyObserver>> all;
    {
        std::lock_guard lock(impl_->mutex);
        for (auto& [token, o] : impl_->byToken) all.push_back(o);
        impl_->byToken.clear();
        impl_->byKey.clear();
    }
    for (auto& o : all) impl_->close(*o);
}

void KeyObservable::setValueGetter(Getter getter) {
    auto next = getter ? std::make_shared<const Getter>(std::move(getter)) : nullptr;
    std::lock_guard lock(impl_->mutex);
    impl_->getter.swap(next);
}

Value KeyObservable::valueForKey(std::string_view key) const {
    std::shared_ptr<const Getter> getter;
    {
        std::lock_guard lock(impl_->mutex);
        getter = impl_->getter;
    }
    return getter ? (*getter)(key) : Value();
}

KeyObservable::Token KeyObservable::addObserver(std::string_view key, Callback callback,
                                                NSKeyValueObservingOptions options, const void* observer) {
    if (key.empty()) Exception::raise("KeyObservable", "addObserver() needs a key, got an empty one");
    if (!callback) Exception::raise("KeyObservable", "addObserver() needs a callback, got an empty one");
    auto o = std::make_shared<KeyObserver>();
    o->key = key;
    o->callback = std::move(callback);
    o->options = options;
    o->identity = observer;
    Token token;
    {
        std::lock_guard lock(impl_->mutex);
        token = o->token = impl_->nextToken++;
        impl_->byToken.emplace(token, o);
        impl_->byKey[o->key].push_back(o);
    }
    if (o->wants(NSKeyValueObservingOptionInitial)) {
        KeyValueChange change;
        if (o->wants(NSKeyValueObservingOptionNew)) change.newValue = valueForKey(key);
        std::exception_ptr error;
        impl_->call(*o, o->key, change, error);
        if (error) {
            // The caller never gets the token: take the registration back.
            removeObserver(token);
            std::rethrow_exception(error);
        }
    }
    return token;
}

bool KeyObservable::removeObserver(Token token) {
    std::shared_ptr<KeyObserver> o;
    {
        std::lock_guard lock(impl_->mutex);
        o = impl_->unlinkLocked(token);
    }
    if (!o) return false;
    impl_->close(*o);
    return true;
}

void KeyObservable::removeObserver(const void* observer, std::string_view key) {
    std::vector<std::shared_ptr<KeyObserver>> removed;
    {
        std::lock_guard lock(impl_->mutex);
        auto it = impl_->byKey.find(key);
        if (observer && it != impl_->byKey.end()) {
            std::vector<Token> tokens;
            for (const auto& o : it->second)
                if (o->identity == observer) tokens.push_back(o->token);
            for (Token t : tokens) removed.push_back(impl_->unlinkLocked(t));
        }
    }
    if (removed.empty())
        Exception::raise("NSRangeException", "Cannot remove an observer " + describePointer(observer) +
                                                 " for the key path \"" + std::string(key) + "\" from " +
                                                 describePointer(this) +
                                                 " because it is not registered as an observer.");
    for (auto& o : removed) impl_->close(*o);
}

void KeyObservable::willChangeValueForKey(std::string_view key) {
    const ObserverList observers = impl_->snapshot(key);
    PendingChange change{std::this_thread::get_id(), std::string(key), std::nullopt};
    if (!observers.empty()) change.oldValue = valueForKey(key);
    bool prior = false;
    for (const auto& o : observers) prior = prior || o->wants(NSKeyValueObservingOptionPrior);
    const std::optional<Value> oldValue = change.oldValue;
    {
        std::lock_guard lock(impl_->mutex);
        impl_->pending.push_back(std::move(change));
    }
    if (!prior) return;
    std::exception_ptr first;
    for (const auto& o : observers) {
        if (!o->wants(NSKeyValueObservingOptionPrior)) continue;
        KeyValueChange c;
        c.isPrior = true;
        if (o->wants(NSKeyValueObservingOptionOld)) c.oldValue = oldValue;
        impl_->call(*o, key, c, first);
    }
    if (first) std::rethrow_exception(first);
}

void KeyObservable::didChangeValueForKey(std::string_view key) {
    std::optional<Value> oldValue;
    {
        std::lock_guard lock(impl_->mutex);
        auto& pending = impl_->pending;
        const auto self = std::this_thread::get_id();
        auto it = std::find_if(pending.rbegin(), pending.rend(),
                               [&](const PendingChange& p) { return p.thread == self && p.key == key; });
        if (it == pending.rend())
            Exception::raise("KeyObservable", "didChangeValueForKey(\"" + std::string(key) +
                                                  "\") without a matching willChangeValueForKey on this thread");
        oldValue = std::move(it->oldValue);
        pending.erase(std::next(it).base());
    }
    const ObserverList observers = impl_->snapshot(key);
    if (observers.empty()) return;
    std::optional<Value> newValue;
    for (const auto& o : observers) {
        if (o->wants(NSKeyValueObservingOptionNew)) {
            newValue = valueForKey(key);
            break;
        }
    }
    std::exception_ptr first;
    for (const auto& o : observers) {
        KeyValueChange c;
        if (o->wants(NSKeyValueObservingOptionOld)) c.oldValue = oldValue;
        if (o->wants(NSKeyValueObservingOptionNew)) c.newValue = newValue;
        impl_->call(*o, key, c, first);
    }
    if (first) std::rethrow_exception(first);
}

void KeyObservable::notifyChange(std::string_view key, const Value& oldValue, const Value& newValue) {
    const ObserverList observers = impl_->snapshot(key);
    std::exception_ptr first;
    for (const auto& o : observers) {
        KeyValueChange c;
        if (o->wants(NSKeyValueObservingOptionOld)) c.oldValue = oldValue;
        if (o->wants(NSKeyValueObservingOptionNew)) c.newValue = newValue;
        impl_->call(*o, key, c, first);
    }
    if (first) std::rethrow_exception(first);
}

bool KeyObservable::hasObservers(std::string_view key) const {
    std::lock_guard lock(impl_->mutex);
    return impl_->byKey.find(key) != impl_->byKey.end();
}

std::size_t KeyObservable::observerCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->byToken.size();
}

}  // namespace qrl
