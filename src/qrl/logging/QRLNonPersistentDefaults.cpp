#include "qrl/logging/QRLNonPersistentDefaults.h"

#include <utility>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"

namespace qrl {

QRLNonPersistentDefaults::QRLNonPersistentDefaults() : dict_(std::make_shared<Dictionary>()) {
    // Observers asking for values (initial with new, or old) read the map.
    setValueGetter([this](std::string_view key) { return objectForKey(key); });
}

void QRLNonPersistentDefaults::registerDefaults(const Dictionary& defaults) {
    std::lock_guard lock(mutex_);
    if (!dict_) return;
    if (&defaults == dict_.get()) return;  // its own map: removing and re-adding every key changes nothing
    // Remove first, then add: a registered value replaces a set one.
    for (const auto& [key, value] : defaults) dict_->remove(key);
    for (const auto& [key, value] : defaults) dict_->set(key, value);
}

std::shared_ptr<Dictionary> QRLNonPersistentDefaults::dictionaryRepresentation() const {
    std::lock_guard lock(mutex_);
    return dict_;
}

Dictionary QRLNonPersistentDefaults::snapshot() const {
    std::lock_guard lock(mutex_);
    return dict_ ? Dictionary(*dict_) : Dictionary();
}

Value QRLNonPersistentDefaults::valueForKey(std::string_view key, bool (Value::*isOfType)() const) const {
    std::lock_guard lock(mutex_);
    if (!dict_) return Value();
    const Value* value = dict_->find(key);
    if (!value || !(value->*isOfType)()) return Value();
    return *value;
}

int32_t QRLNonPersistentDefaults::integerForKey(std::string_view key) const {
    return valueForKey(key, &Value::isNumber).intValue();
}

bool QRLNonPersistentDefaults::boolForKey(std::string_view key) const {
    return valueForKey(key, &Value::isNumber).boolValue();
}

Value QRLNonPersistentDefaults::objectForKey(std::string_view key) const {
    std::lock_guard lock(mutex_);
    if (!dict_) return Value();
    return dict_->get(key);
}

void QRLNonPersistentDefaults::setObject(const Value& value, std::string_view key) {
    std::lock_guard lock(mutex_);
    if (!dict_) return;
    if (value.isNull())
        Exception::raise("NSInvalidArgumentException",
                         qrl::format("*** setObjectForKey: object cannot be nil (key: %s)", std::string(key).c_str()));
    dict_->set(std::string(key), value);
}

void QRLNonPersistentDefaults::setInteger(int64_t value, std::string_view key) {
    setObject(Value(static_cast<int32_t>(static_cast<uint32_t>(value))), key);
}

void QRLNonPersistentDefaults::synchronize() {}

std::shared_ptr<KeyObservable> QRLNonPersistentDefaults::observableObject() {
    if (auto self = weak_from_this().lock()) return std::shared_ptr<KeyObservable>(self, static_cast<KeyObservable*>(this));
    return std::shared_ptr<KeyObservable>(std::shared_ptr<void>(), static_cast<KeyObservable*>(this));
}

std::shared_ptr<Dictionary> QRLNonPersistentDefaults::dict() const {
    std::lock_guard lock(mutex_);
    return dict_;
}

void QRLNonPersistentDefaults::setDict(std::shared_ptr<Dictionary> dict) {
    std::lock_guard lock(mutex_);
    dict_ = std::move(dict);
}

}  // namespace qrl
