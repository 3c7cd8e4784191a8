// Byte-level helpers shared by the JSON reader and writer: UTF-8 validation,
// the scan for characters a string cannot hold unescaped, UTF-16 ordering of
// UTF-8 keys. Internal to the JSON classes; not part of the public surface.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <string>
#include <string_view>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "qrl/foundation/Decimal.h"

namespace qrl::jsontext {

// Bytes that end a plain run inside a string literal: double quote,
// backslash and the control characters 0 to 31.
struct StringSpecialTable {
    bool special[256] = {};
    constexpr StringSpecialTable() {
        for (int i = 0; i < 0x20; ++i) special[i] = true;
        special[static_cast<unsigned char>('"')] = true;
        special[static_cast<unsigned char>('\\')] = true;
    }
};
inline constexpr StringSpecialTable kStringSpecial;

// Sixteen bytes at a time, for long runs.
const char* findStringSpecialInBlocks(const char* p, const char* end);
const char* findStringSpecialInBlocks(const char* p, const char* end, bool& nonAscii);

// First byte in [p, end) that is a double quote, a backslash or below 0x20;
// end when there is none. Most strings end within their first sixteen
// bytes, which are looked at here; longer ones go on out of line.
inline const char* findStringSpecial(const char* p, const char* end) {
#if defined(__SSE2__)
    if (end - p >= 16) {
        const __m128i v = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
        __m128i hit = _mm_or_si128(_mm_cmpeq_epi8(v, _mm_set1_epi8('"')), _mm_cmpeq_epi8(v, _mm_set1_epi8('\\')));
        hit = _mm_or_si128(hit, _mm_cmpeq_epi8(_mm_min_epu8(v, _mm_set1_epi8(0x1F)), v));  // unsigned v <= 0x1F
        const int mask = _mm_movemask_epi8(hit);
        if (mask != 0) return p + __builtin_ctz(static_cast<unsigned>(mask));
        return findStringSpecialInBlocks(p + 16, end);
    }
#else
    if (end - p >= 16) return findStringSpecialInBlocks(p, end);
#endif
    while (p < end && !kStringSpecial.special[static_cast<unsigned char>(*p)]) ++p;
    return p;
}

// The same scan for the writer, which also notes in nonAscii whether a byte
// of 0x80 or above was passed (it may also note bytes a little beyond).
inline const char* findStringSpecial(const char* p, const char* end, bool& nonAscii) {
    if (end - p >= 16) return findStringSpecialInBlocks(p, end, nonAscii);
    unsigned char high = 0;
    while (p < end && !kStringSpecial.special[static_cast<unsigned char>(*p)]) high |= static_cast<unsigned char>(*p++);
    if (high & 0x80) nonAscii = true;
    return p;
}

// Appends one 16-bit character as UTF-8. Surrogate code units, which UTF-8
// cannot carry alone, become U+FFFD; 0 stays a NUL byte.
void appendUTF16Unit(std::string& out, uint16_t unit);

// Three-way comparison of two UTF-8 strings by their UTF-16 code units, so
// that characters beyond the basic plane order before U+E000..U+FFFF. A total
// order for any bytes: malformed sequences compare by their bytes.
int compareUTF16(std::string_view a, std::string_view b);

// Text being written into a borrowed buffer (kept by the writer from one
// call to the next) that grows by doubling; small pieces are copied without
// the bookkeeping of std::string::append.
class Output {
public:
    // The buffer's contents are overwritten; it must outlive the Output.
    Output(std::string& buffer, size_t capacity) : buffer_(buffer) {
        if (buffer_.size() < capacity) buffer_.resize(capacity);
        data_ = buffer_.data();
    }

    size_t size() const { return length_; }
    void truncate(size_t length) { length_ = length; }

    // Room for n more bytes at the end, which is returned; then either
    // advance() by what was written or setEnd() just past it.
    char* room(size_t n) {
        if (buffer_.size() - length_ < n) grow(n);
        return data_ + length_;
    }
    void advance(size_t n) { length_ += n; }
    void setEnd(const char* end) { length_ = static_cast<size_t>(end - data_); }

    void put(char c) {
        *room(1) = c;
        ++length_;
    }
    void write(const char* p, size_t n) {
        char* to = room(n);
        if (n <= 16) {
            for (size_t i = 0; i < n; ++i) to[i] = p[i];
        } else {
            std::memcpy(to, p, n);
        }
        length_ += n;
    }
    void write(std::string_view text) { write(text.data(), text.size()); }

    std::string text() const { return std::string(data_, length_); }

private:
    void grow(size_t n);

    std::string& buffer_;
    char* data_;
    size_t length_ = 0;
};

// Writes the decimal in plain notation, exactly as Decimal::toString() gives
// it, without building a string of its own.
void appendDecimal(Output& out, const Decimal& decimal);

}  // namespace qrl::jsontext
