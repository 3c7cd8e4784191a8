// JSON one call away: any value to its JSON text, any string to the value it
// holds, each through a one-off writer or parser that logs its error trace
// upon failure.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

// The compact JSON text of an array, a dictionary or an object with a proxy;
// nullopt upon failure, after logging
// "-JSONRepresentation failed. Error trace is: <trace>".
std::optional<std::string> JSONRepresentation(const Value& value);

// The array or dictionary the text holds; a null value upon failure, after
// logging "-JSONValue failed. Error trace is: <trace>".
Value JSONValue(std::string_view text);

}  // namespace qrl
