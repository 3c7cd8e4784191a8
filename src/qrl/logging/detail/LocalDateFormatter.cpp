#include "qrl/logging/detail/LocalDateFormatter.h"

#include <time.h>

#include <algorithm>
#include <cstdint>
#include <limits>

namespace qrl::detail {

namespace {

constexpr int64_t kNanosPerSecond = 1'000'000'000;

struct LocalSecond {
    int64_t second = std::numeric_limits<int64_t>::min();
    tm fields{};
};

const tm& localFields(int64_t second) {
    thread_local LocalSecond cache;
    if (cache.second != second) {
        const time_t t = static_cast<time_t>(second);
        tm fields{};
        if (localtime_r(&t, &fields) == nullptr) fields = tm{};
        cache.fields = fields;
        cache.second = second;
    }
    return cache.fields;
}

// Writes `value` padded with zeros to `width` digits at `p`; answers the end.
char* writePadded(char* p, int64_t value, int width) {
    char digits[24];
    int n = 0;
    const bool negative = value < 0;
    uint64_t v = negative ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
    do {
        digits[n++] = static_cast<char>('0' + v % 10);
        v /= 10;
    } while (v != 0);
    if (negative) *p++ = '-';
    for (int i = n; i < width; ++i) *p++ = '0';
    while (n > 0) *p++ = digits[--n];
    return p;
}

bool isPatternLetter(char c) {
    return c == 'y' || c == 'M' || c == 'd' || c == 'H' || c == 'm' || c == 's' || c == 'S';
}

}  // namespace

LocalDateFormatter::LocalDateFormatter(std::string_view pattern) {
    auto literal = [this](char c) {
        if (fields_.empty() || fields_.back().kind != Kind::Literal) fields_.push_back({Kind::Literal, 0, {}});
        fields_.back().literal += c;
    };
    size_t i = 0;
    while (i < pattern.size()) {
        const char c = pattern[i];
        if (c == '\'') {
            if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
                literal('\'');
                i += 2;
                continue;
            }
            // Quoted text up to the closing quote (or the end).
            for (++i; i < pattern.size(); ++i) {
                if (pattern[i] == '\'') {
                    if (i + 1 < pattern.size() && pattern[i + 1] == '\'') {
                        literal('\'');
                        ++i;
                        continue;
                    }
                    break;
                }
                literal(pattern[i]);
            }
            ++i;
            continue;
        }
        if (!isPatternLetter(c)) {
            literal(c);
            ++i;
            continue;
        }
        size_t run = i;
        while (run < pattern.size() && pattern[run] == c) ++run;
        const int width = static_cast<int>(run - i);
        Kind kind = Kind::Literal;
        switch (c) {
            case 'y': kind = width == 2 ? Kind::YearOfCentury : Kind::Year; break;
            case 'M': kind = Kind::Month; break;
            case 'd': kind = Kind::Day; break;
            case 'H': kind = Kind::Hour; break;
            case 'm': kind = Kind::Minute; break;
            case 's': kind = Kind::Second; break;
            default: kind = Kind::Fraction; break;
        }
        fields_.push_back({kind, width, {}});
        i = run;
    }
    // The longest text: literals, and each number at its widest (a year of
    // up to 11 characters with its sign, a fraction of at least its width).
    for (const Field& f : fields_) {
        if (f.kind == Kind::Literal)
            maxLength_ += f.literal.size();
        else
            maxLength_ += static_cast<size_t>(std::max(f.width, f.kind == Kind::Year ? 12 : 9));
    }
}

void LocalDateFormatter::append(std::string& out, Date date) const {
    // Floor division, so that instants before 1970 keep a positive fraction.
    int64_t second = date.nanosecondsSinceEpoch / kNanosPerSecond;
    int64_t nanos = date.nanosecondsSinceEpoch % kNanosPerSecond;
    if (nanos < 0) {
        nanos += kNanosPerSecond;
        --second;
    }
    const tm& t = localFields(second);
    // Written in place: the text is at most maxLength_ long.
    const size_t start = out.size();
    out.resize(start + maxLength_);
    char* const begin = out.data() + start;
    char* p = begin;
    for (const Field& f : fields_) {
        switch (f.kind) {
            case Kind::Literal: p = std::copy(f.literal.begin(), f.literal.end(), p); break;
            case Kind::Year: p = writePadded(p, int64_t{t.tm_year} + 1900, f.width); break;
            case Kind::YearOfCentury: {
                const int64_t y = (int64_t{t.tm_year} + 1900) % 100;
                p = writePadded(p, y < 0 ? y + 100 : y, 2);
                break;
            }
            case Kind::Month: p = writePadded(p, t.tm_mon + 1, f.width); break;
            case Kind::Day: p = writePadded(p, t.tm_mday, f.width); break;
            case Kind::Hour: p = writePadded(p, t.tm_hour, f.width); break;
            case Kind::Minute: p = writePadded(p, t.tm_min, f.width); break;
            case Kind::Second: p = writePadded(p, t.tm_sec, f.width); break;
            case Kind::Fraction: {
                // The first `width` digits of the nine, cut; more than nine pad with zeros.
                int64_t scaled = nanos;
                int digits = 9;
                while (digits > f.width) {
                    scaled /= 10;
                    --digits;
                }
                p = writePadded(p, scaled, digits);
                for (int k = digits; k < f.width; ++k) *p++ = '0';
                break;
            }
        }
    }
    out.resize(start + static_cast<size_t>(p - begin));
}

std::string LocalDateFormatter::format(Date date) const {
    std::string out;
    append(out, date);
    return out;
}

}  // namespace qrl::detail
