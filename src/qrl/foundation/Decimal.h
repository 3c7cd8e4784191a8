// qrl::Decimal: an exact base-ten number of up to 38 significant digits with
// an exponent from -128 to 127, as JSON reals are read.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qrl {

class Decimal {
public:
    static constexpr int kMaxDigits = 38;
    static constexpr int kMinExponent = -128;
    static constexpr int kMaxExponent = 127;

    Decimal() = default;  // zero
    static Decimal fromInt64(int64_t v);
    // Parses [-]digits[.digits][(e|E)[+-]digits]. More than 38 significant
    // digits are rounded half to even; a result whose exponent does not fit
    // in -128..127 (after normalising), or text that is not a number, gives
    // nullopt.
    // Normalising strips trailing zeros into the exponent and, for a large
    // exponent, moves zeros back into the mantissa while it has room. A value
    // smaller than the range reaches (below 10^-128 in its last digit) is
    // rounded half to even at 10^-128, and may come out as zero; the sign is
    // kept ("-1e-200" reads as -0).
    static std::optional<Decimal> parse(std::string_view text);
    // The number significand x 10^exponent, normalised as parse() does;
    // nullopt when the exponent cannot be brought into range. For readers
    // that have taken the digits apart already (up to 19 of them fit).
    static std::optional<Decimal> fromParts(uint64_t significand, int64_t exponent, bool negative);

    bool isNegative() const { return negative_; }
    bool isZero() const { return (low_ | high_) == 0; }
    unsigned __int128 mantissa() const { return (static_cast<unsigned __int128>(high_) << 64) | low_; }
    int exponent() const { return exponent_; }

    // Correctly rounded to the nearest double.
    double toDouble() const;
    // Truncated toward zero, saturating at the 64-bit limits.
    int64_t toInt64() const;
    // Plain notation, never an exponent letter: "-0.00125", "1200000", "0".
    // A negative zero keeps its sign: "-0".
    std::string toString() const;
    // toString(), so that %@ prints a decimal.
    std::string description() const { return toString(); }

    // Numeric comparison (1.0 == 1.00; -0 == 0).
    friend bool operator==(const Decimal& a, const Decimal& b);
    friend bool operator<(const Decimal& a, const Decimal& b);
    friend bool operator>(const Decimal& a, const Decimal& b) { return b < a; }
    friend bool operator<=(const Decimal& a, const Decimal& b) { return !(b < a); }
    friend bool operator>=(const Decimal& a, const Decimal& b) { return !(a < b); }

private:
    friend struct DecimalBuilder;
    void setMantissa(unsigned __int128 m) {
        low_ = static_cast<uint64_t>(m);
        high_ = static_cast<uint64_t>(m >> 64);
    }

    // Always normalised: mantissa below 10^38, no trailing zero unless the
    // exponent is at its maximum; zero has exponent 0. The mantissa is kept
    // in two 64-bit halves so that a Decimal needs only 8-byte alignment.
    uint64_t low_ = 0;
    uint64_t high_ = 0;
    int exponent_ = 0;
    bool negative_ = false;
};

}  // namespace qrl
