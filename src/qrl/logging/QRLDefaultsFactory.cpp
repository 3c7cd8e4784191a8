#include "qrl/logging/QRLDefaultsFactory.h"

#include <exception>
#include <mutex>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/logging/QRLNSUserDefaults.h"
#include "qrl/logging/QRLNonPersistentDefaults.h"

namespace qrl {

namespace {

// Never destroyed: stores may be asked for from destructors of static objects.
struct FactoryState {
    std::recursive_mutex mutex;
    std::shared_ptr<QRLDefaults> shared;
    bool usePersistent = true;
};

FactoryState& state() {
    static auto* s = new FactoryState;
    return *s;
}

const char kClassObject = 0;

}  // namespace

const void* QRLDefaultsFactory::classObject() { return &kClassObject; }

std::shared_ptr<QRLDefaults> QRLDefaultsFactory::shared() {
    FactoryState& s = state();
    std::lock_guard lock(s.mutex);
    if (!s.shared) {
        if (s.usePersistent)
            s.shared = std::make_shared<QRLNSUserDefaults>();
        else
            s.shared = std::make_shared<QRLNonPersistentDefaults>();
    }
    return s.shared;
}

void QRLDefaultsFactory::useNSUserDefaults() { switchTo(true); }

void QRLDefaultsFactory::useNonPersistentDefaults() { switchTo(false); }

void QRLDefaultsFactory::switchTo(bool persistent) {
    FactoryState& s = state();
    std::shared_ptr<QRLDefaults> ending;
    std::exception_ptr observerFailure;
    {
        std::lock_guard lock(s.mutex);
        try {
            NotificationCenter::defaultCenter().post(QRLDefaultsBeingDeallocated, classObject());
        } catch (...) {
            observerFailure = std::current_exception();
        }
        ending = std::move(s.shared);
        s.usePersistent = persistent;
    }
    // The store itself goes (when nobody else holds it) outside the lock.
    ending.reset();
    if (observerFailure) std::rethrow_exception(observerFailure);
}

}  // namespace qrl
