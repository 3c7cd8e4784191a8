// Map extensions: the value of a key read as an integer or a boolean, from a
// number or a string, and 0 or false for a missing key or any other type.
#pragma once

#include <cstdint>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

// Numbers (booleans included) and strings are converted by Value's platform
// coercions: integerValue truncates reals toward zero and saturates, reads a
// string's leading digits ("42 apples" gives 42, "x" gives 0); boolValue is
// "not zero" for numbers and 'Y', 'y', 'T', 't' or a digit 1-9 for strings.
// A missing key, null, data, dates, containers and objects give 0 or false.
int64_t integerValueForKey(const Dictionary& map, std::string_view key);
bool boolValueForKey(const Dictionary& map, std::string_view key);

// The same on a Value holding the map; anything that is not a dictionary
// (null included) gives 0 or false, as a message to nothing does.
int64_t integerValueForKey(const Value& map, std::string_view key);
bool boolValueForKey(const Value& map, std::string_view key);

}  // namespace qrl
