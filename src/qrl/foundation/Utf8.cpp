#include "qrl/foundation/Utf8.h"

#include <cstring>

namespace qrl {

namespace {

bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

}  // namespace

void appendUtf8(std::string& out, uint32_t cp) {
    if (cp > 0x10FFFF || (cp >= 0xD800 && cp < 0xE000)) cp = 0xFFFD;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        out.push_back(static_cast<char>(0xC0 | (cp >> 6)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else if (cp < 0x10000) {
        out.push_back(static_cast<char>(0xE0 | (cp >> 12)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    } else {
        out.push_back(static_cast<char>(0xF0 | (cp >> 18)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 12) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | ((cp >> 6) & 0x3F)));
        out.push_back(static_cast<char>(0x80 | (cp & 0x3F)));
    }
}

bool isValidUtf8(std::string_view text) {
    const auto* p = reinterpret_cast<const unsigned char*>(text.data());
    const unsigned char* const end = p + text.size();
    while (p < end) {
        // Runs of ASCII go eight bytes at a time.
        while (end - p >= 8) {
            uint64_t word;
            std::memcpy(&word, p, 8);
            if (word & 0x8080808080808080ULL) break;
            p += 8;
        }
        if (p == end) break;
        const unsigned char b0 = *p;
        if (b0 < 0x80) {
            ++p;
            continue;
        }
        const size_t left = static_cast<size_t>(end - p);
        if (b0 >= 0xC2 && b0 <= 0xDF) {
            if (left < 2 || !isContinuation(p[1])) return false;
            p += 2;
        } else if (b0 >= 0xE0 && b0 <= 0xEF) {
            if (left < 3 || !isContinuation(p[1]) || !isContinuation(p[2])) return false;
            if (b0 == 0xE0 && p[1] < 0xA0) return false;  // overlong
            if (b0 == 0xED && p[1] > 0x9F) return false;  // surrogate
            p += 3;
        } else if (b0 >= 0xF0 && b0 <= 0xF4) {
            if (left < 4 || !isContinuation(p[1]) || !isContinuation(p[2]) || !isContinuation(p[3])) return false;
            if (b0 == 0xF0 && p[1] < 0x90) return false;  // overlong
            if (b0 == 0xF4 && p[1] > 0x8F) return false;  // above U+10FFFF
            p += 4;
        } else {
            return false;
        }
    }
    return true;
}

}  // namespace qrl
