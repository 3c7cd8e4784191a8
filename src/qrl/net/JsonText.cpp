#include "qrl/net/JsonText.h"

#include <charconv>
#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace qrl::jsontext {

namespace {

inline bool isContinuation(unsigned char b) { return (b & 0xC0) == 0x80; }

// Decodes one unit at p (p < end) for ordering: a key that sorts as UTF-16
// code units would, and the number of bytes taken. A malformed byte is a unit
// of its own whose key lies above every character.
inline uint32_t orderingKey(const unsigned char* p, const unsigned char* end, size_t& length) {
    const unsigned char b0 = p[0];
    uint32_t cp = 0;
    length = 1;
    if (b0 < 0x80) return b0;
    size_t need = 0;
    uint32_t min = 0;
    if (b0 >= 0xC2 && b0 <= 0xDF) {
        need = 1;
        cp = b0 & 0x1F;
        min = 0x80;
    } else if (b0 >= 0xE0 && b0 <= 0xEF) {
        need = 2;
        cp = b0 & 0x0F;
        min = 0x800;
    } else if (b0 >= 0xF0 && b0 <= 0xF4) {
        need = 3;
        cp = b0 & 0x07;
        min = 0x10000;
    } else {
        return 0x200000u + b0;
    }
    if (static_cast<size_t>(end - p) <= need) return 0x200000u + b0;
    for (size_t i = 1; i <= need; ++i) {
        if (!isContinuation(p[i])) return 0x200000u + b0;
        cp = (cp << 6) | (p[i] & 0x3F);
    }
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0x200000u + b0;
    length = need + 1;
    if (cp < 0xD800) return cp;
    if (cp >= 0x10000) return 0xD800u + (cp - 0x10000u);  // high surrogates come before U+E000
    return 0x10D800u + (cp - 0xE000u);
}

}  // namespace

const char* findStringSpecialInBlocks(const char* p, const char* end) {
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i control = _mm_set1_epi8(0x1F);
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash));
        hit = _mm_or_si128(hit, _mm_cmpeq_epi8(_mm_min_epu8(v, control), v));  // unsigned v <= 0x1F
        const int mask = _mm_movemask_epi8(hit);
        if (mask != 0) return p + __builtin_ctz(static_cast<unsigned>(mask));
        p += 16;
    }
#endif
    while (p < end && !kStringSpecial.special[static_cast<unsigned char>(*p)]) ++p;
    return p;
}

const char* findStringSpecialInBlocks(const char* p, const char* end, bool& nonAscii) {
#if defined(__SSE2__)
    const __m128i quote = _mm_set1_epi8('"');
    const __m128i backslash = _mm_set1_epi8('\\');
    const __m128i control = _mm_set1_epi8(0x1F);
    while (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, quote), _mm_cmpeq_epi8(v, backslash));
        hit = _mm_or_si128(hit, _mm_cmpeq_epi8(_mm_min_epu8(v, control), v));
        if (_mm_movemask_epi8(v) != 0) nonAscii = true;
        const int mask = _mm_movemask_epi8(hit);
        if (mask != 0) return p + __builtin_ctz(static_cast<unsigned>(mask));
        p += 16;
    }
#endif
    unsigned char high = 0;
    while (p < end && !kStringSpecial.special[static_cast<unsigned char>(*p)]) {
        high |= static_cast<unsigned char>(*p);
        ++p;
    }
    if (high & 0x80) nonAscii = true;
    return p;
}

void appendUTF16Unit(std::string& out, uint16_t unit) {
    uint32_t cp = unit;
    if (cp >= 0xD800 && cp <= 0xDFFF) cp = 0xFFFD;
    if (cp < 0x80) {
        out.push_back(static_cast<char>(cp));
    } else if (cp < 0x800) {
        const char bytes[2] = {static_cast<char>(0xC0 | (cp >> 6)), static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 2);
    } else {
        const char bytes[3] = {static_cast<char>(0xE0 | (cp >> 12)), static_cast<char>(0x80 | ((cp >> 6) & 0x3F)),
                               static_cast<char>(0x80 | (cp & 0x3F))};
        out.append(bytes, 3);
    }
}

int compareUTF16(std::string_view a, std::string_view b) {
    const size_t common = a.size() < b.size() ? a.size() : b.size();
    size_t i = 0;
    while (i < common && a[i] == b[i]) ++i;
    if (i < common) {
        const auto ca = static_cast<unsigned char>(a[i]);
        const auto cb = static_cast<unsigned char>(b[i]);
        // Both bytes start a character of their own: the bytes decide.
        if (ca < 0x80 && cb < 0x80) return ca < cb ? -1 : 1;
    }
    // Otherwise walk both from the start, one character at a time.
    const auto* pa = reinterpret_cast<const unsigned char*>(a.data());
    const auto* pb = reinterpret_cast<const unsigned char*>(b.data());
    const unsigned char* const ea = pa + a.size();
    const unsigned char* const eb = pb + b.size();
    while (pa < ea && pb < eb) {
        size_t la = 0;
        size_t lb = 0;
        const uint32_t ka = orderingKey(pa, ea, la);
        const uint32_t kb = orderingKey(pb, eb, lb);
        if (ka != kb) return ka < kb ? -1 : 1;
        pa += la;
        pb += lb;
    }
    if (pa < ea) return 1;
    if (pb < eb) return -1;
    return 0;
}

void Output::grow(size_t n) {
    size_t capacity = buffer_.size() < 64 ? 64 : buffer_.size();
    while (capacity - length_ < n) capacity *= 2;
    buffer_.resize(capacity);
    data_ = buffer_.data();
}

void appendDecimal(Output& out, const Decimal& decimal) {
    // The mantissa's digits: at most 38, in at most two 64-bit halves.
    char digits[48];
    size_t count = 0;
    const unsigned __int128 mantissa = decimal.mantissa();
    constexpr uint64_t kTen19 = 10000000000000000000ULL;
    if (mantissa <= UINT64_MAX) {
        count = static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, static_cast<uint64_t>(mantissa)).ptr -
                                    digits);
    } else {
        const auto high = static_cast<uint64_t>(mantissa / kTen19);
        auto low = static_cast<uint64_t>(mantissa % kTen19);
        count = static_cast<size_t>(std::to_chars(digits, digits + sizeof digits, high).ptr - digits);
        for (size_t i = 19; i-- > 0;) {
            digits[count + i] = static_cast<char>('0' + low % 10);
            low /= 10;
        }
        count += 19;
    }

    const int exponent = decimal.exponent();
    const size_t zeros = static_cast<size_t>(exponent < 0 ? -exponent : exponent);
    char* const start = out.room(count + zeros + 3);
    char* p = start;
    if (decimal.isNegative()) *p++ = '-';
    if (mantissa == 0) {
        *p++ = '0';
    } else if (exponent >= 0) {
        std::memcpy(p, digits, count);
        p += count;
        std::memset(p, '0', zeros);
        p += zeros;
    } else {
        const long point = static_cast<long>(count) + exponent;  // digits before the decimal point
        if (point > 0) {
            std::memcpy(p, digits, static_cast<size_t>(point));
            p += point;
            *p++ = '.';
            std::memcpy(p, digits + point, count - static_cast<size_t>(point));
            p += count - static_cast<size_t>(point);
        } else {
            *p++ = '0';
            *p++ = '.';
            std::memset(p, '0', static_cast<size_t>(-point));
            p += -point;
            std::memcpy(p, digits, count);
            p += count;
        }
    }
    out.advance(static_cast<size_t>(p - start));
}

}  // namespace qrl::jsontext
