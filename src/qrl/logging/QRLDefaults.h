// QRLDefaults: the key-value preference store that framework code reads and
// writes through; QRLDefaultsFactory::shared() gives the current one.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>

#include "qrl/foundation/KeyObservation.h"
#include "qrl/foundation/Value.h"

namespace qrl {

// Implemented by QRLNSUserDefaults (persistent, per user) and
// QRLNonPersistentDefaults (in memory, for this process). The two differ on
// purpose in how they coerce values, in where registered defaults lie and in
// what their observers hear; each class says how.
class QRLDefaults : public Object {
public:
    ~QRLDefaults() override;

    virtual void registerDefaults(const Dictionary& defaults) = 0;
    virtual std::shared_ptr<Dictionary> dictionaryRepresentation() const = 0;
    // A copy of every value, taken so that no concurrent write can tear it
    // (the in-memory store's representation is its live map). Empty where
    // the store has no map.
    virtual Dictionary snapshot() const;
    virtual int32_t integerForKey(std::string_view key) const = 0;
    virtual bool boolForKey(std::string_view key) const = 0;
    // A null Value when the key has none.
    virtual Value objectForKey(std::string_view key) const = 0;
    virtual void setObject(const Value& value, std::string_view key) = 0;
    virtual void setInteger(int64_t value, std::string_view key) = 0;
    virtual void synchronize() = 0;
    // The object on which key observation is to be registered. Shared, so
    // that an observer that keeps it can always take itself off again.
    virtual std::shared_ptr<KeyObservable> observableObject() = 0;

    // "<ClassName: 0x...>".
    std::string description() const override;

protected:
    QRLDefaults() = default;
    virtual const char* className() const = 0;
};

}  // namespace qrl
