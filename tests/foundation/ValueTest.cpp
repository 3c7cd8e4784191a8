#include "qrl/foundation/Value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <map>
#include <random>

namespace qrl {
namespace {

constexpr int64_t kMax = std::numeric_limits<int64_t>::max();
constexpr int64_t kMin = std::numeric_limits<int64_t>::min();

TEST(ValueTest, StringCoercionsFollowThePlatformRules) {
    struct Row {
        const char* text;
        int64_t integer;
        bool boolean;
        double real;
    };
    const Row rows[] = {
        {" 42abc", 42, true, 42.0},
        {"-0x10", 0, false, -0.0},
        {"99999999999999999999", kMax, true, 1e20},
        {"-99999999999999999999", kMin, true, -1e20},
        {"  yes", 0, true, 0.0},
        {"0", 0, false, 0.0},
        {"+T", 0, true, 0.0},
        {"-00y", 0, true, -0.0},
        {"\t\n+7.5e2xyz", 7, true, 750.0},
        {".5", 0, false, 0.5},
        {"1e", 1, true, 1.0},
        {"-.25E-2", 0, false, -0.0025},
        {"1e999", 1, true, HUGE_VAL},
        {"- 5", 0, false, 0.0},
    };
    for (const Row& row : rows) {
        const Value v(row.text);
        EXPECT_EQ(v.integerValue(), row.integer) << '"' << row.text << '"';
        EXPECT_EQ(v.boolValue(), row.boolean) << '"' << row.text << '"';
        EXPECT_EQ(v.doubleValue(), row.real) << '"' << row.text << '"';
    }
    EXPECT_EQ(Value("4294967297").intValue(), 1);  // cut to 32 bits
}

TEST(ValueTest, NumberCoercionsTruncateAndSaturate) {
    EXPECT_EQ(Value(-2.7).integerValue(), -2);
    EXPECT_EQ(Value(2.7).integerValue(), 2);
    EXPECT_EQ(Value(1e300).integerValue(), kMax);
    EXPECT_EQ(Value(-1e300).integerValue(), kMin);
    EXPECT_EQ(Value(std::nan("")).integerValue(), 0);
    EXPECT_TRUE(Value(std::nan("")).boolValue());
    EXPECT_FALSE(Value(-0.0).boolValue());
    EXPECT_FALSE(Value(*Decimal::parse("0.000")).boolValue());
    EXPECT_TRUE(Value(*Decimal::parse("0.001")).boolValue());
    EXPECT_EQ(Value(true).integerValue(), 1);
    EXPECT_EQ(Value(int64_t{kMax}).doubleValue(), 9223372036854775807.0);
    const Value huge(std::numeric_limits<uint64_t>::max());  // beyond int64: kept exactly
    EXPECT_TRUE(huge.isDecimal());
    EXPECT_EQ(huge.description(), "18446744073709551615");
    EXPECT_EQ(huge.integerValue(), kMax);
    for (const Value& other : {Value(), Value::array({1}), Value(Data{1}), Value(Date{5})}) {
        EXPECT_EQ(other.integerValue(), 0);
        EXPECT_FALSE(other.boolValue());
        EXPECT_EQ(other.doubleValue(), 0.0);
    }
}

TEST(ValueTest, DescriptionsUseThePropertyListStyle) {
    EXPECT_EQ(Value().description(), "(null)");
    EXPECT_EQ(Value(0.1).description(), "0.1");
    EXPECT_EQ(Value(1e21).description(), "1e+21");
    EXPECT_EQ(Value(*Decimal::parse("-1.250")).description(), "-1.25");
    EXPECT_EQ(Value(Data{0x0a, 0x1b, 0x2c, 0x3d, 0x4e}).description(), "<0a1b2c3d 4e>");
    EXPECT_EQ(Value(Date{0}).description(), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(Value(Date{951782400LL * 1'000'000'000}).description(), "2000-02-29 00:00:00 +0000");

    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b c", "x y"}}).description(), "{\n    a = 1;\n    \"b c\" = \"x y\";\n}");
    EXPECT_EQ(Value::array({1, 2}).description(), "(\n    1,\n    2\n)");
    EXPECT_EQ(Value::array().description(), "(\n)");
    const Value nested = Value::dictionary({
        {"list", Value::array({"plain_1", "", "q\"\\\n", Value(), Value::dictionary({{"k", 2.5}})})},
        {"when", Date{0}},
    });
    EXPECT_EQ(nested.description(),
              "{\n"
              "    list = (\n"
              "        plain_1,\n"
              "        \"\",\n"
              "        \"q\\\"\\\\\\n\",\n"
              "        <null>,\n"
              "        {\n"
              "            k = 2.5;\n"
              "        }\n"
              "    );\n"
              "    when = \"1970-01-01 00:00:00 +0000\";\n"
              "}");
}

TEST(ValueTest, ADescriptionOfAContainerHoldingItselfStops) {
    Value a = Value::array({1});
    a.asArray()->push_back(a);  // a cycle, as a live container allows
    const std::string text = a.description();
    EXPECT_NE(text.find("(...)"), std::string::npos);
    a.asArray()->clear();  // break the cycle so that the array is freed
}

TEST(ValueTest, NumbersOfDifferentKindsCompareByValue) {
    EXPECT_EQ(Value(1), Value(1.0));
    EXPECT_EQ(Value(1), Value(*Decimal::parse("1.00")));
    EXPECT_EQ(Value(0.1), Value(*Decimal::parse("0.1")));
    EXPECT_EQ(Value(true), Value(1));
    EXPECT_NE(Value(true), Value(2));
    EXPECT_NE(Value(int64_t{9007199254740993}), Value(9007199254740992.0));
    EXPECT_EQ(Value(int64_t{9007199254740992}), Value(9007199254740992.0));
    EXPECT_NE(Value(kMax), Value(9223372036854775808.0));
    EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(1), Value("1"));
    EXPECT_NE(Value(), Value(0));
}

struct Tag : Object {
    std::string description() const override { return "tag"; }
};

TEST(ValueTest, CopiesShareContainersAndDeepCopiesDoNot) {
    Value original = Value::dictionary({{"list", Value::array({1})}});
    const Value shared = original;
    const Value deep = original.deepCopy();
    original.asDictionary()->set("added", true);
    original["list"].asArray()->push_back(2);
    EXPECT_TRUE(shared.asDictionary()->contains("added"));
    EXPECT_EQ(shared["list"], Value::array({1, 2}));
    EXPECT_FALSE(deep.asDictionary()->contains("added"));
    EXPECT_EQ(deep["list"], Value::array({1}));
    EXPECT_EQ(original["list"][1], Value(2));
    EXPECT_TRUE(original["list"][2].isNull());
    EXPECT_TRUE(original["missing"]["deeper"].isNull());
    EXPECT_TRUE(Value(5)["key"].isNull());
}

// A generated trace of copies, moves and assignments between values of
// every kind, each checked against a copy that was never touched.
TEST(ValueTest, CopiesMovesAndAssignmentsKeepEveryKindIntact) {
    const auto object = std::static_pointer_cast<Object>(std::make_shared<Tag>());
    auto make = [&](int kind) -> Value {
        switch (kind) {
        case 0: return Value();
        case 1: return Value(true);
        case 2: return Value(-42);
        case 3: return Value(2.5);
        case 4: return Value(*Decimal::parse("-1.25e-40"));
        case 5: return Value("short");
        case 6: return Value(std::string(100, 'x'));  // beyond the small-string room
        case 7: return Value(Data{1, 2, 3});
        case 8: return Value(Date{123});
        case 9: return Value::array({1, "two"});
        case 10: return Value::dictionary({{"k", Value::array({3})}});
        default: return Value(object);
        }
    };
    constexpr int kKinds = 12;
    std::mt19937 rng(11);
    std::vector<Value> slots(8), expected(8);
    for (int step = 0; step < 4000; ++step) {
        const size_t i = rng() % slots.size(), j = rng() % slots.size();
        switch (rng() % 6) {
        case 0: {
            const int kind = static_cast<int>(rng() % kKinds);
            slots[i] = make(kind);
            expected[i] = make(kind);
            break;
        }
        case 1:
            slots[i] = slots[j];  // self-assignment included
            expected[i] = expected[j];
            break;
        case 2:
            if (i != j) {
                slots[i] = std::move(slots[j]);
                expected[i] = expected[j];
                expected[j] = Value();
            }
            break;
        case 3: {
            Value moved(std::move(slots[i]));
            ASSERT_TRUE(slots[i].isNull());
            slots[i] = Value(moved);
            break;
        }
        case 4:
            std::swap(slots[i], slots[j]);
            std::swap(expected[i], expected[j]);
            break;
        default: {
            const Value copy(slots[i]);
            ASSERT_EQ(copy.type(), slots[i].type());
            break;
        }
        }
        for (size_t k = 0; k < slots.size(); ++k) {
            ASSERT_EQ(slots[k].type(), expected[k].type()) << step;
            ASSERT_EQ(slots[k], expected[k]) << step;
            ASSERT_EQ(slots[k].description(), expected[k].description()) << step;
        }
    }
}

// ------------------------------------------------------------ Dictionary

// Random inserts, overwrites, removals and lookups against a simple model,
// across the size where the hash index takes over, on copies too.
TEST(DictionaryTest, AgreesWithAModelAcrossTheIndexThreshold) {
    std::mt19937 rng(7);
    for (int round = 0; round < 30; ++round) {
        Dictionary d;
        std::map<std::string, int> model;
        std::vector<std::string> order;
        const int keySpace = 4 + round * 5;
        for (int step = 0; step < 600; ++step) {
            const std::string key = "k" + std::to_string(rng() % static_cast<unsigned>(keySpace));
            const int op = static_cast<int>(rng() % 10);
            if (op < 5) {
                const int v = static_cast<int>(rng() % 1000);
                d.set(key, v);
                if (!model.count(key)) order.push_back(key);
                model[key] = v;
            } else if (op < 7) {
                const bool removed = d.remove(key);
                ASSERT_EQ(removed, model.erase(key) == 1);
                if (removed) order.erase(std::find(order.begin(), order.end(), key));
            } else if (op < 9) {
                const Value* found = d.find(key);
                ASSERT_EQ(found != nullptr, model.count(key) == 1) << key;
                if (found) {
                    ASSERT_EQ(found->integerValue(), model[key]);
                }
            } else {
                Dictionary copy = d;  // value semantics: the copy has its own index
                d.set("only-in-original", 0);
                ASSERT_FALSE(copy.contains("only-in-original"));
                for (const auto& [k, v] : model) ASSERT_EQ(copy.get(k).integerValue(), v);
                d.remove("only-in-original");
            }
            ASSERT_EQ(d.size(), model.size());
        }
        ASSERT_EQ(d.keys(), order);
        for (const auto& [k, v] : model) ASSERT_EQ(d.get(k).integerValue(), v);
    }
}

}  // namespace
}  // namespace qrl
