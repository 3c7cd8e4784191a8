#include "qrl/foundation/Value.h"

#include <charconv>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <functional>
#include <limits>
#include <locale.h>

namespace qrl {

// ---------------------------------------------------------------- Date

Date Date::now() {
    const auto ns = std::chrono::duration_cast<std::chrono::nanoseconds>(
        std::chrono::system_clock::now().time_since_epoch());
    return Date{static_cast<int64_t>(ns.count())};
}

// ---------------------------------------------------------------- Dictionary

// Open addressing with linear probing. A slot holds the upper 32 bits of the
// key's hash and the entry's position plus one (0 marks an empty slot). The
// table is kept at most half full.
struct Dictionary::Index {
    std::vector<uint64_t> slots;
    size_t mask = 0;

    static uint64_t hashOf(std::string_view key) { return std::hash<std::string_view>{}(key); }
    static uint32_t tag(uint64_t h) { return static_cast<uint32_t>(h >> 32); }

    void reset(size_t count) {
        size_t cap = 16;
        while (cap < count * 2) cap *= 2;
        slots.assign(cap, 0);
        mask = cap - 1;
    }
    void insert(uint64_t h, size_t position) {
        size_t i = static_cast<size_t>(h) & mask;
        while (slots[i] != 0) i = (i + 1) & mask;
        slots[i] = (static_cast<uint64_t>(tag(h)) << 32) | static_cast<uint64_t>(position + 1);
    }
};

Dictionary::Dictionary(std::initializer_list<std::pair<std::string, Value>> items) {
    entries_.reserve(items.size());
    for (const auto& item : items) set(item.first, item.second);
}

Dictionary::Dictionary(const Dictionary& other)
    : entries_(other.entries_), index_(other.index_ ? std::make_shared<Index>(*other.index_) : nullptr) {}

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        entries_ = other.entries_;
        index_ = other.index_ ? std::make_shared<Index>(*other.index_) : nullptr;
    }
    return *this;
}

size_t Dictionary::size() const { return entries_.size(); }

size_t Dictionary::indexOf(std::string_view key) const {
    if (!index_) {
        for (size_t i = 0; i < entries_.size(); ++i)
            if (entries_[i].first == key) return i;
        return npos;
    }
    const uint64_t h = Index::hashOf(key);
    const uint32_t t = Index::tag(h);
    size_t i = static_cast<size_t>(h) & index_->mask;
    for (;;) {
        const uint64_t slot = index_->slots[i];
        if (slot == 0) return npos;
        if (static_cast<uint32_t>(slot >> 32) == t) {
            const size_t pos = static_cast<size_t>(static_cast<uint32_t>(slot)) - 1;
            if (entries_[pos].first == key) return pos;
        }
        i = (i + 1) & index_->mask;
    }
}

void Dictionary::rebuildIndex() {
    if (entries_.size() <= kIndexThreshold) {
        index_.reset();
        return;
    }
    if (!index_) index_ = std::make_shared<Index>();
    index_->reset(entries_.size());
    for (size_t i = 0; i < entries_.size(); ++i) index_->insert(Index::hashOf(entries_[i].first), i);
}

bool Dictionary::contains(std::string_view key) const { return indexOf(key) != npos; }

const Value* Dictionary::find(std::string_view key) const {
    const size_t i = indexOf(key);
    return i == npos ? nullptr : &entries_[i].second;
}

Value* Dictionary::find(std::string_view key) {
    const size_t i = indexOf(key);
    return i == npos ? nullptr : &entries_[i].second;
}

Value Dictionary::get(std::string_view key) const {
    const Value* v = find(key);
    return v ? *v : Value();
}

void Dictionary::set(std::string key, Value value) {
    const size_t i = indexOf(key);
    if (i != npos) {
        entries_[i].second = std::move(value);
        return;
    }
    entries_.emplace_back(std::move(key), std::move(value));
    if (index_) {
        if (entries_.size() * 2 > index_->slots.size()) {
            rebuildIndex();
        } else {
            index_->insert(Index::hashOf(entries_.back().first), entries_.size() - 1);
        }
    } else if (entries_.size() > kIndexThreshold) {
        rebuildIndex();
    }
}

