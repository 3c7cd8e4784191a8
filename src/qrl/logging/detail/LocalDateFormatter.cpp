#include "qrl/logging/detail/LocalDateFormatter.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <limits>
#include <utility>

namespace qrl::detail {

namespace {

constexpr int64_t kNanosPerSecond = 1'000'000'000;

std::atomic<uint64_t> gNextFormatterID{1};

// The last second this thread rendered, per formatter: the whole text with
// zeros where the fractions go, and where they go.
struct RenderedSecond {
    uint64_t formatter = 0;
    int64_t second = std::numeric_limits<int64_t>::min();
    std::string text;
    std::vector<std::pair<size_t, int>> fractions;  // offset, width
};

tm localFields(int64_t second) {
    const time_t t = static_cast<time_t>(second);
    tm fields{};
    if (localtime_r(&t, &fields) == nullptr) fields = tm{};
    return fields;
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

LocalDateFormatter::LocalDateFormatter(std::string_view pattern)
    : id_(gNextFormatterID.fetch_add(1, std::memory_order_relaxed)) {
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

void LocalDateFormatter::render(std::string& out, std::vector<std::pair<size_t, int>>& fractions,
                                int64_t second) const {
    const tm t = localFields(second);
    out.assign(maxLength_, '\0');
    char* const begin = out.data();
    char* p = begin;
    fractions.clear();
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
            case Kind::Fraction:
                fractions.emplace_back(static_cast<size_t>(p - begin), f.width);
                p = std::fill_n(p, f.width, '0');
                break;
        }
    }
    out.resize(static_cast<size_t>(p - begin));
}

void LocalDateFormatter::append(std::string& out, Date date) const {
    // Floor division, so that instants before 1970 keep a positive fraction.
    int64_t second = date.nanosecondsSinceEpoch / kNanosPerSecond;
    int64_t nanos = date.nanosecondsSinceEpoch % kNanosPerSecond;
    if (nanos < 0) {
        nanos += kNanosPerSecond;
        --second;
    }
    // A few formatters per thread: loggers delivered on one thread each have their own.
    struct Caches {
        RenderedSecond entries[4];
        unsigned next = 0;
    };
    thread_local Caches caches;
    RenderedSecond* found = nullptr;
    for (RenderedSecond& entry : caches.entries)
        if (entry.formatter == id_) found = &entry;
    if (!found) {
        found = &caches.entries[caches.next++ % 4];
        found->formatter = id_;
        found->second = std::numeric_limits<int64_t>::min();
    }
    RenderedSecond& cache = *found;
    if (cache.second != second) {
        render(cache.text, cache.fractions, second);
        cache.second = second;
    }
    const size_t start = out.size();
    out += cache.text;
    for (const auto& [offset, width] : cache.fractions) {
        // The first `width` digits of the nine, cut; beyond nine they stay zeros.
        int64_t scaled = nanos;
        for (int digits = 9; digits > width; --digits) scaled /= 10;
        char* digit = out.data() + start + offset + std::min(width, 9);
        for (int k = std::min(width, 9); k > 0; --k) {
            *--digit = static_cast<char>('0' + scaled % 10);
            scaled /= 10;
        }
    }
}

std::string LocalDateFormatter::format(Date date) const {
    std::string out;
    append(out, date);
    return out;
}

}  // namespace qrl::detail
