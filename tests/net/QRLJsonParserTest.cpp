// Reading JSON: the value mapping, the lenient and strict corners, number
// boundaries, escapes and surrogate folding, and the error trace with its
// chain of underlying errors.
#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"

#include <gtest/gtest.h>

#include <charconv>
#include <cstdio>
#include <cstring>
#include <memory>
#include <random>
#include <string>
#include <utility>
#include <vector>

namespace qrl {
namespace {

using Trace = std::vector<std::pair<int64_t, std::string>>;

Trace traceOf(const QRLJsonBase& base) {
    Trace trace;
    for (const auto& error : base.errorTrace()) trace.emplace_back(error->code(), error->localizedDescription());
    return trace;
}

Value parse(std::string_view text) { return QRLJsonParser().objectWithString(text); }

struct FailureCase {
    std::string input;
    Trace trace;
};

class ParserFailure : public ::testing::TestWithParam<FailureCase> {};

// The innermost failure comes first; each error's underlying error is the
// one before it, and the last one is what the error pointer receives.
TEST_P(ParserFailure, LeavesTheTraceInnermostFirst) {
    QRLJsonParser parser;
    std::shared_ptr<Error> error;
    EXPECT_TRUE(parser.objectWithString(GetParam().input, &error).isNull());
    EXPECT_EQ(traceOf(parser), GetParam().trace);
    const auto& trace = parser.errorTrace();
    for (size_t i = 0; i < trace.size(); ++i) {
        EXPECT_EQ(trace[i]->domain(), QRLJSONErrorDomain);
        EXPECT_EQ(trace[i]->underlyingError().get(), i == 0 ? nullptr : trace[i - 1].get());
    }
    EXPECT_EQ(error, trace.back());
}

const std::pair<int64_t, std::string> kInArray{3, "Expected value while parsing array"};
const std::pair<int64_t, std::string> kBroken{6, "Broken unicode character"};
const std::pair<int64_t, std::string> kEofString{11, "Unexpected EOF while parsing string"};

INSTANTIATE_TEST_SUITE_P(
    Cases, ParserFailure,
    ::testing::Values(
        FailureCase{"", {{11, "Unexpected end of string"}}}, FailureCase{"1", {{4, "Valid fragment, but not JSON"}}},
        FailureCase{"[1] x", {{10, "Garbage after JSON"}}},
        FailureCase{"[1,]", {{9, "Trailing comma disallowed in array"}}},
        FailureCase{"{\"a\":1, }", {{9, "Trailing comma disallowed in object"}}},
        FailureCase{"{\"k\":[1,]}", {{9, "Trailing comma disallowed in array"}, {3, "Object value expected for key: k"}}},
        FailureCase{"[01]", {{2, "Leading 0 disallowed in number"}, kInArray}},
        FailureCase{"[+1]", {{2, "Leading + disallowed in number"}, kInArray}},
        FailureCase{"[-]", {{2, "No digits after initial minus"}, kInArray}},
        FailureCase{"[1.]", {{2, "No digits after decimal point"}, kInArray}},
        FailureCase{"[1e]", {{2, "No digits after exponent"}, kInArray}},
        FailureCase{"[1e999]", {{2, "Failed creating decimal instance"}, kInArray}},
        FailureCase{"[1,", {{11, "End of input while parsing array"}}},
        // White space after "[" is skipped inside the loop, so the value
        // scan is what meets the end.
        FailureCase{"[ ", {{11, "Unexpected end of string"}, kInArray}},
        FailureCase{"{\"a\":1", {{11, "End of input while parsing object"}}},
        FailureCase{"{1:2}", {{3, "Object key string expected"}}},
        FailureCase{"{\"a", {kEofString, {3, "Object key string expected"}}},
        FailureCase{"{\"a\" 1}", {{3, "Expected ':' separating key and value"}}},
        FailureCase{"{\"a b\":[x]}",
                    {{3, "Unrecognised leading character"}, kInArray, {3, "Object value expected for key: a b"}}},
        FailureCase{"[tru]", {{3, "Expected 'true'"}, kInArray}},
        FailureCase{"[.5]", {{3, "Unrecognised leading character"}, kInArray}},
        FailureCase{"[\"a\tb\"]", {{5, "Unescaped control character '0x9'"}, kInArray}},
        FailureCase{"[\"\\q\"]", {{8, "Illegal escape sequence '0x71'"}, kInArray}},
        FailureCase{"[\"\\u12\"]",
                    {{6, "Missing hex digit in quad"}, {6, "Missing hex quad"}, kBroken, kInArray}},
        FailureCase{"[\"\\uDC00\"]", {{6, "Invalid high character in surrogate pair"}, kBroken, kInArray}},
        FailureCase{"[\"\\uD800x\"]", {{6, "Missing low character in surrogate pair"}, kBroken, kInArray}},
        FailureCase{"[\"\\uD800\\u00g1\"]",
                    {{6, "Missing hex digit in quad"}, {6, "Missing low character in surrogate pair"}, kBroken,
                     kInArray}},
        FailureCase{"[\"\\uD800\\uDFFF\"]", {{6, "Invalid low surrogate char"}, kBroken, kInArray}},
        FailureCase{"[\"abc", {kEofString, kInArray}}, FailureCase{"[\"abc\\", {kEofString, kInArray}}));

TEST(QRLJsonParser, AbsentOrMalformedTextIsNoInput) {
    QRLJsonParser parser;
    const Trace noInput{{12, "Input was 'nil'"}};
    EXPECT_TRUE(parser.objectWithString(static_cast<const char*>(nullptr)).isNull());
    EXPECT_EQ(traceOf(parser), noInput);
    // Stray byte, truncated, overlong, encoded surrogate, above U+10FFFF.
    for (std::string bad : {"[\"\xff\"]", "[\"\xc3\"]", "[\"\xc0\xaf\"]", "[\"\xed\xa0\x80\"]", "[\"\xf4\x90\x80\x80\"]",
                            "[1] \x80", "[\"\xe2\x82\"]"}) {
        EXPECT_TRUE(parser.objectWithString(bad).isNull()) << bad;
        EXPECT_EQ(traceOf(parser), noInput) << bad;
    }
    // A C string ends at its NUL; a view of the same bytes does not.
    EXPECT_TRUE(parser.objectWithString("[1]\0garbage").isArray());
    EXPECT_EQ(parser.objectWithString(std::string_view("[1]\0garbage", 11)), Value());
}

TEST(QRLJsonParser, ReadsContainersInDocumentOrderWithOptionalCommas) {
    EXPECT_EQ(parse("[]"), Value::array());
    EXPECT_EQ(parse(" {} "), Value::dictionary());
    const Value object = parse("{\"z\":1,\"a\":[true,false,null],\"m\":{\"k\":\"v\"}}");
    EXPECT_EQ(object.asDictionary()->keys(), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(object["a"], Value::array({true, false, Value()}));
    EXPECT_TRUE(object["a"][0].isBoolean());
    EXPECT_EQ(object["m"]["k"], Value("v"));

    // A repeated key overwrites the value and keeps its place.
    const Value repeated = parse("{\"a\":1,\"b\":2,\"a\":3}");
    EXPECT_EQ(repeated.asDictionary()->keys(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(repeated["a"], Value(3));

    EXPECT_EQ(parse("[1 2]"), Value::array({1, 2}));
    EXPECT_EQ(parse("[1true\"x\"null[]-2]"), Value::array({1, true, "x", Value(), Value::array(), -2}));
    EXPECT_EQ(parse("{\"a\":1 \"b\":2}").asDictionary()->keys(), (std::vector<std::string>{"a", "b"}));
}

TEST(QRLJsonParser, WhiteSpaceIsExactlySixBytes) {
    const std::string spaces = " \t\n\v\f\r";
    QRLJsonParser parser;
    for (int byte = 0; byte < 256; ++byte) {
        const bool space = spaces.find(static_cast<char>(byte)) != std::string::npos;
        EXPECT_EQ(parser.objectWithString(std::string("[1]") + static_cast<char>(byte)).isArray(), space) << byte;
        if (!space) {
            EXPECT_EQ(parser.errorTrace().back()->code(), byte < 0x80 ? 10 : 12) << byte;
        }
    }
    EXPECT_EQ(parse("\v\f\r\n\t [ \v1\f,\r2\n] \t"), Value::array({1, 2}));
}

TEST(QRLJsonParser, NumberBoundaries) {
    struct Case {
        const char* text;
        bool integer;
        const char* value;  // the integer, or the decimal's plain text
    };
    const Case cases[] = {
        {"-0", true, "0"},
        {"9223372036854775807", true, "9223372036854775807"},
        {"-9223372036854775807", true, "-9223372036854775807"},
        {"9223372036854775808", false, "9223372036854775808"},
        // The magnitude overflows before the sign is applied.
        {"-9223372036854775808", false, "-9223372036854775808"},
        {"20000000000000000000", false, "20000000000000000000"},
        {"1.5", false, "1.5"},
        {"1E-2", false, "0.01"},
    };
    for (const Case& c : cases) {
        const Value value = parse(std::string("[") + c.text + "]")[size_t{0}];
        EXPECT_EQ(value.isInteger(), c.integer) << c.text;
        EXPECT_EQ(c.integer ? std::to_string(value.integerValue()) : value.asDecimal()->toString(), c.value) << c.text;
    }
}

// The text in a heap block of exactly its size, so that the address
// sanitizer sees any read past its end.
Value parseExactly(QRLJsonParser& parser, const std::string& text) {
    const auto block = std::make_unique<char[]>(text.size());
    std::memcpy(block.get(), text.data(), text.size());
    return parser.objectWithString(std::string_view(block.get(), text.size()));
}

// Generated numbers of every length, eight digits at a time or not, at every
// distance from the end of the text: each one read whole, with the type and
// value its own text gives.
TEST(QRLJsonParser, NumbersAreReadToTheirLastDigitAnywhereInTheText) {
    std::mt19937_64 random(77);
    QRLJsonParser parser;
    auto digits = [&](size_t count, bool leading) {
        std::string s;
        for (size_t i = 0; i < count; ++i) s += static_cast<char>('0' + random() % 10);
        if (leading && count > 1 && s[0] == '0') s[0] = static_cast<char>('1' + random() % 9);
        return s;
    };
    for (int round = 0; round < 3000; ++round) {
        std::vector<std::string> tokens;
        std::string text = "[";
        for (size_t n = 1 + random() % 6; n > 0; --n) {
            std::string token = (random() % 3 == 0) ? "-" : "";
            token += digits(1 + random() % 25, true);
            if (random() % 2) token += "." + digits(1 + random() % 25, false);
            if (random() % 3 == 0) {
                token += (random() % 2) ? "e" : "E";
                if (random() % 2) token += (random() % 2) ? "+" : "-";
                token += digits(1 + random() % 2, false);  // the decimal's range holds
            }
            if (!tokens.empty()) text += std::string(random() % 2, ' ') + ",";
            text += token;
            tokens.push_back(token);
        }
        text += "]";
        const Value value = parseExactly(parser, text);
        ASSERT_TRUE(value.isArray()) << text;
        ASSERT_EQ(value.asArray()->size(), tokens.size()) << text;
        for (size_t i = 0; i < tokens.size(); ++i) {
            const std::string& token = tokens[i];
            const Value& element = (*value.asArray())[i];
            int64_t integer = 0;
            const auto [end, error] = std::from_chars(token.data(), token.data() + token.size(), integer);
            if (error == std::errc() && end == token.data() + token.size() && token != "-0") {
                ASSERT_TRUE(element.isInteger()) << token;
                ASSERT_EQ(*element.asInteger(), integer) << token;
            } else if (token == "-0") {
                ASSERT_EQ(element, Value(0));
            } else {
                const auto decimal = Decimal::parse(token);
                if (!decimal) {
                    ADD_FAILURE() << "the generator made " << token;
                    continue;
                }
                ASSERT_TRUE(element.isDecimal()) << token;
                ASSERT_EQ(element.asDecimal()->toString(), decimal->toString()) << token;
                ASSERT_EQ(element.asDecimal()->isNegative(), decimal->isNegative()) << token;
            }
        }
    }
    // A number that runs into the end of the text, or into what cannot end it.
    EXPECT_TRUE(parseExactly(parser, "[12345678901234567").isNull());
    EXPECT_EQ(parser.errorTrace().front()->code(), 11);
    EXPECT_TRUE(parseExactly(parser, "[12345678x]").isNull());
    EXPECT_EQ(parseExactly(parser, "[123456781234567812345678,-0.0000000000000000000001]"),
              Value::array({*Decimal::parse("123456781234567812345678"), *Decimal::parse("-1e-22")}));
}

TEST(QRLJsonParser, EscapesAndUnicode) {
    auto one = [](std::string_view literal) {
        const Value v = parse("[\"" + std::string(literal) + "\"]");
        return v.isArray() ? *v[size_t{0}].asString() : std::string("<failed>");
    };
    EXPECT_EQ(one("\\\"\\\\\\/\\b\\f\\n\\r\\t"), "\"\\/\b\f\n\r\t");
    EXPECT_EQ(one("\\u0041\\u00e9\\u20AC"), "A\xc3\xa9\xe2\x82\xac");
    EXPECT_EQ(one("a\\u0000b"), std::string("a\0b", 3));
    EXPECT_EQ(one("h\xc3\xa9llo \xf0\x9f\x98\x80 \x7f"), "h\xc3\xa9llo \xf0\x9f\x98\x80 \x7f");
    EXPECT_EQ(one(""), "");

    // A surrogate pair folds into one 16-bit character,
    // hi * 1024 + (lo - 0xDC00) cut to 16 bits.
    EXPECT_EQ(one("\\uD83D\\uDE00"), "\xef\x98\x80");  // U+F600
    EXPECT_EQ(one("\\uD800\\uDFFE"), "\xcf\xbe");      // U+03FE, the largest low accepted
    EXPECT_EQ(one("\\uD800\\uDC00"), std::string(1, '\0'));
    EXPECT_EQ(one("\\uD838\\uDC00"), "\xee\x80\x80");  // U+E000
    // A fold landing on a surrogate cannot be UTF-8: U+FFFD.
    EXPECT_EQ(one("\\uD836\\uDC00"), "\xef\xbf\xbd");
    EXPECT_EQ(one("\\uD837\\uDFFE"), "\xef\xbf\xbd");

    // Every 16-bit character outside the surrogates comes through as itself.
    for (uint32_t unit = 1; unit < 0x10000; unit += (unit < 0x800 ? 1 : 7)) {
        if (unit >= 0xD800 && unit < 0xE000) continue;
        char escape[8];
        std::snprintf(escape, sizeof escape, "\\u%04X", unit);
        const std::string s = one(escape);
        uint32_t decoded = static_cast<unsigned char>(s[0]);
        if (s.size() == 2) decoded = ((s[0] & 0x1Fu) << 6) | (s[1] & 0x3Fu);
        if (s.size() == 3) decoded = ((s[0] & 0x0Fu) << 12) | ((s[1] & 0x3Fu) << 6) | (s[2] & 0x3Fu);
        ASSERT_EQ(decoded, unit) << s;
    }
}

TEST(QRLJsonParser, NestingLimit) {
    auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    QRLJsonParser parser;
    EXPECT_EQ(parser.maxDepth(), 512u);
    EXPECT_TRUE(parser.objectWithString(nested(512)).isArray());
    EXPECT_EQ(parser.depth(), 0u);
    EXPECT_TRUE(parser.objectWithString(nested(513)).isNull());
    ASSERT_EQ(parser.errorTrace().size(), 513u);
    EXPECT_EQ(traceOf(parser).front(), (std::pair<int64_t, std::string>{7, "Nested too deep"}));

    // 100,000 opening brackets: refused, without exhausting the stack.
    const std::string opening(100000, '[');
    EXPECT_TRUE(parser.objectWithString(opening).isNull());
    EXPECT_EQ(parser.errorTrace().front()->code(), 7);

}

// Without a limit any depth is read, written and freed: each keeps its own
// stack, so a million levels do not exhaust the thread's.
TEST(QRLJsonParser, WithoutALimitAMillionLevelsAreReadWrittenAndFreed) {
    constexpr size_t kLevels = 1'000'000;
    const std::string text = std::string(kLevels, '[') + std::string(kLevels, ']');
    QRLJsonParser parser;
    parser.setMaxDepth(0);
    Value document = parser.objectWithString(text);
    ASSERT_TRUE(document.isArray());
    QRLJsonWriter writer;
    writer.setMaxDepth(0);
    EXPECT_EQ(writer.stringWithObject(document), text);
    document = Value();

    // A failure that deep is told at every level, and its chain of errors,
    // held by the caller, is freed as well.
    std::shared_ptr<Error> error;
    EXPECT_TRUE(parser.objectWithString(std::string(kLevels, '['), &error).isNull());
    EXPECT_EQ(parser.errorTrace().size(), kLevels);
    parser.clearErrorTrace();
    error.reset();
}

}  // namespace
}  // namespace qrl