bool Dictionary::remove(std::string_view key) {
    const size_t i = indexOf(key);
    if (i == npos) return false;
    entries_.erase(entries_.begin() + static_cast<std::ptrdiff_t>(i));
    // Positions after i moved down by one; the index is rebuilt (removal is
    // linear anyway because the entries stay contiguous and ordered).
    if (index_) rebuildIndex();
    return true;
}

void Dictionary::clear() {
    entries_.clear();
    index_.reset();
}

std::vector<std::string> Dictionary::keys() const {
    std::vector<std::string> out;
    out.reserve(entries_.size());
    for (const auto& e : entries_) out.push_back(e.first);
    return out;
}

const std::vector<std::pair<std::string, Value>>& Dictionary::entries() const { return entries_; }

// ---------------------------------------------------------------- Value

Value::Value(const char* s) {
    if (s) v_ = std::string(s);
}

namespace {
template <class V>
void setUnsigned(V& v, unsigned long long u) {
    if (u > static_cast<unsigned long long>(std::numeric_limits<int64_t>::max())) {
        v = *qrl::Decimal::parse(std::to_string(u));
    } else {
        v = static_cast<int64_t>(u);
    }
}
}  // namespace

Value::Value(unsigned long v) { setUnsigned(v_, v); }

Value::Value(unsigned long long v) { setUnsigned(v_, v); }

Value::Value(std::shared_ptr<Array> a) {
    if (a) v_ = std::move(a);
}

Value::Value(std::shared_ptr<Dictionary> d) {
    if (d) v_ = std::move(d);
}

Value::Value(std::shared_ptr<Object> o) {
    if (o) v_ = std::move(o);
}

Value Value::array(std::initializer_list<Value> items) { return Value(std::make_shared<Array>(items)); }

Value Value::array(Array items) { return Value(std::make_shared<Array>(std::move(items))); }

Value Value::dictionary(std::initializer_list<std::pair<std::string, Value>> items) {
    return Value(std::make_shared<Dictionary>(items));
}

std::optional<bool> Value::asBoolean() const {
    if (const bool* b = std::get_if<bool>(&v_)) return *b;
    return std::nullopt;
}

std::optional<int64_t> Value::asInteger() const {
    if (const int64_t* i = std::get_if<int64_t>(&v_)) return *i;
    return std::nullopt;
}

std::optional<double> Value::asReal() const {
    if (const double* d = std::get_if<double>(&v_)) return *d;
    return std::nullopt;
}

const qrl::Decimal* Value::asDecimal() const { return std::get_if<qrl::Decimal>(&v_); }
const std::string* Value::asString() const { return std::get_if<std::string>(&v_); }
const qrl::Data* Value::asData() const { return std::get_if<qrl::Data>(&v_); }

std::optional<qrl::Date> Value::asDate() const {
    if (const qrl::Date* d = std::get_if<qrl::Date>(&v_)) return *d;
    return std::nullopt;
}

namespace {
template <class T>
const std::shared_ptr<T>& nullShared() {
    static const std::shared_ptr<T> none;
    return none;
}

bool isSpace(char c) { return c == ' ' || c == '\t' || c == '\n' || c == '\v' || c == '\f' || c == '\r'; }
bool isDigit(char c) { return c >= '0' && c <= '9'; }

int64_t saturatingFromDouble(double d) {
    if (std::isnan(d)) return 0;
    if (d >= 9223372036854775808.0) return std::numeric_limits<int64_t>::max();
    if (d <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(d);  // truncates toward zero
}

int64_t integerFromString(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && isSpace(s[i])) ++i;
    bool neg = false;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) neg = s[i++] == '-';
    // Accumulate as a negative number so that the minimum is reachable.
    int64_t acc = 0;
    constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
    bool saturated = false;
    for (; i < s.size() && isDigit(s[i]); ++i) {
        const int d = s[i] - '0';
        if (saturated) continue;
        if (acc < (kMin + d) / 10) {
            saturated = true;
            continue;
        }
        acc = acc * 10 - d;
    }
    if (saturated) return neg ? kMin : std::numeric_limits<int64_t>::max();
    if (neg) return acc;
    return acc == kMin ? std::numeric_limits<int64_t>::max() : -acc;
}

bool boolFromString(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && isSpace(s[i])) ++i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    while (i < s.size() && s[i] == '0') ++i;
    if (i == s.size()) return false;
    const char c = s[i];
    return c == 'Y' || c == 'y' || c == 'T' || c == 't' || (c >= '1' && c <= '9');
}

