// Observation of a list of keys in one call: an observer object is registered
// for, or taken off, every key of the list; a key that cannot be taken off is
// logged and skipped.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/KeyObservation.h"

namespace qrl {

// An object that hears of key changes, identified by its address. It must be
// taken off every object it observes before it goes.
class KeyValueObserver {
public:
    virtual ~KeyValueObserver() = default;

    // Called on the thread that announces the change, with no lock held.
    // `context` is the one given when the observer was added.
    virtual void observeValueForKeyPath(std::string_view keyPath, KeyObservable& object, const KeyValueChange& change,
                                        void* context) = 0;

    // What %@ prints for the observer: "<KeyValueObserver: 0x...>" unless
    // replaced.
    virtual std::string description() const;
};

// Registers `observer` on `object` for each key of `keyPaths`, in order, with
// the options and context given. With NSKeyValueObservingOptionInitial the
// observer hears of each key at once, during this call. `object` must stay
// alive while observed (the callbacks refer to it). An exception from the
// observer's initial call stops the walk and reaches the caller; the keys
// registered before it stay registered.
void addObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths,
                 NSKeyValueObservingOptions options, void* context);
// The same with a null context.
void addObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths,
                 NSKeyValueObservingOptions options);

// Takes `observer` off each key of `keyPaths`. A key it was not registered
// for (the object throws) is logged at verbose in the kLoggingDebug domain,
// context 32, as "Ignored Exception while removing observer %@. %@.", and the
// walk goes on with the next key.
void removeObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths);

}  // namespace qrl
