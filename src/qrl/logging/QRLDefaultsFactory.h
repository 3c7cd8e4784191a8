// QRLDefaultsFactory: hands out the process's current preference store,
// persistent or in memory, and announces the end of a store when the choice
// is switched.
#pragma once

#include <memory>
#include <string_view>

#include "qrl/logging/QRLDefaults.h"

namespace qrl {

// Posted on NotificationCenter::defaultCenter(), with
// QRLDefaultsFactory::classObject() as sender, just before the current store
// is let go.
inline constexpr std::string_view QRLDefaultsBeingDeallocated = "QRLDefaultsBeingDeallocated";

// Class-level operations under one recursive lock. At most one store exists
// at a time as far as the factory is concerned; the choice starts persistent.
class QRLDefaultsFactory {
public:
    QRLDefaultsFactory() = delete;

    // The current store; made on first use (and after each switch) as a
    // QRLNSUserDefaults or a QRLNonPersistentDefaults, by the choice.
    static std::shared_ptr<QRLDefaults> shared();
    // Select the persistent store for the next shared(), or the in-memory one.
    // Either call, whatever the present choice: posts
    // QRLDefaultsBeingDeallocated (observers still get the old store from
    // shared(), on this thread, the lock being recursive), drops the factory's
    // reference to the store (values of an in-memory store are lost; nothing
    // is carried over), then records the choice; no new store is made yet.
    // A caller should not keep a store past these calls: the factory has
    // moved on. Should an observer throw, the switch still completes and the
    // first exception is rethrown afterwards.
    static void useNSUserDefaults();
    static void useNonPersistentDefaults();

    // The factory class's identity, the sender of QRLDefaultsBeingDeallocated.
    static const void* classObject();

private:
    static void switchTo(bool persistent);
};

}  // namespace qrl
