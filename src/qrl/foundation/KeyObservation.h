// qrl::KeyObservable: observation of named properties (keys) of an object;
// observers hear of each change of a key they registered for, with the old
// and new values when they ask for them.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

// Options of addObserver, combined with |.
using NSKeyValueObservingOptions = uint32_t;
inline constexpr NSKeyValueObservingOptions NSKeyValueObservingOptionNew = 0x01;
inline constexpr NSKeyValueObservingOptions NSKeyValueObservingOptionOld = 0x02;
inline constexpr NSKeyValueObservingOptions NSKeyValueObservingOptionInitial = 0x04;
inline constexpr NSKeyValueObservingOptions NSKeyValueObservingOptionPrior = 0x08;

enum class NSKeyValueChange : uint32_t {
    Setting = 1,
    Insertion = 2,
    Removal = 3,
    Replacement = 4,
};

// What an observer is told. oldValue and newValue are present only when the
// observer asked for them (a key without a value gives a null Value, which
// is present); isPrior marks the call made before a change (option Prior).
struct KeyValueChange {
    NSKeyValueChange kind = NSKeyValueChange::Setting;
    std::optional<Value> oldValue;
    std::optional<Value> newValue;
    bool isPrior = false;
};

// An object with observable keys holds a KeyObservable or derives from it,
// supplies a getter for the current value of a key, and announces changes:
// willChangeValueForKey/didChangeValueForKey around a change (the old value
// is read in the first, the new one in the second), or notifyChange with both
// values at once.
//
// Observers of a key are called in the order they were added, on the thread
// that announces the change, with no lock held; the getter is called with no
// lock held too. Callbacks may add and remove observers (themselves included)
// and change values, which notifies again, nested:
// - an observer added while a change is being announced hears of the next
//   change, not of this one;
// - an observer removed is not called afterwards, even later in the same
//   announcement; once removeObserver returns it is not called again on any
//   thread (the removal waits for calls in flight on other threads, never for
//   those on its own).
// If callbacks throw, the others are still called and the first exception is
// rethrown to the announcer.
//
// Thread-safe. will/did pairs are matched per thread and key, and may nest.
class KeyObservable {
public:
    using Token = uint64_t;  // 0 is never a valid token
    using Getter = std::function<Value(std::string_view key)>;
    using Callback = std::function<void(std::string_view key, const KeyValueChange& change)>;

    // Without a getter, every key reads as a null Value.
    explicit KeyObservable(Getter getter = {});
    virtual ~KeyObservable();
    KeyObservable(const KeyObservable&) = delete;
    KeyObservable& operator=(const KeyObservable&) = delete;

    // For an owner that can only supply its getter once built.
    void setValueGetter(Getter getter);

    // Registers `callback` for changes of `key`. With the option Initial it is
    // called once before this returns, with the current value as the new value
    // when New is asked for too. `observer` is an optional identity (never
    // dereferenced) for removeObserver(observer, key). Throws
    // qrl::Exception("KeyObservable", ...) for an empty key or callback.
    Token addObserver(std::string_view key, Callback callback, NSKeyValueObservingOptions options,
                      const void* observer = nullptr);
    // False when the token is unknown (already removed, or never given).
    bool removeObserver(Token token);
    // Removes the observations of `key` registered with this observer
    // identity. Throws qrl::Exception("NSRangeException", ...) when there is
    // none, naming the key.
    void removeObserver(const void* observer, std::string_view key);

    void willChangeValueForKey(std::string_view key);
    // Throws qrl::Exception("KeyObservable", ...) when this thread has no
    // willChangeValueForKey for the key outstanding.
    void didChangeValueForKey(std::string_view key);
    // Announces a change whose values the caller already has.
    void notifyChange(std::string_view key, const Value& oldValue, const Value& newValue);

    bool hasObservers(std::string_view key) const;
    std::size_t observerCount() const;

protected:
    // The current value of `key`, from the getter.
    Value valueForKey(std::string_view key) const;

private:
    struct Impl;
    std::unique_ptr<Impl> impl_;
};

}  // namespace qrl
