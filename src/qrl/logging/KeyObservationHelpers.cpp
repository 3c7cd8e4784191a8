#include "qrl/logging/KeyObservationHelpers.h"

#include <exception>

#include "qrl/foundation/Format.h"
#include "qrl/logging/LogLevels.h"

namespace qrl {

std::string KeyValueObserver::description() const {
    return qrl::format("<KeyValueObserver: %p>", static_cast<const void*>(this));
}

void addObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths,
                 NSKeyValueObservingOptions options, void* context) {
    KeyObservable* observed = &object;
    KeyValueObserver* listener = &observer;
    for (const std::string& keyPath : keyPaths) {
        object.addObserver(
            keyPath,
            [observed, listener, context](std::string_view key, const KeyValueChange& change) {
                listener->observeValueForKeyPath(key, *observed, change, context);
            },
            options, listener);
    }
}

void addObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths,
                 NSKeyValueObservingOptions options) {
    addObserver(object, observer, keyPaths, options, nullptr);
}

void removeObserver(KeyObservable& object, KeyValueObserver& observer, const std::vector<std::string>& keyPaths) {
    for (const std::string& keyPath : keyPaths) {
        try {
            object.removeObserver(static_cast<const void*>(&observer), keyPath);
        } catch (const std::exception& e) {
            QRLAppDomainLogVerbose(kLoggingDebug, "Ignored Exception while removing observer %@. %@.", observer,
                                   e.what());
        } catch (...) {
            QRLAppDomainLogVerbose(kLoggingDebug, "Ignored Exception while removing observer %@. %@.", observer,
                                   "unknown exception");
        }
    }
}

}  // namespace qrl
