// Four-character codes ('dev#', 'glob', 'nope', 'lpcm'): building them,
// printing them, and reading them back from their printed form.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qrl {

// fourCC("lpcm") == 0x6c70636d: the first character is the most significant byte.
constexpr uint32_t fourCC(const char (&code)[5]) {
    return (static_cast<uint32_t>(static_cast<unsigned char>(code[0])) << 24) |
           (static_cast<uint32_t>(static_cast<unsigned char>(code[1])) << 16) |
           (static_cast<uint32_t>(static_cast<unsigned char>(code[2])) << 8) |
           static_cast<uint32_t>(static_cast<unsigned char>(code[3]));
}

// A code whose four bytes are all printable ASCII (space to '~') as those four
// characters ("lpcm"); any other value as a signed decimal number, the way
// status codes read ("-50", "0"). A printable code that would read as a
// number ("1234", "-123") is quoted ("'1234'") so that it parses back.
std::string fourCCString(uint32_t code);

// The inverse of fourCCString: four characters that do not form a decimal
// number, four characters in single quotes, or a decimal number within the
// 32-bit range (signed or unsigned). nullopt for anything else.
std::optional<uint32_t> parseFourCC(std::string_view text);

}  // namespace qrl
