#include "qrl/foundation/FourCC.h"

#include <gtest/gtest.h>

#include <random>

namespace qrl {
namespace {

static_assert(fourCC("lpcm") == 0x6c70636du);
static_assert(fourCC("glob") == 0x676c6f62u);

TEST(FourCCTest, PrintsPrintableCodesAsCharactersAndOthersAsNumbers) {
    EXPECT_EQ(fourCCString(fourCC("dev#")), "dev#");
    EXPECT_EQ(fourCCString(fourCC(" ab ")), " ab ");
    EXPECT_EQ(fourCCString(0), "0");
    EXPECT_EQ(fourCCString(static_cast<uint32_t>(-50)), "-50");
    EXPECT_EQ(fourCCString(fourCC("1234")), "'1234'");
    EXPECT_EQ(fourCCString(fourCC("-123")), "'-123'");
    EXPECT_EQ(fourCCString(0x6c70630au), "1819304714");  // a control byte
}

TEST(FourCCTest, ParsesWhatItPrints) {
    std::mt19937 rng(11);
    std::vector<uint32_t> codes = {0, 1, 1234, 0xffffffffu, 0x80000000u, fourCC("1234"), fourCC("-123"),
                                   fourCC("'ab'"), fourCC("    ")};
    for (int i = 0; i < 5000; ++i) codes.push_back(static_cast<uint32_t>(rng()));
    for (int i = 0; i < 5000; ++i) {  // printable codes, digits often
        uint32_t c = 0;
        for (int k = 0; k < 4; ++k)
            c = (c << 8) | static_cast<uint32_t>(rng() % 2 ? '0' + rng() % 10 : 0x20 + rng() % 95);
        codes.push_back(c);
    }
    for (uint32_t code : codes) {
        const auto back = parseFourCC(fourCCString(code));
        ASSERT_TRUE(back) << fourCCString(code);
        ASSERT_EQ(*back, code) << fourCCString(code);
    }
}

TEST(FourCCTest, RefusesWhatIsNeitherCodeNorNumber) {
    for (const char* bad : {"", "abc", "lpcmx", "'abc'", "'abcde'", "99999999999", "-2147483649", "4294967296", "1.5",
                            "ab\nc"}) {
        EXPECT_FALSE(parseFourCC(bad).has_value()) << '"' << bad << '"';
    }
    EXPECT_EQ(parseFourCC("4294967295"), 0xffffffffu);
    EXPECT_EQ(parseFourCC("-2147483648"), 0x80000000u);
    EXPECT_EQ(parseFourCC("'lpcm'"), fourCC("lpcm"));
}

}  // namespace
}  // namespace qrl
