// QRLNSUserDefaults: the persistent preference store; every operation goes to
// the application's standard UserDefaults (a JSON file per user and
// application), so registered defaults lie beneath stored values.
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>

#include "qrl/logging/QRLDefaults.h"
#include "qrl/logging/detail/DefaultsUserDefaults.h"

namespace qrl {

// No state of its own: each call goes to UserDefaults::standardUserDefaults()
// as it is at that moment, so any number of these objects share one store.
// What the platform store does, this does: integerForKey reads "42" as 42 (cut
// to 32 bits), boolForKey reads "YES" and "true" as true, setObject refuses
// values that cannot be saved and takes a null value as a removal, setInteger
// keeps all 64 bits, and every set tells the key's observers at once, even
// when the value does not change. Thread-safe.
class QRLNSUserDefaults : public QRLDefaults {
public:
    QRLNSUserDefaults() = default;

    void registerDefaults(const Dictionary& defaults) override;
    // A new map: registered defaults overlaid by stored values.
    std::shared_ptr<Dictionary> dictionaryRepresentation() const override;
    int32_t integerForKey(std::string_view key) const override;
    bool boolForKey(std::string_view key) const override;
    Value objectForKey(std::string_view key) const override;
    void setObject(const Value& value, std::string_view key) override;
    void setInteger(int64_t value, std::string_view key) override;
    // Saves to the file; a failure is reported through the platform log and
    // the changes are kept for the next call.
    void synchronize() override;
    // The standard UserDefaults itself.
    std::shared_ptr<KeyObservable> observableObject() override;

protected:
    const char* className() const override { return "QRLNSUserDefaults"; }
};

}  // namespace qrl
