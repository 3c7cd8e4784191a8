// UTF-8: the framework's one encoder of code points and one validator.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace qrl {

// Appends the UTF-8 form of `codePoint`; a surrogate or a value above
// U+10FFFF is written as U+FFFD.
void appendUtf8(std::string& out, uint32_t codePoint);

// True when `text` is well-formed UTF-8: shortest forms only, no encoded
// surrogates, nothing above U+10FFFF. Runs of ASCII are checked eight bytes
// at a time.
bool isValidUtf8(std::string_view text);

}  // namespace qrl
