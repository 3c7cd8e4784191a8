#include "qrl/foundation/FourCC.h"

#include <charconv>

namespace qrl {

namespace {

bool looksDecimal(std::string_view s) {
    size_t i = 0;
    if (i < s.size() && (s[i] == '-' || s[i] == '+')) ++i;
    if (i == s.size()) return false;
    for (; i < s.size(); ++i)
        if (s[i] < '0' || s[i] > '9') return false;
    return true;
}

bool printable(char c) { return c >= 0x20 && c <= 0x7e; }

uint32_t pack(std::string_view s) {
    uint32_t v = 0;
    for (char c : s) v = (v << 8) | static_cast<unsigned char>(c);
    return v;
}

}  // namespace

std::string fourCCString(uint32_t code) {
    const char chars[4] = {static_cast<char>(code >> 24), static_cast<char>(code >> 16), static_cast<char>(code >> 8),
                           static_cast<char>(code)};
    const std::string_view text(chars, 4);
    bool allPrintable = true;
    for (char c : text) allPrintable = allPrintable && printable(c);
    if (allPrintable) {
        if (looksDecimal(text)) return "'" + std::string(text) + "'";
        return std::string(text);
    }
    return std::to_string(static_cast<int32_t>(code));
}

std::optional<uint32_t> parseFourCC(std::string_view text) {
    if (text.size() == 6 && text.front() == '\'' && text.back() == '\'') {
        const std::string_view inner = text.substr(1, 4);
        for (char c : inner)
            if (!printable(c)) return std::nullopt;
        return pack(inner);
    }
    if (text.size() == 4 && !looksDecimal(text)) {
        for (char c : text)
            if (!printable(c)) return std::nullopt;
        return pack(text);
    }
    if (!looksDecimal(text)) return std::nullopt;
    if (text.front() == '+') text.remove_prefix(1);
    int64_t v = 0;
    const auto r = std::from_chars(text.data(), text.data() + text.size(), v);
    if (r.ec != std::errc() || r.ptr != text.data() + text.size()) return std::nullopt;
    if (v < INT32_MIN || v > static_cast<int64_t>(UINT32_MAX)) return std::nullopt;
    return static_cast<uint32_t>(v);
}

}  // namespace qrl
