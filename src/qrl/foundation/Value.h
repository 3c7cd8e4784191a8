// qrl::Value: the one dynamic value of the framework. Null, boolean, integer,
// real, decimal, string (UTF-8), data, date, array, dictionary and object.
// Arrays, dictionaries and objects are held by reference, as the platform's
// collections are: copying a Value shares the container, so a holder sees
// later changes ("live" maps); deepCopy() makes an independent copy.
#pragma once

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "qrl/foundation/Decimal.h"

namespace qrl {

class Value;

// Anything a Value can box by reference. description() is what %@ prints.
class Object {
public:
    virtual ~Object() = default;
    virtual std::string description() const = 0;
    // Identity by default; subclasses with value semantics may compare contents.
    virtual bool isEqual(const Object& other) const { return this == &other; }
};

using Data = std::vector<uint8_t>;

// Wall-clock instant, nanoseconds since 1970-01-01T00:00:00Z.
struct Date {
    int64_t nanosecondsSinceEpoch = 0;
    static Date now();
    double secondsSinceEpoch() const { return static_cast<double>(nanosecondsSinceEpoch) / 1e9; }
    // "2001-01-01 00:00:00 +0000": UTC, whole seconds.
    std::string description() const;
    friend bool operator==(const Date&, const Date&) = default;
    friend auto operator<=>(const Date&, const Date&) = default;
};

using Array = std::vector<Value>;
class Dictionary;

class Value {
public:
    enum class Type { Null, Boolean, Integer, Real, Decimal, String, Data, Date, Array, Dictionary, Object };

    Value() = default;  // null
    Value(std::nullptr_t) {}
    Value(bool b) : v_(b) {}
    Value(int v) : v_(static_cast<int64_t>(v)) {}
    Value(unsigned v) : v_(static_cast<int64_t>(v)) {}
    Value(long v) : v_(static_cast<int64_t>(v)) {}
    Value(long long v) : v_(static_cast<int64_t>(v)) {}
    // Unsigned 64-bit values above the signed range are kept exactly as decimals.
    Value(unsigned long v);
    Value(unsigned long long v);
    Value(double d) : v_(d) {}
    Value(qrl::Decimal d) : v_(d) {}
    Value(const char* s);  // null pointer gives a null Value
    Value(std::string s) : v_(std::move(s)) {}
    Value(std::string_view s) : v_(std::string(s)) {}
    Value(qrl::Data d) : v_(std::move(d)) {}
    Value(qrl::Date d) : v_(d) {}
    Value(std::shared_ptr<Array> a);          // null pointer gives a null Value
    Value(std::shared_ptr<Dictionary> d);     // null pointer gives a null Value
    Value(std::shared_ptr<Object> o);         // null pointer gives a null Value

    // New, empty containers, and literals: Value::array({1, "a"}),
    // Value::dictionary({{"k", 1}}).
    static Value array(std::initializer_list<Value> items = {});
    static Value array(Array items);
    static Value dictionary(std::initializer_list<std::pair<std::string, Value>> items = {});

    Type type() const { return static_cast<Type>(v_.index()); }
    bool isNull() const { return type() == Type::Null; }
    bool isBoolean() const { return type() == Type::Boolean; }
    bool isInteger() const { return type() == Type::Integer; }
    bool isReal() const { return type() == Type::Real; }
    bool isDecimal() const { return type() == Type::Decimal; }
    bool isNumber() const { return isBoolean() || isInteger() || isReal() || isDecimal(); }
    bool isString() const { return type() == Type::String; }
    bool isData() const { return type() == Type::Data; }
    bool isDate() const { return type() == Type::Date; }
    bool isArray() const { return type() == Type::Array; }
    bool isDictionary() const { return type() == Type::Dictionary; }
    bool isObject() const { return type() == Type::Object; }

    // Typed access; nullptr / nullopt when the Value holds another type.
    std::optional<bool> asBoolean() const;
    std::optional<int64_t> asInteger() const;
    std::optional<double> asReal() const;
    const qrl::Decimal* asDecimal() const;
    const std::string* asString() const;
    const qrl::Data* asData() const;
    std::optional<qrl::Date> asDate() const;
    const std::shared_ptr<Array>& asArray() const;            // null when not an array
    const std::shared_ptr<Dictionary>& asDictionary() const;  // null when not a dictionary
    const std::shared_ptr<Object>& asObject() const;          // null when not an object

