#include "qrl/logging/QRLNSUserDefaults.h"

namespace qrl {

void QRLNSUserDefaults::registerDefaults(const Dictionary& defaults) {
    UserDefaults::standardUserDefaults()->registerDefaults(defaults);
}

std::shared_ptr<Dictionary> QRLNSUserDefaults::dictionaryRepresentation() const {
    return UserDefaults::standardUserDefaults()->dictionaryRepresentation();
}

int32_t QRLNSUserDefaults::integerForKey(std::string_view key) const {
    // The platform's integer is 64 bits; this interface keeps the lower 32.
    return static_cast<int32_t>(static_cast<uint32_t>(UserDefaults::standardUserDefaults()->integerForKey(key)));
}

bool QRLNSUserDefaults::boolForKey(std::string_view key) const {
    return UserDefaults::standardUserDefaults()->boolForKey(key);
}

Value QRLNSUserDefaults::objectForKey(std::string_view key) const {
    return UserDefaults::standardUserDefaults()->objectForKey(key);
}

void QRLNSUserDefaults::setObject(const Value& value, std::string_view key) {
    UserDefaults::standardUserDefaults()->setObject(value, key);
}

void QRLNSUserDefaults::setInteger(int64_t value, std::string_view key) {
    UserDefaults::standardUserDefaults()->setInteger(value, key);
}

void QRLNSUserDefaults::synchronize() { UserDefaults::standardUserDefaults()->synchronize(); }

std::shared_ptr<KeyObservable> QRLNSUserDefaults::observableObject() { return UserDefaults::standardUserDefaults(); }

}  // namespace qrl
