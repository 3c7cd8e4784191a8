// QRLNonPersistentDefaults: a preference store that lives in memory and
// vanishes with the process, so that a process can run without touching the
// user's saved settings.
#pragma once

#include <cstdint>
#include <memory>
#include <mutex>
#include <string_view>

#include "qrl/foundation/KeyObservation.h"
#include "qrl/logging/QRLDefaults.h"

namespace qrl {

// Deliberately unlike the persistent store:
// - registerDefaults removes the given keys and then adds the entries, so a
//   registered value overwrites one that was set before (and moves the key to
//   the end of the map);
// - dictionaryRepresentation gives the map itself, not a copy: later changes
//   show in it;
// - integerForKey gives a number truncated to 32 bits and 0 for anything else,
//   a string of digits included; boolForKey gives a number's truth and false
//   for anything else, "YES" included;
// - setInteger stores the lower 32 bits of its argument, as a signed number;
// - setObject stores the value itself (containers stay shared with the
//   caller) and takes any value, objects included; a null value is refused
//   with qrl::Exception("NSInvalidArgumentException", ...), as the platform's
//   map refuses it;
// - synchronize does nothing;
// - observableObject is the store itself, but setObject and setInteger write
//   straight into the map and tell no observer: observers hear only their
//   initial call.
// With the map set to null (setDict) reads give null, 0 and false and writes
// do nothing, as messages to nothing do.
//
// The store's own operations take a recursive lock, so it may be used from
// any thread. The map handed out by dict() and dictionaryRepresentation() is
// live and unguarded: read it on another thread only while nobody writes, or
// take snapshot().
class QRLNonPersistentDefaults : public QRLDefaults,
                                 public KeyObservable,
                                 public std::enable_shared_from_this<QRLNonPersistentDefaults> {
public:
    QRLNonPersistentDefaults();  // an empty map

    void registerDefaults(const Dictionary& defaults) override;
    std::shared_ptr<Dictionary> dictionaryRepresentation() const override;
    Dictionary snapshot() const override;  // copied under the store's lock
    int32_t integerForKey(std::string_view key) const override;
    bool boolForKey(std::string_view key) const override;
    Value objectForKey(std::string_view key) const override;
    void setObject(const Value& value, std::string_view key) override;
    void setInteger(int64_t value, std::string_view key) override;
    void synchronize() override;
    // This store; shares its ownership when it is owned by a shared_ptr,
    // otherwise the caller must not use it past the store's life.
    std::shared_ptr<KeyObservable> observableObject() override;

    // The owned map (property access).
    std::shared_ptr<Dictionary> dict() const;
    void setDict(std::shared_ptr<Dictionary> dict);

protected:
    const char* className() const override { return "QRLNonPersistentDefaults"; }

private:
    // The value for the key when it exists and passes `isOfType`, else null.
    Value valueForKey(std::string_view key, bool (Value::*isOfType)() const) const;

    mutable std::recursive_mutex mutex_;
    std::shared_ptr<Dictionary> dict_;  // guarded by mutex_ (the pointer, not the map's reads by others)
};

}  // namespace qrl
