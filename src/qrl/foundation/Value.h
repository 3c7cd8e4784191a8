// qrl::Value: the one dynamic value of the framework. Null, boolean, integer,
// real, decimal, string (UTF-8), data, date, array, dictionary and object.
// Arrays, dictionaries and objects are held by reference, as the platform's
// collections are: copying a Value shares the container, so a holder sees
// later changes ("live" maps); deepCopy() makes an independent copy.
#pragma once

#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include "qrl/foundation/Decimal.h"
#include "qrl/foundation/ValueArena.h"

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

// Arrays are vectors whose memory may come from a ValueArena.
using Array = std::vector<Value, ValueAllocator<Value>>;
class Dictionary;

class Value {
public:
    enum class Type { Null, Boolean, Integer, Real, Decimal, String, Data, Date, Array, Dictionary, Object };

    Value() noexcept {}  // null
    Value(std::nullptr_t) noexcept {}
    Value(bool b) noexcept : type_(Type::Boolean) { u_.boolean = b; }
    Value(int v) noexcept : Value(static_cast<int64_t>(v), IntegerTag()) {}
    Value(unsigned v) noexcept : Value(static_cast<int64_t>(v), IntegerTag()) {}
    Value(long v) noexcept : Value(static_cast<int64_t>(v), IntegerTag()) {}
    Value(long long v) noexcept : Value(static_cast<int64_t>(v), IntegerTag()) {}
    // Unsigned 64-bit values above the signed range are kept exactly as decimals.
    Value(unsigned long v);
    Value(unsigned long long v);
    Value(double d) noexcept : type_(Type::Real) { u_.real = d; }
    Value(qrl::Decimal d) noexcept : type_(Type::Decimal) { new (&u_.decimal) qrl::Decimal(d); }
    Value(const char* s);  // null pointer gives a null Value
    Value(std::string s) noexcept : type_(Type::String) { new (&u_.string) std::string(std::move(s)); }
    Value(std::string_view s) : type_(Type::String) { new (&u_.string) std::string(s); }
    Value(qrl::Data d) noexcept : type_(Type::Data) { new (&u_.data) qrl::Data(std::move(d)); }
    Value(qrl::Date d) noexcept : type_(Type::Date) { u_.date = d; }
    Value(std::shared_ptr<Array> a);          // null pointer gives a null Value
    Value(std::shared_ptr<Dictionary> d);     // null pointer gives a null Value
    Value(std::shared_ptr<Object> o);         // null pointer gives a null Value

    // New, empty containers, and literals: Value::array({1, "a"}),
    // Value::dictionary({{"k", 1}}).
    static Value array(std::initializer_list<Value> items = {});
    static Value dictionary(std::initializer_list<std::pair<std::string, Value>> items = {});
    // Containers from what has been gathered already, moved in as it
    // stands; in a dictionary a key that comes again keeps its first
    // position and takes the last value.
    static Value array(Array items);
    static Value dictionary(std::vector<std::pair<std::string, Value>> entries);
    // A new, empty array with room for `capacity` elements, made in the
    // arena when one is given (and open).
    static Value arrayWithCapacity(size_t capacity, const ValueArena* arena = nullptr);

    Type type() const { return type_; }
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
    std::optional<bool> asBoolean() const {
        if (type_ == Type::Boolean) return u_.boolean;
        return std::nullopt;
    }
    std::optional<int64_t> asInteger() const {
        if (type_ == Type::Integer) return u_.integer;
        return std::nullopt;
    }
    std::optional<double> asReal() const {
        if (type_ == Type::Real) return u_.real;
        return std::nullopt;
    }
    const qrl::Decimal* asDecimal() const { return type_ == Type::Decimal ? &u_.decimal : nullptr; }
    const std::string* asString() const { return type_ == Type::String ? &u_.string : nullptr; }
    const qrl::Data* asData() const { return type_ == Type::Data ? &u_.data : nullptr; }
    std::optional<qrl::Date> asDate() const {
        if (type_ == Type::Date) return u_.date;
        return std::nullopt;
    }
    // Null when the Value holds another type.
    const std::shared_ptr<Array>& asArray() const { return type_ == Type::Array ? u_.array : kNoShared<Array>; }
    const std::shared_ptr<Dictionary>& asDictionary() const {
        return type_ == Type::Dictionary ? u_.dictionary : kNoShared<Dictionary>;
    }
    const std::shared_ptr<Object>& asObject() const { return type_ == Type::Object ? u_.object : kNoShared<Object>; }

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

    Value(const Value& other) : type_(other.type_) {
        if (holdsPlainBytes(type_)) copyPlainBytes(other);
        else copyHeld(other);
    }
    // A moved-from Value is null, whatever it held.
    Value(Value&& other) noexcept : type_(other.type_) {
        if (holdsPlainBytes(type_)) copyPlainBytes(other);
        else moveHeld(other);
        other.type_ = Type::Null;
    }
    Value& operator=(const Value& other) {
        if (this != &other) {
            Value copy(other);
            *this = std::move(copy);
        }
        return *this;
    }
    Value& operator=(Value&& other) noexcept {
        if (this != &other) {
            if (!holdsPlainBytes(type_)) destroyHeld();
            type_ = other.type_;
            if (holdsPlainBytes(type_)) copyPlainBytes(other);
            else moveHeld(other);
            other.type_ = Type::Null;
        }
        return *this;
    }
    ~Value() {
        if (!holdsPlainBytes(type_)) destroyHeld();
    }

private:
    struct IntegerTag {};
    Value(int64_t v, IntegerTag) noexcept : type_(Type::Integer) { u_.integer = v; }

