// Base64 with the standard alphabet ('+' and '/') and '=' padding.
#pragma once

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace qrl {

// Four characters for every three bytes, the last group padded with '='.
std::string base64Encode(std::span<const uint8_t> bytes);

// Strict: the length is a multiple of four, '=' only as the last one or two
// characters, no white space, and the bits that padding leaves unused are
// zero. nullopt for anything else.
std::optional<std::vector<uint8_t>> base64Decode(std::string_view text);

}  // namespace qrl