locale_t cLocale() {
    static const locale_t loc = newlocale(LC_ALL_MASK, "C", static_cast<locale_t>(nullptr));
    return loc;
}

double doubleFromString(std::string_view s) {
    size_t i = 0;
    while (i < s.size() && isSpace(s[i])) ++i;
    const size_t start = i;
    if (i < s.size() && (s[i] == '+' || s[i] == '-')) ++i;
    size_t digits = 0;
    while (i < s.size() && isDigit(s[i])) ++i, ++digits;
    if (i < s.size() && s[i] == '.') {
        ++i;
        while (i < s.size() && isDigit(s[i])) ++i, ++digits;
    }
    if (digits == 0) return 0.0;
    if (i < s.size() && (s[i] == 'e' || s[i] == 'E')) {
        size_t j = i + 1;
        if (j < s.size() && (s[j] == '+' || s[j] == '-')) ++j;
        if (j < s.size() && isDigit(s[j])) {
            while (j < s.size() && isDigit(s[j])) ++j;
            i = j;
        }
    }
    // The span is a complete decimal number; strtod reads exactly it.
    const std::string text(s.substr(start, i - start));
    return strtod_l(text.c_str(), nullptr, cLocale());
}

// ---------------------------------------------------------------- description

constexpr int kMaxDescriptionDepth = 256;

bool needsQuotes(std::string_view s) {
    if (s.empty()) return true;
    for (char c : s) {
        const bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || isDigit(c) || c == '_';
        if (!plain) return true;
    }
    return false;
}

void appendNestedString(std::string& out, std::string_view s) {
    if (!needsQuotes(s)) {
        out.append(s);
        return;
    }
    out.push_back('"');
    for (char c : s) {
        switch (c) {
        case '"': out.append("\\\""); break;
        case '\\': out.append("\\\\"); break;
        case '\n': out.append("\\n"); break;
        case '\t': out.append("\\t"); break;
        case '\r': out.append("\\r"); break;
        default:
            if (static_cast<unsigned char>(c) < 0x20) {
                static const char hex[] = "0123456789abcdef";
                out.append("\\U00");
                out.push_back(hex[(c >> 4) & 0xf]);
                out.push_back(hex[c & 0xf]);
            } else {
                out.push_back(c);
            }
        }
    }
    out.push_back('"');
}

void appendReal(std::string& out, double d) {
    char buf[64];
    const auto r = std::to_chars(buf, buf + sizeof buf, d);
    out.append(buf, r.ptr);
}

void appendData(std::string& out, const Data& data) {
    static const char hex[] = "0123456789abcdef";
    out.push_back('<');
    for (size_t i = 0; i < data.size(); ++i) {
        if (i != 0 && i % 4 == 0) out.push_back(' ');
        out.push_back(hex[data[i] >> 4]);
        out.push_back(hex[data[i] & 0xf]);
    }
    out.push_back('>');
}

// Civil date from days since 1970-01-01 (proleptic Gregorian).
void civilFromDays(int64_t z, int64_t& y, unsigned& m, unsigned& d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    y = static_cast<int64_t>(yoe) + era * 400;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    d = doy - (153 * mp + 2) / 5 + 1;
    m = mp < 10 ? mp + 3 : mp - 9;
    if (m <= 2) ++y;
}

