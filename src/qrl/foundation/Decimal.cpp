#include "qrl/foundation/Decimal.h"

#include <array>
#include <charconv>
#include <limits>

namespace qrl {

namespace {

using u128 = unsigned __int128;

constexpr std::array<u128, 39> makePowers() {
    std::array<u128, 39> p{};
    p[0] = 1;
    for (size_t i = 1; i < p.size(); ++i) p[i] = p[i - 1] * 10;
    return p;
}
constexpr std::array<u128, 39> kPow10 = makePowers();
constexpr u128 kMantissaLimit = kPow10[38];  // mantissas stay below this

int digitCount(u128 m) {
    int n = 1;
    while (n < 39 && m >= kPow10[n]) ++n;
    return n;
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Writes the decimal digits of m (at least one) into buf, returns the count.
int writeDigits(u128 m, char* buf) {
    char tmp[40];
    int n = 0;
    do {
        tmp[n++] = static_cast<char>('0' + static_cast<int>(m % 10));
        m /= 10;
    } while (m != 0);
    for (int i = 0; i < n; ++i) buf[i] = tmp[n - 1 - i];
    return n;
}

// Strips trailing zeros of m (not zero) into e; 64-bit arithmetic as soon
// as the value fits.
void stripTrailingZeros(u128& m, int64_t& e) {
    while (m > UINT64_MAX) {
        if (m % 10 != 0) return;
        m /= 10;
        ++e;
    }
    auto small = static_cast<uint64_t>(m);
    while (small % 10 == 0) {
        small /= 10;
        ++e;
    }
    m = small;
}

}  // namespace

// Builds the canonical form of m x 10^e, or nullopt when the exponent cannot
// be brought into range.
struct DecimalBuilder {
    static std::optional<Decimal> make(u128 m, int64_t e, bool negative) {
        Decimal d;
        d.negative_ = negative;
        if (m == 0) return d;
        stripTrailingZeros(m, e);
        if (e > Decimal::kMaxExponent) {
            const int64_t shift = e - Decimal::kMaxExponent;
            if (digitCount(m) + shift > Decimal::kMaxDigits) return std::nullopt;
            m *= kPow10[static_cast<size_t>(shift)];
            e = Decimal::kMaxExponent;
        } else if (e < Decimal::kMinExponent) {
            const int64_t shift = Decimal::kMinExponent - e;
            if (shift > Decimal::kMaxDigits) {
                m = 0;  // below half of 10^-128 even for a 38-digit mantissa
            } else {
                const u128 div = kPow10[static_cast<size_t>(shift)];
                u128 q = m / div;
                const u128 r = m % div;
                const u128 half = div / 2;
                if (r > half || (r == half && (q & 1) != 0)) ++q;
                m = q;
            }
            e = Decimal::kMinExponent;
            if (m == 0) return d;
            stripTrailingZeros(m, e);
        }
        d.setMantissa(m);
        d.exponent_ = static_cast<int>(e);
        return d;
    }

