#include "qrl/foundation/Decimal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <limits>
#include <random>
#include <string>

namespace qrl {
namespace {

std::string roundTrip(std::string_view text) {
    const auto d = Decimal::parse(text);
    return d ? d->toString() : "nullopt";
}

TEST(DecimalTest, ParsesAndPrintsInPlainNotation) {
    const std::pair<const char*, const char*> rows[] = {
        {"0", "0"},
        {"-0.0", "-0"},
        {"000.000e5", "0"},
        {"1.50", "1.5"},
        {"-1.25e-3", "-0.00125"},
        {"1E+2", "100"},
        {"100e-2", "1"},
        {"9223372036854775808", "9223372036854775808"},
        {"-170141183460469231731687303715884105728", "-170141183460469231731687303715884105730"},
    };
    for (const auto& [in, out] : rows) EXPECT_EQ(roundTrip(in), out) << in;
}

TEST(DecimalTest, RefusesTextThatIsNotANumber) {
    for (const char* bad : {"", "-", "+1", "1.", ".5", "1e", "1e+", "e5", "abc", "1 ", " 1", "0x10", "1e5.0", "1..2",
                            "--1", "1-", "inf", "NaN", "1,5"}) {
        EXPECT_FALSE(Decimal::parse(bad).has_value()) << '"' << bad << '"';
    }
}

TEST(DecimalTest, RoundsHalfToEvenBeyond38Digits) {
    const std::string d38 = "12345678901234567890123456789012345678";
    EXPECT_EQ(roundTrip(d38), d38);
    EXPECT_EQ(Decimal::parse(d38)->exponent(), 0);
    // 39 digits: the 39th decides; an exact half goes to the even neighbour.
    EXPECT_EQ(roundTrip(d38 + "5"), "123456789012345678901234567890123456780");
    EXPECT_EQ(roundTrip("12345678901234567890123456789012345677" "5"), "123456789012345678901234567890123456780");
    EXPECT_EQ(roundTrip(d38 + "4"), "123456789012345678901234567890123456780");
    EXPECT_EQ(roundTrip(d38 + "6"), "123456789012345678901234567890123456790");
    // 48 digits: a non-zero digit far behind the half breaks the tie upward.
    EXPECT_EQ(roundTrip(d38 + "5000000001"), "12345678901234567890123456789012345679" + std::string(10, '0'));
    EXPECT_EQ(roundTrip(d38 + "5000000000"), d38 + std::string(10, '0'));
    EXPECT_EQ(roundTrip("0." + d38 + "5"), "0." + d38);
    // Rounding that carries into a 39th digit.
    EXPECT_EQ(roundTrip(std::string(38, '9') + ".5"), "1" + std::string(38, '0'));
    // Leading zeros are not significant.
    EXPECT_EQ(roundTrip("0.000" + d38 + "9"), "0.000" + d38.substr(0, 37) + "9");
}

TEST(DecimalTest, PlacesDigitsWithinTheExponentRange) {
    EXPECT_EQ(Decimal::parse("1e127")->exponent(), 127);
    const auto shifted = Decimal::parse("1e128");  // one zero moves back into the mantissa
    ASSERT_TRUE(shifted);
    EXPECT_EQ(shifted->exponent(), 127);
    EXPECT_EQ(static_cast<uint64_t>(shifted->mantissa()), 10u);
    EXPECT_TRUE(Decimal::parse("1e164"));
    EXPECT_TRUE(Decimal::parse("9.9999999999999999999999999999999999999e164"));
    EXPECT_FALSE(Decimal::parse("1e165"));
    EXPECT_FALSE(Decimal::parse("12e164"));
    EXPECT_FALSE(Decimal::parse("1e99999999999999999999999"));
    EXPECT_TRUE(Decimal::parse("0e99999999999999999999999")->isZero());
    EXPECT_EQ(Decimal::parse("1e-128")->exponent(), -128);
    EXPECT_EQ(roundTrip("1e-128"), "0." + std::string(127, '0') + "1");
    // Below 10^-128 the last digit is rounded half to even; a value that
    // rounds away entirely is zero, with its sign.
    EXPECT_EQ(*Decimal::parse("6e-129"), *Decimal::parse("1e-128"));
    EXPECT_EQ(*Decimal::parse("15e-129"), *Decimal::parse("2e-128"));
    EXPECT_EQ(*Decimal::parse("25e-129"), *Decimal::parse("2e-128"));
    EXPECT_TRUE(Decimal::parse("5e-129")->isZero());
    const auto tiny = Decimal::parse("-1e-200");
    ASSERT_TRUE(tiny);
    EXPECT_TRUE(tiny->isZero());
    EXPECT_TRUE(tiny->isNegative());
    EXPECT_EQ(tiny->toString(), "-0");
    EXPECT_TRUE(Decimal::parse("1e-99999999999999999999")->isZero());
}

// Up to 19 significant digits are worked in 64 bits, more in 128: the same
// number written with extra trailing zeros (or leading ones) crosses that
// line and must come out the same, and fromParts must agree with parse.
TEST(DecimalTest, SixtyFourAndOneHundredTwentyEightBitPathsAgree) {
    std::mt19937_64 rng(17);
    for (int i = 0; i < 20000; ++i) {
        const int digits = 1 + static_cast<int>(rng() % 19);
        std::string text;
        for (int k = 0; k < digits; ++k) text += static_cast<char>('0' + rng() % 10);
        const bool negative = rng() & 1;
        const int64_t exponent = static_cast<int64_t>(rng() % 400) - 200;
        const std::string written = (negative ? "-" : "") + text + "e" + std::to_string(exponent);
        const auto parsed = Decimal::parse(written);
        const auto parts = Decimal::fromParts(std::stoull(text), exponent, negative);
        ASSERT_EQ(parsed.has_value(), parts.has_value()) << written;
        if (!parsed) continue;
        ASSERT_EQ(parsed->toString(), parts->toString()) << written;
        ASSERT_EQ(parsed->mantissa(), parts->mantissa()) << written;
        ASSERT_EQ(parsed->exponent(), parts->exponent()) << written;
        ASSERT_EQ(parsed->isNegative(), parts->isNegative()) << written;

        const size_t zeros = rng() % 25;
        const std::string padded = (negative ? "-0000" : "0000") + text + std::string(zeros, '0') + "e" +
                                   std::to_string(exponent - static_cast<int64_t>(zeros));
        const auto wide = Decimal::parse(padded);
        ASSERT_TRUE(wide.has_value()) << padded;
        ASSERT_EQ(wide->mantissa(), parsed->mantissa()) << padded;
        ASSERT_EQ(wide->exponent(), parsed->exponent()) << padded;
        ASSERT_EQ(wide->isNegative(), parsed->isNegative()) << padded;
    }
    const uint64_t all = std::numeric_limits<uint64_t>::max();  // 20 digits, still one word
    EXPECT_EQ(Decimal::fromParts(all, -3, false)->toString(), "18446744073709551.615");
    EXPECT_EQ(Decimal::fromParts(1, 127, false)->exponent(), 127);
    EXPECT_FALSE(Decimal::fromParts(1, 165, false));
    EXPECT_FALSE(Decimal::fromParts(7, std::numeric_limits<int64_t>::max(), false));
    EXPECT_TRUE(Decimal::fromParts(7, std::numeric_limits<int64_t>::min(), true)->isZero());
    EXPECT_TRUE(Decimal::fromParts(0, 999, true)->isNegative());
    EXPECT_EQ(Decimal::fromParts(1000, -3, false), Decimal::fromInt64(1));
}

TEST(DecimalTest, ToDoubleIsCorrectlyRounded) {
    std::mt19937_64 rng(99);
    for (int i = 0; i < 20000; ++i) {
        // A random 1..17-digit decimal with an exponent well inside both ranges.
        const int digits = 1 + static_cast<int>(rng() % 17);
        std::string text = (rng() & 1) ? "-" : "";
        text += static_cast<char>('1' + rng() % 9);
        for (int k = 1; k < digits; ++k) text += static_cast<char>('0' + rng() % 10);
        text += "e" + std::to_string(static_cast<int>(rng() % 250) - 125);
        const auto d = Decimal::parse(text);
        ASSERT_TRUE(d) << text;
        ASSERT_EQ(d->toDouble(), std::strtod(text.c_str(), nullptr)) << text;
    }
    EXPECT_TRUE(std::signbit(Decimal::parse("-0")->toDouble()));
    EXPECT_EQ(Decimal::parse("0.1")->toDouble(), 0.1);
    EXPECT_EQ(Decimal::parse("9007199254740993")->toDouble(), 9007199254740992.0);
}

TEST(DecimalTest, ComparesNumerically) {
    EXPECT_EQ(*Decimal::parse("1.0"), *Decimal::parse("1.00"));
    EXPECT_EQ(*Decimal::parse("-0"), *Decimal::parse("0"));
    EXPECT_FALSE(*Decimal::parse("-0") < *Decimal::parse("0"));
    EXPECT_EQ(Decimal::fromInt64(1200), *Decimal::parse("1.2e3"));
    EXPECT_EQ(Decimal::fromInt64(0), Decimal());
    const std::string big = "1" + std::string(37, '0');
    EXPECT_LT(*Decimal::parse(big), *Decimal::parse(big + "1"));
    EXPECT_LT(*Decimal::parse("-1e10"), *Decimal::parse("-9e9"));
}

TEST(DecimalTest, IntegerConversionsTruncateAndSaturate) {
    const int64_t kMax = std::numeric_limits<int64_t>::max();
    const int64_t kMin = std::numeric_limits<int64_t>::min();
    EXPECT_EQ(Decimal::fromInt64(kMin).toString(), "-9223372036854775808");
    EXPECT_EQ(Decimal::fromInt64(kMin).toInt64(), kMin);
    EXPECT_EQ(Decimal::fromInt64(kMax).toInt64(), kMax);
    EXPECT_EQ(Decimal::parse("-9223372036854775809")->toInt64(), kMin);
    EXPECT_EQ(Decimal::parse("9223372036854775808")->toInt64(), kMax);
    EXPECT_EQ(Decimal::parse("-42.99")->toInt64(), -42);
    EXPECT_EQ(Decimal::parse("0.999")->toInt64(), 0);
    EXPECT_EQ(Decimal::parse("1e100")->toInt64(), kMax);
    EXPECT_EQ(Decimal::parse("-1e-100")->toInt64(), 0);
}

}  // namespace
}  // namespace qrl