void appendDate(std::string& out, Date date) {
    const int64_t ns = date.nanosecondsSinceEpoch;
    int64_t secs = ns / 1'000'000'000;
    if (ns % 1'000'000'000 < 0) --secs;  // floor
    int64_t days = secs / 86400;
    int64_t rem = secs % 86400;
    if (rem < 0) {
        rem += 86400;
        --days;
    }
    int64_t y;
    unsigned m, d;
    civilFromDays(days, y, m, d);
    char buf[64];
    char* p = buf;
    if (y < 0) *p++ = '-';
    const int64_t ay = y < 0 ? -y : y;
    if (ay < 1000) *p++ = '0';
    if (ay < 100) *p++ = '0';
    if (ay < 10) *p++ = '0';
    p = std::to_chars(p, buf + sizeof buf, ay).ptr;
    auto two = [&](char sep, unsigned v) {
        *p++ = sep;
        *p++ = static_cast<char>('0' + v / 10);
        *p++ = static_cast<char>('0' + v % 10);
    };
    two('-', m);
    two('-', d);
    two(' ', static_cast<unsigned>(rem / 3600));
    two(':', static_cast<unsigned>(rem / 60 % 60));
    two(':', static_cast<unsigned>(rem % 60));
    out.append(buf, p);
    out.append(" +0000");
}

void describe(const Value& v, std::string& out, int depth, bool nested);

void appendIndent(std::string& out, int depth) { out.append(static_cast<size_t>(depth) * 4, ' '); }

void describeArray(const Array& a, std::string& out, int depth) {
    out.append("(\n");
    for (size_t i = 0; i < a.size(); ++i) {
        appendIndent(out, depth + 1);
        describe(a[i], out, depth + 1, true);
        out.append(i + 1 < a.size() ? ",\n" : "\n");
    }
    appendIndent(out, depth);
    out.push_back(')');
}

void describeDictionary(const Dictionary& dict, std::string& out, int depth) {
    out.append("{\n");
    for (const auto& [key, value] : dict) {
        appendIndent(out, depth + 1);
        appendNestedString(out, key);
        out.append(" = ");
        describe(value, out, depth + 1, true);
        out.append(";\n");
    }
    appendIndent(out, depth);
    out.push_back('}');
}

void describe(const Value& v, std::string& out, int depth, bool nested) {
    switch (v.type()) {
    case Value::Type::Null: out.append(nested ? "<null>" : "(null)"); return;
    case Value::Type::Boolean: out.push_back(*v.asBoolean() ? '1' : '0'); return;
    case Value::Type::Integer: {
        char buf[24];
        out.append(buf, std::to_chars(buf, buf + sizeof buf, *v.asInteger()).ptr);
        return;
    }
    case Value::Type::Real: appendReal(out, *v.asReal()); return;
    case Value::Type::Decimal: out.append(v.asDecimal()->toString()); return;
    case Value::Type::String:
        if (nested) appendNestedString(out, *v.asString());
        else out.append(*v.asString());
        return;
    case Value::Type::Data: appendData(out, *v.asData()); return;
    case Value::Type::Date:
        if (nested) out.push_back('"');
        appendDate(out, *v.asDate());
        if (nested) out.push_back('"');
        return;
    case Value::Type::Array:
        if (depth >= kMaxDescriptionDepth) out.append("(...)");
        else describeArray(*v.asArray(), out, depth);
        return;
    case Value::Type::Dictionary:
        if (depth >= kMaxDescriptionDepth) out.append("{...}");
        else describeDictionary(*v.asDictionary(), out, depth);
        return;
    case Value::Type::Object: out.append(v.asObject()->description()); return;
    }
}

}  // namespace

std::string Date::description() const {
    std::string out;
    appendDate(out, *this);
    return out;
}

const std::shared_ptr<Array>& Value::asArray() const {
    if (const auto* a = std::get_if<std::shared_ptr<Array>>(&v_)) return *a;
    return nullShared<Array>();
}

const std::shared_ptr<Dictionary>& Value::asDictionary() const {
    if (const auto* d = std::get_if<std::shared_ptr<Dictionary>>(&v_)) return *d;
    return nullShared<Dictionary>();
}

const std::shared_ptr<Object>& Value::asObject() const {
    if (const auto* o = std::get_if<std::shared_ptr<Object>>(&v_)) return *o;
    return nullShared<Object>();
}

int64_t Value::integerValue() const {
    switch (type()) {
    case Type::Boolean: return std::get<bool>(v_) ? 1 : 0;
    case Type::Integer: return std::get<int64_t>(v_);
    case Type::Real: return saturatingFromDouble(std::get<double>(v_));
    case Type::Decimal: return std::get<qrl::Decimal>(v_).toInt64();
    case Type::String: return integerFromString(std::get<std::string>(v_));
    default: return 0;
    }
}

int32_t Value::intValue() const { return static_cast<int32_t>(integerValue()); }

bool Value::boolValue() const {
    switch (type()) {
    case Type::Boolean: return std::get<bool>(v_);
    case Type::Integer: return std::get<int64_t>(v_) != 0;
    case Type::Real: return std::get<double>(v_) != 0.0;
    case Type::Decimal: return !std::get<qrl::Decimal>(v_).isZero();
    case Type::String: return boolFromString(std::get<std::string>(v_));
    default: return false;
    }
}