    // The same for a 64-bit mantissa, which needs no 128-bit division while
    // the exponent stays in range.
    static std::optional<Decimal> make64(uint64_t m, int64_t e, bool negative) {
        if (m == 0) {
            Decimal d;
            d.negative_ = negative;
            return d;
        }
        // Far outside the range every mantissa gives the same answer; the
        // clamp keeps the arithmetic below from overflowing.
        constexpr int64_t kFar = 1'000'000'000'000LL;
        if (e > kFar) e = kFar;
        if (e < -kFar) e = -kFar;
        while (m % 10 == 0) {
            m /= 10;
            ++e;
        }
        if (e < Decimal::kMinExponent || e > Decimal::kMaxExponent) return make(m, e, negative);
        Decimal d;
        d.negative_ = negative;
        d.low_ = m;
        d.exponent_ = static_cast<int>(e);
        return d;
    }
};

Decimal Decimal::fromInt64(int64_t v) {
    const bool neg = v < 0;
    const uint64_t m = neg ? 0 - static_cast<uint64_t>(v) : static_cast<uint64_t>(v);
    return *DecimalBuilder::make64(m, 0, neg);
}

std::optional<Decimal> Decimal::fromParts(uint64_t significand, int64_t exponent, bool negative) {
    return DecimalBuilder::make64(significand, exponent, negative);
}

std::optional<Decimal> Decimal::parse(std::string_view text) {
    size_t i = 0;
    const size_t n = text.size();
    bool neg = false;
    if (i < n && text[i] == '-') {
        neg = true;
        ++i;
    }
    const size_t intStart = i;
    while (i < n && isDigit(text[i])) ++i;
    const size_t intEnd = i;
    if (intEnd == intStart) return std::nullopt;
    size_t fracStart = i, fracEnd = i;
    if (i < n && text[i] == '.') {
        fracStart = ++i;
        while (i < n && isDigit(text[i])) ++i;
        fracEnd = i;
        if (fracEnd == fracStart) return std::nullopt;
    }
    int64_t exp10 = 0;
    if (i < n && (text[i] == 'e' || text[i] == 'E')) {
        ++i;
        bool expNeg = false;
        if (i < n && (text[i] == '+' || text[i] == '-')) {
            expNeg = text[i] == '-';
            ++i;
        }
        const size_t expStart = i;
        while (i < n && isDigit(text[i])) {
            // Saturate far beyond anything a digit count can bring back.
            if (exp10 < 1'000'000'000'000LL) exp10 = exp10 * 10 + (text[i] - '0');
            ++i;
        }
        if (i == expStart) return std::nullopt;
        if (expNeg) exp10 = -exp10;
    }
    if (i != n) return std::nullopt;

    // Up to 19 significant digits fit 64 bits; more go on in 128 bits, and
    // beyond 38 they are rounded away.
    uint64_t small = 0;
    u128 m = 0;
    int kept = 0;
    int64_t dropped = 0;
    int roundDigit = 0;
    bool sticky = false;
    auto take = [&](char c) {
        const int d = c - '0';
        if (kept == 0 && d == 0) return;  // leading zero
        if (kept < 19) {
            small = small * 10 + static_cast<unsigned>(d);
            ++kept;
        } else if (kept < kMaxDigits) {
            if (kept == 19) m = small;
            m = m * 10 + static_cast<unsigned>(d);
            ++kept;
        } else {
            if (dropped == 0) roundDigit = d;
            else if (d != 0) sticky = true;
            ++dropped;
        }
    };
    for (size_t k = intStart; k < intEnd; ++k) take(text[k]);
    for (size_t k = fracStart; k < fracEnd; ++k) take(text[k]);
    const int64_t fractionDigits = static_cast<int64_t>(fracEnd - fracStart);
    if (kept <= 19) return DecimalBuilder::make64(small, exp10 - fractionDigits, neg);
    if (dropped > 0 && (roundDigit > 5 || (roundDigit == 5 && (sticky || (m & 1) != 0)))) {
        ++m;
        if (m == kMantissaLimit) {
            m = kPow10[37];
            ++dropped;
        }
    }
    return DecimalBuilder::make(m, exp10 - fractionDigits + dropped, neg);
}

double Decimal::toDouble() const {
    static constexpr double kExact[] = {1e0,  1e1,  1e2,  1e3,  1e4,  1e5,  1e6,  1e7,  1e8,  1e9,  1e10, 1e11,
                                        1e12, 1e13, 1e14, 1e15, 1e16, 1e17, 1e18, 1e19, 1e20, 1e21, 1e22};
    if (isZero()) return negative_ ? -0.0 : 0.0;
    // Both operands exact: one correctly rounded operation.
    if (high_ == 0 && low_ < (uint64_t{1} << 53) && exponent_ >= -22 && exponent_ <= 22) {
        const double m = static_cast<double>(low_);
        const double r = exponent_ >= 0 ? m * kExact[exponent_] : m / kExact[-exponent_];
        return negative_ ? -r : r;
    }
    char buf[64];
    char* p = buf;
    if (negative_) *p++ = '-';
    p += writeDigits(mantissa(), p);
    *p++ = 'e';
    p = std::to_chars(p, buf + sizeof buf, exponent_).ptr;
    double r = 0;
    std::from_chars(buf, p, r);  // always in range: |exponent| + 38 digits stays far inside double
    return r;
}

int64_t Decimal::toInt64() const {
    if (isZero()) return 0;
    u128 q;
    if (exponent_ >= 0) {
        if (digitCount(mantissa()) + exponent_ > 20) {
            q = kPow10[20];  // certainly beyond 2^63
        } else {
            q = mantissa() * kPow10[static_cast<size_t>(exponent_)];
        }
    } else {
        q = -exponent_ > kMaxDigits ? 0 : mantissa() / kPow10[static_cast<size_t>(-exponent_)];
    }
    constexpr u128 kMax = static_cast<u128>(std::numeric_limits<int64_t>::max());
    if (negative_) {
        if (q > kMax + 1) return std::numeric_limits<int64_t>::min();
        return static_cast<int64_t>(-static_cast<__int128>(q));
    }
    if (q > kMax) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(q);
}

std::string Decimal::toString() const {
    char digits[40];
    const int nd = writeDigits(mantissa(), digits);
    std::string out;
    out.reserve(static_cast<size_t>(nd) + 4 + static_cast<size_t>(exponent_ < 0 ? -exponent_ : exponent_));
    if (negative_) out.push_back('-');
    if (mantissa() == 0) {
        out.push_back('0');
        return out;
    }
    if (exponent_ >= 0) {
        out.append(digits, static_cast<size_t>(nd));
        out.append(static_cast<size_t>(exponent_), '0');
    } else {
        const int point = nd + exponent_;  // digits before the decimal point
        if (point > 0) {
            out.append(digits, static_cast<size_t>(point));
            out.push_back('.');
            out.append(digits + point, static_cast<size_t>(nd - point));
        } else {
            out.append("0.");
            out.append(static_cast<size_t>(-point), '0');
            out.append(digits, static_cast<size_t>(nd));
        }
    }
    return out;
}

bool operator==(const Decimal& a, const Decimal& b) {
    if (a.isZero() || b.isZero()) return a.isZero() && b.isZero();
    return a.negative_ == b.negative_ && a.low_ == b.low_ && a.high_ == b.high_ && a.exponent_ == b.exponent_;
}

bool operator<(const Decimal& a, const Decimal& b) {
    const int sa = a.isZero() ? 0 : (a.negative_ ? -1 : 1);
    const int sb = b.isZero() ? 0 : (b.negative_ ? -1 : 1);
    if (sa != sb) return sa < sb;
    if (sa == 0) return false;
    // Same sign, both non-zero: compare magnitudes.
    int cmp;
    const int adjA = a.exponent_ + digitCount(a.mantissa());
    const int adjB = b.exponent_ + digitCount(b.mantissa());
    if (adjA != adjB) {
        cmp = adjA < adjB ? -1 : 1;
    } else {
        u128 ma = a.mantissa(), mb = b.mantissa();
        if (a.exponent_ > b.exponent_) ma *= kPow10[static_cast<size_t>(a.exponent_ - b.exponent_)];
        else if (b.exponent_ > a.exponent_) mb *= kPow10[static_cast<size_t>(b.exponent_ - a.exponent_)];
        cmp = ma < mb ? -1 : (ma > mb ? 1 : 0);
    }
    return sa > 0 ? cmp < 0 : cmp > 0;
}

}  // namespace qrl
