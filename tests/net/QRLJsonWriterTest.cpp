// Writing JSON: the exact texts, compact and indented, key order, escapes,
// the values refused and the errors they leave, proxies and the depth rule.
#include "qrl/net/QRLJsonWriter.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <vector>

#include "qrl/net/JsonProxy.h"

namespace qrl::jsontest {

using Trace = std::vector<std::pair<int64_t, std::string>>;

Trace traceOf(const QRLJsonBase& base) {
    Trace trace;
    for (const auto& error : base.errorTrace()) trace.emplace_back(error->code(), error->localizedDescription());
    return trace;
}

// An object the writer knows nothing about.
class Widget : public Object {
public:
    std::string description() const override { return "<Widget>"; }
};

// An object that stands in for itself with another value, or declines to
// (an empty proxy).
class Proxied : public Object, public JsonProxy {
public:
    explicit Proxied(std::optional<Value> proxy) : proxy_(std::move(proxy)) {}
    std::string description() const override { return "<Proxied>"; }
    std::optional<Value> proxyForJson() const override { return proxy_; }
    std::optional<Value> proxy_;
};

Value object(std::shared_ptr<Object> o) { return Value(std::move(o)); }
Value proxied(std::optional<Value> proxy) { return object(std::make_shared<Proxied>(std::move(proxy))); }

std::optional<std::string> write(const Value& value, bool humanReadable = false, bool sortKeys = false) {
    QRLJsonWriter writer;
    writer.setHumanReadable(humanReadable);
    writer.setSortKeys(sortKeys);
    return writer.stringWithObject(value);
}

TEST(QRLJsonWriter, CompactAndHumanReadableTexts) {
    const Value doc = Value::dictionary({{"b", Value::array({1, 2})}, {"a", Value::dictionary()}});
    EXPECT_EQ(write(doc), "{\"b\":[1,2],\"a\":{}}");
    EXPECT_EQ(write(doc, false, true), "{\"a\":{},\"b\":[1,2]}");
    EXPECT_EQ(write(doc, true, true), "{\n  \"a\" : {},\n  \"b\" : [\n    1,\n    2\n  ]\n}");
    EXPECT_EQ(write(doc, true, false), "{\n  \"b\" : [\n    1,\n    2\n  ],\n  \"a\" : {}\n}");
    EXPECT_EQ(write(Value::array({Value::array({Value::array()})}), true), "[\n  [\n    []\n  ]\n]");

    // With the limit off depth is never raised, so nothing is indented.
    QRLJsonWriter flat;
    flat.setHumanReadable(true);
    flat.setMaxDepth(0);
    EXPECT_EQ(flat.stringWithObject(doc), "{\n\"b\" : [\n1,\n2\n],\n\"a\" : {}\n}");
}

TEST(QRLJsonWriter, ScalarsAndEscapes) {
    const Value scalars = Value::array({true, false, Value(), -1, std::numeric_limits<int64_t>::max(),
                                        std::numeric_limits<int64_t>::min(), 0.1, -0.0, 1e300, 5e-324,
                                        *Decimal::parse("-12.50e1"), *Decimal::parse("0.000125"),
                                        *Decimal::parse("1e40"), *Decimal::parse("-0.0")});
    EXPECT_EQ(write(scalars),
              "[true,false,null,-1,9223372036854775807,-9223372036854775808,0.1,-0,1e+300,5e-324,"
              "-125,0.000125,10000000000000000000000000000000000000000,-0]");

    std::string all;
    for (int ch = 0; ch < 32; ++ch) all.push_back(static_cast<char>(ch));
    all += "\"\\/\x7f\xc3\xa9";
    EXPECT_EQ(write(Value::array({all})),
              "[\"\\u0000\\u0001\\u0002\\u0003\\u0004\\u0005\\u0006\\u0007\\b\\t\\n\\u000b\\f\\r\\u000e\\u000f"
              "\\u0010\\u0011\\u0012\\u0013\\u0014\\u0015\\u0016\\u0017\\u0018\\u0019\\u001a\\u001b\\u001c\\u001d"
              "\\u001e\\u001f\\\"\\\\/\x7f\xc3\xa9\"]");
    EXPECT_EQ(write(Value::dictionary({{"k\"ey\n", "plain"}})), "{\"k\\\"ey\\n\":\"plain\"}");
    const std::string run(40, 'x');  // runs longer than the 16-byte blocks of the scan
    EXPECT_EQ(write(Value::array({run + "\"" + run + "\xc3\xa9"})), "[\"" + run + "\\\"" + run + "\xc3\xa9\"]");
}

TEST(QRLJsonWriter, SortKeysByUTF16CodeUnits) {
    // U+FF21 is above U+1F600 as a code point but below it in UTF-16, where
    // the emoji is a surrogate pair starting 0xD83D.
    const Value doc = Value::dictionary({{"\xef\xbc\xa1", 1}, {"\xf0\x9f\x98\x80", 2}, {"b", 3}, {"a", 4}, {"ab", 5},
                                         {"\xc3\xa9", 6}, {"B", 7}, {"", 8}});
    EXPECT_EQ(write(doc, false, true),
              "{\"\":8,\"B\":7,\"a\":4,\"ab\":5,\"b\":3,\"\xc3\xa9\":6,\"\xf0\x9f\x98\x80\":2,\"\xef\xbc\xa1\":1}");
}

TEST(QRLJsonWriter, RefusedValuesLeaveTheirErrors) {
    const std::pair<int64_t, std::string> notValid{4, "Not valid type for JSON"};
    const std::pair<Value, Trace> cases[] = {
        {Value("top-level string"), {notValid}},
        {Value::array({std::nan("")}), {{1, "NaN is not a valid number in JSON"}, notValid}},
        {Value::array({1, -std::numeric_limits<double>::infinity()}),
         {{1, "Infinity is not a valid number in JSON"}, notValid}},
        {Value::array({object(std::make_shared<Widget>())}),
         {{1, "JSON serialisation not supported for qrl::jsontest::Widget"}, notValid}},
        {Value::array({proxied(std::nullopt)}),
         {{1, "JSON serialisation not supported for qrl::jsontest::Proxied"}, notValid}},
        {Value::array({Value(std::string("ok \xff"))}),
         {{1, "JSON serialisation not supported for a string that is not valid UTF-8"}, notValid}},
        {Value::dictionary({{"bad\xc3", 1}}), {{1, "JSON object key must be string"}, notValid}},
        {Value::dictionary({{"a", Value::dictionary({{"b", Value::array({std::nan("")})}})}}),
         {{1, "NaN is not a valid number in JSON"},
          {1, "Unsupported value for key b in object"},
          {1, "Unsupported value for key a in object"},
          notValid}},
    };
    for (const auto& [value, expected] : cases) {
        QRLJsonWriter writer;
        std::shared_ptr<Error> error;
        EXPECT_EQ(writer.stringWithObject(value, &error), std::nullopt) << value.description();
        EXPECT_EQ(traceOf(writer), expected) << value.description();
        const auto& trace = writer.errorTrace();
        for (size_t i = 0; i < trace.size(); ++i) {
            EXPECT_EQ(trace[i]->underlyingError().get(), i == 0 ? nullptr : trace[i - 1].get());
        }
        EXPECT_EQ(error, trace.back());
    }
}

TEST(QRLJsonWriter, ProxiesStandInForObjects) {
    EXPECT_EQ(write(Value::array({proxied(Value::dictionary({{"x", 1}}))})), "[{\"x\":1}]");
    EXPECT_EQ(write(proxied(Value::array({1, proxied(Value("two"))}))), "[1,\"two\"]");
    EXPECT_EQ(write(proxied(proxied(Value::dictionary()))), "{}");

    // At the top level the proxy must itself give a document.
    QRLJsonWriter writer;
    EXPECT_EQ(writer.stringWithObject(proxied(Value("text"))), std::nullopt);
    EXPECT_EQ(traceOf(writer), (Trace{{4, "Not valid type for JSON"}, {4, "Not valid type for JSON"}}));

    // Inside a container a failing proxy leaves its error, but the object
    // counts as written and the writing goes on.
    EXPECT_EQ(writer.stringWithObject(Value::array({1, proxied(std::nan("")), proxied(Value("\xff")), 2})),
              "[1,,,2]");
    EXPECT_EQ(traceOf(writer).front(), (std::pair<int64_t, std::string>{1, "NaN is not a valid number in JSON"}));

    // An object standing in for itself ends at the nesting limit.
    auto selfish = std::make_shared<Proxied>(Value());
    selfish->proxy_ = object(selfish);
    EXPECT_EQ(writer.stringWithObject(*selfish->proxy_), std::nullopt);
    EXPECT_EQ(writer.errorTrace().front()->code(), 7);
    EXPECT_EQ(writer.stringWithObject(Value::array({*selfish->proxy_})), "[]");
    EXPECT_EQ(traceOf(writer), (Trace{{7, "Nested too deep"}}));
    selfish->proxy_.reset();  // break the cycle
}

TEST(QRLJsonWriter, DepthRuleAndCycles) {
    auto nested = [](size_t depth) {
        Value v = Value::array();
        for (size_t i = 1; i < depth; ++i) v = Value::array({v});
        return v;
    };
    QRLJsonWriter writer;
    EXPECT_EQ(writer.stringWithObject(nested(512)), std::string(512, '[') + std::string(512, ']'));
    EXPECT_EQ(writer.stringWithObject(nested(513)), std::nullopt);
    EXPECT_EQ(traceOf(writer), (Trace{{7, "Nested too deep"}, {4, "Not valid type for JSON"}}));

    // A container holding itself is caught by the limit, even when it is off.
    auto cycle = std::make_shared<Array>();
    cycle->push_back(Value(cycle));
    for (uint64_t limit : {uint64_t{0}, uint64_t{512}}) {
        writer.setMaxDepth(limit);
        EXPECT_EQ(writer.stringWithObject(Value(cycle)), std::nullopt);
        EXPECT_EQ(writer.errorTrace().front()->code(), 7);
    }
    cycle->clear();
}

}  // namespace qrl::jsontest
