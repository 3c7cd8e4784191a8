// The one-call extensions and their log lines; round trips of generated
// documents through writer and parser; the fuzzer's saved inputs replayed.
#include "qrl/net/JSONExtensions.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <string>
#include <vector>

#include "../../fuzz/JsonFuzzCheck.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using CapturedLog = ::qrl::test::CapturedPlatformLog;

TEST(JSONExtensions, ConvertOrLogTheTrace) {
    CapturedLog log;
    EXPECT_EQ(JSONValue("{\"a\":[1,\"x\"]}"), Value::dictionary({{"a", Value::array({1, "x"})}}));
    EXPECT_EQ(JSONRepresentation(Value::dictionary({{"a", Value::array({1, "x"})}})), "{\"a\":[1,\"x\"]}");
    EXPECT_TRUE(log.lines().empty());

    EXPECT_TRUE(JSONValue("[01]").isNull());
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.lines()[0].rfind("-JSONValue failed. Error trace is: ", 0), 0u) << log.lines()[0];
    EXPECT_NE(log.lines()[0].find("Leading 0 disallowed in number"), std::string::npos);
    EXPECT_NE(log.lines()[0].find("Expected value while parsing array"), std::string::npos);

    EXPECT_EQ(JSONRepresentation(Value("fragment")), std::nullopt);
    ASSERT_EQ(log.lines().size(), 2u);
    EXPECT_EQ(log.lines()[1].rfind("-JSONRepresentation failed. Error trace is: ", 0), 0u) << log.lines()[1];
    EXPECT_NE(log.lines()[1].find("Not valid type for JSON"), std::string::npos);
}

void appendUTF8(std::string& s, uint32_t cp) {
    if (cp < 0x80) {
        s.push_back(static_cast<char>(cp));
        return;
    }
    const int extra = cp < 0x800 ? 1 : cp < 0x10000 ? 2 : 3;
    static const unsigned lead[] = {0, 0xC0, 0xE0, 0xF0};
    s.push_back(static_cast<char>(lead[extra] | (cp >> (6 * extra))));
    for (int i = extra - 1; i >= 0; --i) s.push_back(static_cast<char>(0x80 | ((cp >> (6 * i)) & 0x3F)));
}

// Random documents: every kind of value the writer takes, strings with
// escapes and characters from all planes, keys that sort differently in
// UTF-16 and in UTF-8.
class DocumentGenerator {
public:
    explicit DocumentGenerator(uint64_t seed) : random_(seed) {}

    Value document() { return container(0); }

private:
    std::string text() {
        static const uint32_t pool[] = {'a', 'Z', '0', ' ', '"', '\\', '/', '\n', '\t', 0x01, 0x1F, 0x00, 0x7F,
                                        0xE9, 0x20AC, 0xFFFD, 0xFF21, 0xE000, 0x1F600, 0x10FFFF, 0x10000};
        std::string s;
        for (size_t i = random_() % 24; i > 0; --i) {
            appendUTF8(s, random_() % 3 == 0 ? static_cast<uint32_t>('a' + random_() % 26) : pool[random_() % 21]);
        }
        return s;
    }

    Value scalar() {
        switch (random_() % 7) {
            case 0:
                return Value(static_cast<bool>(random_() & 1));
            case 1:
                return Value();
            case 2:
                return Value(static_cast<int64_t>(random_() >> (random_() % 64)) * ((random_() & 1) ? 1 : -1));
            case 3: {
                // Any double a decimal holds exactly (38 digits, 10^-128 to 10^127).
                double d;
                do {
                    const uint64_t bits = random_();
                    std::memcpy(&d, &bits, sizeof d);
                } while (!(std::fabs(d) > 1e-100 && std::fabs(d) < 1e100));
                return Value(d);
            }
            case 4:
                return Value(*Decimal::parse(std::to_string(random_() % 1000000) + "." + std::to_string(random_() % 1000) +
                                             "e" + std::to_string(static_cast<int>(random_() % 80) - 40)));
            default:
                return Value(text());
        }
    }

    Value container(int depth) {
        const bool isArray = random_() & 1;
        auto items = std::make_shared<Array>();
        auto map = std::make_shared<Dictionary>();
        for (size_t i = random_() % 9; i > 0; --i) {
            Value v = (depth < 6 && random_() % 5 == 0) ? container(depth + 1) : scalar();
            if (isArray) {
                items->push_back(std::move(v));
            } else {
                map->set(text(), std::move(v));
            }
        }
        return isArray ? Value(items) : Value(map);
    }

    std::mt19937_64 random_;
};

TEST(JsonRoundTrip, GeneratedDocumentsSurviveWriteAndRead) {
    DocumentGenerator generator(77);
    QRLJsonWriter compact;
    QRLJsonWriter pretty;
    pretty.setHumanReadable(true);
    pretty.setSortKeys(true);
    QRLJsonParser parser;
    for (int i = 0; i < 400; ++i) {
        const Value doc = generator.document();
        for (QRLJsonWriter* writer : {&compact, &pretty}) {
            const auto text = writer->stringWithObject(doc);
            ASSERT_TRUE(text.has_value()) << doc.description();
            const Value back = parser.objectWithString(*text);
            ASSERT_FALSE(back.isNull()) << *text << "\n" << parser.errorTraceValue().description();
            EXPECT_EQ(back, doc) << *text;
            // Once reals are decimals the text is a fixed point.
            EXPECT_EQ(writer->stringWithObject(parser.objectWithString(*writer->stringWithObject(back))),
                      writer->stringWithObject(back));
        }
        EXPECT_EQ(fuzzcheck::checkJsonInput(*compact.stringWithObject(doc)), "");
    }
}

TEST(JsonRoundTrip, SavedFuzzInputsStaySane) {
    const auto folder = std::filesystem::path(__FILE__).parent_path() / ".." / "data" / "json";
    size_t count = 0;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) {
        if (!entry.is_regular_file()) continue;
        std::ifstream in(entry.path(), std::ios::binary);
        const std::string input((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
        EXPECT_EQ(fuzzcheck::checkJsonInput(input), "") << entry.path();
        ++count;
    }
    EXPECT_GT(count, 10u) << folder;
}

}  // namespace
}  // namespace qrl