    template <class T>
    static constinit inline const std::shared_ptr<T> kNoShared{};

    // Null, booleans, numbers and dates are plain bytes: copied as such and
    // never destroyed. The rest is copied, moved and destroyed by its type.
    static bool holdsPlainBytes(Type t) {
        return static_cast<unsigned>(t) <= static_cast<unsigned>(Type::Decimal) || t == Type::Date;
    }
    void copyPlainBytes(const Value& other) noexcept { std::memcpy(static_cast<void*>(&u_), &other.u_, sizeof u_); }
    void copyHeld(const Value& other);
    void moveHeld(Value& other) noexcept {
        switch (type_) {
        case Type::String:
            new (&u_.string) std::string(std::move(other.u_.string));
            other.u_.string.~basic_string();
            break;
        case Type::Array:
            new (&u_.array) std::shared_ptr<Array>(std::move(other.u_.array));
            other.u_.array.~shared_ptr();
            break;
        case Type::Dictionary:
            new (&u_.dictionary) std::shared_ptr<Dictionary>(std::move(other.u_.dictionary));
            other.u_.dictionary.~shared_ptr();
            break;
        case Type::Object:
            new (&u_.object) std::shared_ptr<Object>(std::move(other.u_.object));
            other.u_.object.~shared_ptr();
            break;
        default:
            new (&u_.data) qrl::Data(std::move(other.u_.data));
            other.u_.data.~vector();
            break;
        }
    }
    void destroyHeld() noexcept;
    void destroyContainer() noexcept;  // bounded stack at any depth
    [[gnu::noinline]] void destroyContainerFromTheTopOrLater() noexcept;
    void releaseContainer() noexcept;

    union Storage {
        Storage() noexcept {}
        ~Storage() {}
        bool boolean;
        int64_t integer;
        double real;
        qrl::Decimal decimal;
        std::string string;
        qrl::Data data;
        qrl::Date date;
        std::shared_ptr<Array> array;
        std::shared_ptr<Dictionary> dictionary;
        std::shared_ptr<Object> object;
    } u_;
    Type type_ = Type::Null;
};

// A string-keyed map that keeps insertion order. Setting an existing key
// keeps its position. Lookups are O(1) on average. Not thread-safe: owners
// that share one across threads lock around it.
class Dictionary {
public:
    using Entry = std::pair<std::string, Value>;
    using Entries = std::vector<Entry, ValueAllocator<Entry>>;

    Dictionary() noexcept;
    // Empty, its entries to be kept by `allocator`.
    explicit Dictionary(const ValueAllocator<Entry>& allocator) noexcept;
    Dictionary(std::initializer_list<std::pair<std::string, Value>> items);
    // Takes the entries in their order; a key that comes again keeps its
    // first position and takes the last value.
    explicit Dictionary(std::vector<std::pair<std::string, Value>> entries);
    Dictionary(const Dictionary& other);
    Dictionary& operator=(const Dictionary& other);
    Dictionary(Dictionary&&) noexcept;
    Dictionary& operator=(Dictionary&&) noexcept;
    ~Dictionary();

    size_t size() const { return entries_.size(); }
    bool empty() const { return entries_.empty(); }
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
    const Entries& entries() const { return entries_; }

    // Iteration in insertion order over std::pair<std::string, Value>.
    auto begin() const { return entries().begin(); }
    auto end() const { return entries().end(); }

private:
    // Value semantics: copying a Dictionary copies its entries. A hash index
    // over the keys is kept once the map grows past a few entries.
    Entries entries_;
    struct Index;
    std::unique_ptr<Index> index_;  // null while small

    static constexpr size_t kIndexThreshold = 8;  // linear scan up to this many entries
    static constexpr size_t npos = static_cast<size_t>(-1);
    size_t indexOf(std::string_view key) const;  // npos when absent
    void rebuildIndex();
    void adoptEntries();  // checks entries_ filled wholesale for repeats, builds the index
    void setEach(Entries entries);
    friend class DictionaryBuilder;  // appends in place
};

// Fills a new dictionary in place, for readers of serialized maps: entries
// are appended in order without a lookup each, and repeated keys are settled
// once at the end (the first position, the last value). One thread at a
// time.
class DictionaryBuilder {
public:
    // Room for about `expected` entries; the dictionary is made in the
    // arena when one is given (and open).
    explicit DictionaryBuilder(size_t expected, const ValueArena* arena = nullptr);
    DictionaryBuilder(DictionaryBuilder&&) noexcept = default;
    DictionaryBuilder& operator=(DictionaryBuilder&&) noexcept = default;

    // Appends the key with a null value and answers that value, to be set
    // before anything else is appended.
    Value& append(std::string_view key) {
        return entries_->emplace_back(std::piecewise_construct, std::forward_as_tuple(key), std::forward_as_tuple()).second;
    }
    Value& append(const char* key) { return append(std::string_view(key)); }
    Value& append(std::string&& key) {
        return entries_
            ->emplace_back(std::piecewise_construct, std::forward_as_tuple(std::move(key)), std::forward_as_tuple())
            .second;
    }
    size_t size() const { return entries_->size(); }
    const std::string& lastKey() const { return entries_->back().first; }  // size() > 0

    // The dictionary, repeated keys settled. The builder is spent.
    Value finish();

private:
    Value dictionary_;
    Dictionary::Entries* entries_;  // inside dictionary_
};

}  // namespace qrl
