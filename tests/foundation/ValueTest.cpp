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
        {"9223372036854775807", kMax, true, 9223372036854775807.0},
        {"-9223372036854775808", kMin, true, -9223372036854775808.0},
        {"  yes", 0, true, 0.0},
        {"00001", 1, true, 1.0},
        {"0", 0, false, 0.0},
        {"+T", 0, true, 0.0},
        {"true", 0, true, 0.0},
        {"NO", 0, false, 0.0},
        {"-00y", 0, true, -0.0},
        {"", 0, false, 0.0},
        {"\t\n+7.5e2xyz", 7, true, 750.0},
        {".5", 0, false, 0.5},
        {"5.", 5, true, 5.0},
        {"1e", 1, true, 1.0},
        {"1e+", 1, true, 1.0},
        {"-.25E-2", 0, false, -0.0025},
        {"1e999", 1, true, HUGE_VAL},
        {"abc", 0, false, 0.0},
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
    EXPECT_EQ(Value(*Decimal::parse("-123.9")).integerValue(), -123);
    EXPECT_EQ(Value(*Decimal::parse("1e30")).integerValue(), kMax);
    EXPECT_FALSE(Value(*Decimal::parse("0.000")).boolValue());
    EXPECT_TRUE(Value(*Decimal::parse("0.001")).boolValue());
    EXPECT_EQ(Value(true).integerValue(), 1);
    EXPECT_EQ(Value(int64_t{kMax}).doubleValue(), 9223372036854775807.0);
    for (const Value& other : {Value(), Value::array({1}), Value(Data{1}), Value(Date{5})}) {
        EXPECT_EQ(other.integerValue(), 0);
        EXPECT_FALSE(other.boolValue());
        EXPECT_EQ(other.doubleValue(), 0.0);
    }
}

TEST(ValueTest, TypedAccessAnswersOnlyForItsOwnType) {
    const Value s("text");
    EXPECT_TRUE(s.isString());
    EXPECT_EQ(*s.asString(), "text");
    EXPECT_FALSE(s.asInteger());
    EXPECT_EQ(s.asArray(), nullptr);
    EXPECT_EQ(s.asDictionary(), nullptr);
    EXPECT_EQ(s.asObject(), nullptr);
    EXPECT_TRUE(Value(static_cast<const char*>(nullptr)).isNull());
    EXPECT_TRUE(Value(std::shared_ptr<Array>()).isNull());
    EXPECT_TRUE(Value(3u).isInteger());
    EXPECT_TRUE(Value(size_t{3}).isInteger());
    const Value huge(std::numeric_limits<uint64_t>::max());  // beyond int64: kept exactly
    EXPECT_TRUE(huge.isDecimal());
    EXPECT_EQ(huge.description(), "18446744073709551615");
    EXPECT_EQ(huge.integerValue(), kMax);
    EXPECT_TRUE(Value(true).isNumber());
    EXPECT_EQ(Value(1.5).stringValue(), "1.5");
    EXPECT_EQ(s.stringValue(), "text");
}