double Value::doubleValue() const {
    switch (type()) {
    case Type::Boolean: return std::get<bool>(v_) ? 1.0 : 0.0;
    case Type::Integer: return static_cast<double>(std::get<int64_t>(v_));
    case Type::Real: return std::get<double>(v_);
    case Type::Decimal: return std::get<qrl::Decimal>(v_).toDouble();
    case Type::String: return doubleFromString(std::get<std::string>(v_));
    default: return 0.0;
    }
}

std::string Value::stringValue() const {
    if (const std::string* s = asString()) return *s;
    return description();
}

std::string Value::description() const {
    std::string out;
    describe(*this, out, 0, false);
    return out;
}

Value Value::operator[](std::string_view key) const {
    if (const auto* d = std::get_if<std::shared_ptr<Dictionary>>(&v_)) return (*d)->get(key);
    return Value();
}

Value Value::operator[](size_t index) const {
    if (const auto* a = std::get_if<std::shared_ptr<Array>>(&v_)) {
        if (index < (*a)->size()) return (**a)[index];
    }
    return Value();
}

Value Value::deepCopy() const {
    switch (type()) {
    case Type::Array: {
        const Array& src = *std::get<std::shared_ptr<Array>>(v_);
        auto copy = std::make_shared<Array>();
        copy->reserve(src.size());
        for (const Value& item : src) copy->push_back(item.deepCopy());
        return Value(std::move(copy));
    }
    case Type::Dictionary: {
        const Dictionary& src = *std::get<std::shared_ptr<Dictionary>>(v_);
        auto copy = std::make_shared<Dictionary>();
        for (const auto& [key, value] : src) copy->set(key, value.deepCopy());
        return Value(std::move(copy));
    }
    default: return *this;  // scalars are values already; objects stay shared
    }
}

namespace {

bool integerEqualsReal(int64_t i, double d) {
    if (std::isnan(d) || d != std::trunc(d)) return false;
    if (d < -9223372036854775808.0 || d >= 9223372036854775808.0) return false;
    return static_cast<int64_t>(d) == i;
}

}  // namespace

bool operator==(const Value& a, const Value& b) {
    using T = Value::Type;
    const T ta = a.type(), tb = b.type();
    if (a.isNumber() && b.isNumber()) {
        const bool intA = ta == T::Boolean || ta == T::Integer;
        const bool intB = tb == T::Boolean || tb == T::Integer;
        if (intA && intB) return a.integerValue() == b.integerValue();
        if (intA && tb == T::Real) return integerEqualsReal(a.integerValue(), *b.asReal());
        if (ta == T::Real && intB) return integerEqualsReal(b.integerValue(), *a.asReal());
        if (ta == T::Real && tb == T::Real) return *a.asReal() == *b.asReal();
        if (ta == T::Decimal && tb == T::Decimal) return *a.asDecimal() == *b.asDecimal();
        if (intA) return qrl::Decimal::fromInt64(a.integerValue()) == *b.asDecimal();
        if (intB) return qrl::Decimal::fromInt64(b.integerValue()) == *a.asDecimal();
        // A real and a decimal: equal when the decimal rounds to that real.
        return ta == T::Real ? b.asDecimal()->toDouble() == *a.asReal() : a.asDecimal()->toDouble() == *b.asReal();
    }
    if (ta != tb) return false;
    switch (ta) {
    case T::Null: return true;
    case T::String: return *a.asString() == *b.asString();
    case T::Data: return *a.asData() == *b.asData();
    case T::Date: return *a.asDate() == *b.asDate();
    case T::Array: {
        const auto& x = a.asArray();
        const auto& y = b.asArray();
        if (x == y) return true;
        return *x == *y;
    }
    case T::Dictionary: {
        const auto& x = a.asDictionary();
        const auto& y = b.asDictionary();
        if (x == y) return true;
        if (x->size() != y->size()) return false;
        for (const auto& [key, value] : *x) {
            const Value* other = y->find(key);
            if (!other || !(value == *other)) return false;
        }
        return true;
    }
    case T::Object: {
        const auto& x = a.asObject();
        const auto& y = b.asObject();
        return x == y || x->isEqual(*y);
    }
    default: return false;  // numbers are handled above
    }
}

}  // namespace qrl