    // The platform's number and string coercions:
    // - numbers: integerValue truncates reals and decimals toward zero
    //   (saturating); boolValue is "not zero"; doubleValue widens.
    // - strings: integerValue skips leading white space, takes an optional
    //   sign and the longest run of digits (saturating at the 64-bit limits),
    //   0 when there is none; boolValue skips white space and an optional
    //   sign and leading zeros, then is true for 'Y', 'y', 'T', 't' or a digit
    //   1-9; doubleValue reads the longest leading decimal number in the C
    //   locale, 0.0 when none.
    // - everything else: 0, false, 0.0.
    int64_t integerValue() const;
    int32_t intValue() const;  // integerValue cut to 32 bits
    bool boolValue() const;
    double doubleValue() const;
    // The string itself for a string; otherwise description().
    std::string stringValue() const;

    // The platform's description: strings as they are, integers in decimal,
    // reals in their shortest round-trip form, booleans as 1 and 0, null as
    // "(null)", data as "<0a1b2c3d 4e>", arrays and dictionaries in the
    // old property-list style ("(\n    1,\n    2\n)", "{\n    a = 1;\n}"),
    // objects by their description(). Dates read "2001-01-01 00:00:00 +0000"
    // (UTC). Inside a container, strings (keys too) are quoted when they are
    // empty or hold anything but ASCII letters, digits and '_', with '"', '\\'
    // and control characters escaped; dates are quoted; null is "<null>";
    // nested containers open on the key's line and indent by four spaces.
    std::string description() const;

    // Dictionary and array conveniences: a null Value when absent or when
    // this is not a container.
    Value operator[](std::string_view key) const;
    Value operator[](size_t index) const;

    Value deepCopy() const;

    // Equality by content for scalars, strings, data and dates; containers
    // compare element-wise (dictionaries regardless of order); numbers of
    // different kinds compare by numeric value; objects by isEqual.
    friend bool operator==(const Value& a, const Value& b);

private:
    std::variant<std::monostate, bool, int64_t, double, qrl::Decimal, std::string, qrl::Data, qrl::Date,
                 std::shared_ptr<Array>, std::shared_ptr<Dictionary>, std::shared_ptr<Object>>
        v_;
};

// A string-keyed map that keeps insertion order. Setting an existing key
// keeps its position. Lookups are O(1) on average. Not thread-safe: owners
// that share one across threads lock around it.
class Dictionary {
public:
    Dictionary() = default;
    Dictionary(std::initializer_list<std::pair<std::string, Value>> items);
    Dictionary(const Dictionary& other);
    Dictionary& operator=(const Dictionary& other);
    Dictionary(Dictionary&&) noexcept = default;
    Dictionary& operator=(Dictionary&&) noexcept = default;

    size_t size() const;
    bool empty() const { return size() == 0; }
    bool contains(std::string_view key) const;
    const Value* find(std::string_view key) const;  // null when absent
    Value* find(std::string_view key);
    Value get(std::string_view key) const;          // null Value when absent
    void set(std::string key, Value value);
    bool remove(std::string_view key);              // false when absent
    void clear();
    void reserve(size_t count) { entries_.reserve(count); }

    // Keys and entries in insertion order.
    std::vector<std::string> keys() const;
    const std::vector<std::pair<std::string, Value>>& entries() const;

    // Iteration in insertion order over std::pair<std::string, Value>.
    auto begin() const { return entries().begin(); }
    auto end() const { return entries().end(); }

private:
    // Value semantics: copying a Dictionary copies its entries. A hash index
    // over the keys is kept once the map grows past a few entries.
    std::vector<std::pair<std::string, Value>> entries_;
    struct Index;
    std::shared_ptr<Index> index_;  // owned; null while small

    static constexpr size_t kIndexThreshold = 8;  // linear scan up to this many entries
    static constexpr size_t npos = static_cast<size_t>(-1);
    size_t indexOf(std::string_view key) const;  // npos when absent
    void rebuildIndex();
};

}  // namespace qrl