TEST(ValueTest, DescriptionsUseThePropertyListStyle) {
    EXPECT_EQ(Value().description(), "(null)");
    EXPECT_EQ(Value(true).description(), "1");
    EXPECT_EQ(Value(-12).description(), "-12");
    EXPECT_EQ(Value(0.1).description(), "0.1");
    EXPECT_EQ(Value(100.0).description(), "100");
    EXPECT_EQ(Value(1e21).description(), "1e+21");
    EXPECT_EQ(Value(*Decimal::parse("-1.250")).description(), "-1.25");
    EXPECT_EQ(Value("a b").description(), "a b");
    EXPECT_EQ(Value(Data{0x0a, 0x1b, 0x2c, 0x3d, 0x4e}).description(), "<0a1b2c3d 4e>");
    EXPECT_EQ(Value(Data{}).description(), "<>");
    EXPECT_EQ(Value(Date{0}).description(), "1970-01-01 00:00:00 +0000");
    EXPECT_EQ(Value(Date{978307200'999'999'999LL}).description(), "2001-01-01 00:00:00 +0000");
    EXPECT_EQ(Value(Date{-1}).description(), "1969-12-31 23:59:59 +0000");
    EXPECT_EQ(Value(Date{951782400LL * 1'000'000'000}).description(), "2000-02-29 00:00:00 +0000");

    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b c", "x y"}}).description(), "{\n    a = 1;\n    \"b c\" = \"x y\";\n}");
    EXPECT_EQ(Value::array({1, 2}).description(), "(\n    1,\n    2\n)");
    EXPECT_EQ(Value::array().description(), "(\n)");
    EXPECT_EQ(Value::dictionary().description(), "{\n}");
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
    EXPECT_EQ(Value(1.5), Value(*Decimal::parse("1.5")));
    EXPECT_EQ(Value(0.1), Value(*Decimal::parse("0.1")));
    EXPECT_EQ(Value(true), Value(1));
    EXPECT_NE(Value(true), Value(2));
    EXPECT_NE(Value(int64_t{9007199254740993}), Value(9007199254740992.0));
    EXPECT_EQ(Value(int64_t{9007199254740992}), Value(9007199254740992.0));
    EXPECT_NE(Value(kMax), Value(9223372036854775808.0));
    EXPECT_NE(Value(std::nan("")), Value(std::nan("")));
    EXPECT_NE(Value(1), Value("1"));
    EXPECT_NE(Value(), Value(0));
    EXPECT_EQ(Value(), Value(nullptr));
    EXPECT_EQ(Value(Data{1, 2}), Value(Data{1, 2}));
    EXPECT_NE(Value(Date{1}), Value(Date{2}));
}

TEST(ValueTest, ContainersCompareByContentDictionariesInAnyOrder) {
    EXPECT_EQ(Value::dictionary({{"a", 1}, {"b", 2}}), Value::dictionary({{"b", 2.0}, {"a", 1}}));
    EXPECT_NE(Value::dictionary({{"a", 1}}), Value::dictionary({{"a", 1}, {"b", 2}}));
    EXPECT_NE(Value::dictionary({{"a", 1}}), Value::dictionary({{"b", 1}}));
    EXPECT_EQ(Value::array({1, "x"}), Value::array({1.0, "x"}));
    EXPECT_NE(Value::array({1, 2}), Value::array({2, 1}));
    EXPECT_NE(Value::array(), Value::dictionary());
}

struct Tag : Object {
    std::string description() const override { return "tag"; }
};

struct Named : Object {
    explicit Named(std::string n) : name(std::move(n)) {}
    std::string description() const override { return name; }
    bool isEqual(const Object& other) const override {
        auto* o = dynamic_cast<const Named*>(&other);
        return o && o->name == name;
    }
    std::string name;
};

TEST(ValueTest, ObjectsCompareByIsEqualAndDescribeThemselves) {
    const Value a(std::static_pointer_cast<Object>(std::make_shared<Named>("n")));
    const Value b(std::static_pointer_cast<Object>(std::make_shared<Named>("n")));
    EXPECT_EQ(a, b);
    EXPECT_EQ(Value::array({a}).description(), "(\n    n\n)");
    EXPECT_EQ(a.deepCopy().asObject(), a.asObject());  // objects stay shared
}

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

TEST(ValueTest, MovingAValueLeavesTheContainerWithTheTarget) {
    Value a = Value::array({1, 2, 3});
    const Array* raw = a.asArray().get();
    Value b = std::move(a);
    EXPECT_EQ(b.asArray().get(), raw);
    EXPECT_TRUE(a.isNull());  // what a move leaves behind is null
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

TEST(DictionaryTest, KeepsInsertionOrderAndPositionOnOverwrite) {
    Dictionary d{{"z", 1}, {"a", 2}, {"m", 3}, {"a", 4}};
    EXPECT_EQ(d.keys(), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_EQ(d.get("a"), Value(4));
    d.set("z", "again");
    EXPECT_EQ(d.keys(), (std::vector<std::string>{"z", "a", "m"}));
    EXPECT_TRUE(d.remove("a"));
    EXPECT_FALSE(d.remove("a"));
    EXPECT_EQ(d.keys(), (std::vector<std::string>{"z", "m"}));
    EXPECT_TRUE(d.get("nope").isNull());
    EXPECT_EQ(d.find("nope"), nullptr);
    *d.find("m") = 9;
    EXPECT_EQ(d.get("m"), Value(9));
    d.clear();
    EXPECT_TRUE(d.empty());
}

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

// Entries taken wholesale (the bulk constructor, Value::dictionary from
// entries, DictionaryBuilder) end as set() one by one would leave them: a
// repeated key keeps its first position and takes the last value. Generated
// runs with and without repeats, small ones and ones past the index
// threshold, keys that share length and first or last bytes.
TEST(DictionaryTest, EntriesTakenWholesaleSettleRepeatsAsSetDoes) {
    std::mt19937 rng(23);
    const std::string stems[] = {"", "a", "ab", "abc", "abcd", "abcdefg", "abcdefgh", "abcdefghijklmnop"};
    for (int round = 0; round < 400; ++round) {
        const size_t count = rng() % 24;
        const unsigned keySpace = 1 + rng() % 40;
        std::vector<std::pair<std::string, Value>> entries;
        Dictionary expected;
        for (size_t i = 0; i < count; ++i) {
            const unsigned n = rng() % keySpace;
            std::string key = stems[n % 8];
            if (n >= 8) key.insert(key.size() / 2, 1, static_cast<char>('A' + n / 8));  // same length and ends
            entries.emplace_back(key, static_cast<int>(i));
            expected.set(key, static_cast<int>(i));
        }
        const Dictionary bulk(entries);
        const Value made = Value::dictionary(entries);
        DictionaryBuilder builder(rng() % 10);
        for (const auto& [key, value] : entries) {
            builder.append(key) = value;
            ASSERT_EQ(builder.lastKey(), key);
        }
        ASSERT_EQ(builder.size(), entries.size());
        const Value built = builder.finish();
        for (const Dictionary* d :
             std::initializer_list<const Dictionary*>{&bulk, made.asDictionary().get(), built.asDictionary().get()}) {
            ASSERT_EQ(d->keys(), expected.keys()) << round;
            for (const auto& [key, value] : expected) ASSERT_EQ(d->get(key), value) << key;
            ASSERT_FALSE(d->contains("absent"));
        }
    }
}

TEST(DictionaryTest, LargeDictionariesFindEveryKey) {
    Dictionary d;
    for (int i = 0; i < 20000; ++i) d.set(std::to_string(i * 7919), i);
    for (int i = 0; i < 20000; ++i) ASSERT_EQ(d.get(std::to_string(i * 7919)).integerValue(), i);
    EXPECT_FALSE(d.contains("1"));
    Dictionary moved = std::move(d);
    EXPECT_EQ(moved.size(), 20000u);
    EXPECT_EQ(moved.get("7919").integerValue(), 1);
}

// ------------------------------------------------------------ containers with room

// Arrays made with room start empty with at least that room (dictionaries
// taken wholesale and builders are covered above).
TEST(ContainersWithRoomTest, StartEmptyWithTheRoomAsked) {
    std::mt19937 rng(31);
    for (int round = 0; round < 300; ++round) {
        const size_t room = rng() % 40;
        Value array = Value::arrayWithCapacity(room);
        ASSERT_TRUE(array.asArray()->empty());
        ASSERT_GE(array.asArray()->capacity(), room);
        for (size_t i = 0; i < room + rng() % 3; ++i) array.asArray()->push_back(static_cast<int>(i));
    }
    EXPECT_EQ(Value::array({1, 2}), Value::array(Array{1, 2}));
    Array large(5000, Value(7));
    Value held = Value::array(std::move(large));
    EXPECT_EQ(held.asArray()->size(), 5000u);
    held = Value();
    EXPECT_EQ(Value::arrayWithCapacity(5000).asArray()->size(), 0u);
}

}  // namespace
}  // namespace qrl
