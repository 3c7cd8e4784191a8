#include "qrl/foundation/DictionaryHelpers.h"

namespace qrl {

namespace {

// The value when it is a number or a string, else null.
const Value* convertible(const Dictionary& map, std::string_view key) {
    const Value* value = map.find(key);
    if (!value || !(value->isNumber() || value->isString())) return nullptr;
    return value;
}

}  // namespace

int64_t integerValueForKey(const Dictionary& map, std::string_view key) {
    const Value* value = convertible(map, key);
    return value ? value->integerValue() : 0;
}

bool boolValueForKey(const Dictionary& map, std::string_view key) {
    const Value* value = convertible(map, key);
    return value ? value->boolValue() : false;
}

int64_t integerValueForKey(const Value& map, std::string_view key) {
    const auto& dictionary = map.asDictionary();
    return dictionary ? integerValueForKey(*dictionary, key) : 0;
}

bool boolValueForKey(const Value& map, std::string_view key) {
    const auto& dictionary = map.asDictionary();
    return dictionary ? boolValueForKey(*dictionary, key) : false;
}

}  // namespace qrl
