#include "qrl/foundation/Base64.h"

#include <algorithm>

namespace qrl {

namespace {

constexpr char kAlphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

int digitValue(char c) {
    if (c >= 'A' && c <= 'Z') return c - 'A';
    if (c >= 'a' && c <= 'z') return c - 'a' + 26;
    if (c >= '0' && c <= '9') return c - '0' + 52;
    if (c == '+') return 62;
    if (c == '/') return 63;
    return -1;
}

}  // namespace

std::string base64Encode(std::span<const uint8_t> bytes) {
    std::string out;
    out.reserve((bytes.size() + 2) / 3 * 4);
    for (size_t i = 0; i < bytes.size(); i += 3) {
        const size_t group = std::min<size_t>(3, bytes.size() - i);
        uint32_t n = uint32_t{bytes[i]} << 16;
        if (group > 1) n |= uint32_t{bytes[i + 1]} << 8;
        if (group > 2) n |= bytes[i + 2];
        out += kAlphabet[n >> 18];
        out += kAlphabet[(n >> 12) & 63];
        out += group > 1 ? kAlphabet[(n >> 6) & 63] : '=';
        out += group > 2 ? kAlphabet[n & 63] : '=';
    }
    return out;
}

std::optional<std::vector<uint8_t>> base64Decode(std::string_view text) {
    if (text.size() % 4 != 0) return std::nullopt;
    std::vector<uint8_t> out;
    out.reserve(text.size() / 4 * 3);
    for (size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        uint32_t n = 0;
        int padding = 0;
        for (size_t k = 0; k < 4; ++k) {
            const char c = text[i + k];
            int digit = 0;
            if (c == '=' && last && k >= 2) {
                ++padding;
            } else {
                if (padding > 0) return std::nullopt;  // data after padding
                digit = digitValue(c);
                if (digit < 0) return std::nullopt;
            }
            n = (n << 6) | static_cast<uint32_t>(digit);
        }
        if ((padding == 1 && (n & 0xFF) != 0) || (padding == 2 && (n & 0xFFFF) != 0)) return std::nullopt;
        out.push_back(static_cast<uint8_t>(n >> 16));
        if (padding < 2) out.push_back(static_cast<uint8_t>(n >> 8));
        if (padding < 1) out.push_back(static_cast<uint8_t>(n));
    }
    return out;
}

}  // namespace qrl
