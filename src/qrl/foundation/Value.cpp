#include "qrl/foundation/Value.h"
#include "qrl/foundation/detail/CivilDate.h"

#include <bit>
#include <charconv>
#include <chrono>
#include <clocale>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <limits>
#include <locale.h>
#include <new>

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

namespace {

// Equal keys have equal fingerprints; keys that differ in length or in their
// first or last bytes almost never share one.
uint64_t fingerprint(std::string_view key) {
    const size_t n = key.size();
    const char* p = key.data();
    if (n >= 8) {
        uint64_t first, last;
        std::memcpy(&first, p, 8);
        std::memcpy(&last, p + n - 8, 8);
        return first ^ ((last << 29) | (last >> 35)) ^ (static_cast<uint64_t>(n) << 56);
    }
    if (n >= 4) {
        uint32_t first, last;
        std::memcpy(&first, p, 4);
        std::memcpy(&last, p + n - 4, 4);
        return (static_cast<uint64_t>(first) << 32 | last) ^ (static_cast<uint64_t>(n) << 61);
    }
    if (n == 0) return 0;
    return static_cast<unsigned char>(p[0]) | static_cast<unsigned char>(p[n / 2]) << 8 |
           static_cast<unsigned char>(p[n - 1]) << 16 | static_cast<uint64_t>(n) << 24;
}

}  // namespace

Dictionary::Dictionary(std::vector<std::pair<std::string, Value>> entries)
    : entries_(std::make_move_iterator(entries.begin()), std::make_move_iterator(entries.end())) {
    adoptEntries();
}

Dictionary::Dictionary(const ValueAllocator<Entry>& allocator) noexcept : entries_(allocator) {}

// The entries are taken as they are; only a repeated key, found while the
// index is built (or by comparing all pairs while the map is small), sends
// them through set() one by one.
void Dictionary::adoptEntries() {
    index_.reset();
    const size_t count = entries_.size();
    if (count <= 2) {
        if (count == 2 && entries_[0].first == entries_[1].first) setEach(std::move(entries_));
        return;
    }
    if (count <= kIndexThreshold) {
        // Keys with different fingerprints need no closer look.
        uint64_t prints[kIndexThreshold];
        for (size_t i = 0; i < count; ++i) {
            prints[i] = fingerprint(entries_[i].first);
            for (size_t j = 0; j < i; ++j) {
                if (prints[j] == prints[i] && entries_[j].first == entries_[i].first) {
                    setEach(std::move(entries_));
                    return;
                }
            }
        }
        return;
    }
    index_ = std::make_unique<Index>();
    index_->reset(count);
    for (size_t position = 0; position < count; ++position) {
        const uint64_t h = Index::hashOf(entries_[position].first);
        const uint32_t t = Index::tag(h);
        size_t i = static_cast<size_t>(h) & index_->mask;
        for (;;) {
            const uint64_t slot = index_->slots[i];
            if (slot == 0) break;
            if (static_cast<uint32_t>(slot >> 32) == t &&
                entries_[static_cast<uint32_t>(slot) - 1].first == entries_[position].first) {
                setEach(std::move(entries_));
                return;
            }
            i = (i + 1) & index_->mask;
        }
        index_->slots[i] = (static_cast<uint64_t>(t) << 32) | static_cast<uint64_t>(position + 1);
    }
}

void Dictionary::setEach(Entries entries) {
    entries_ = Entries(entries.get_allocator());
    index_.reset();
    entries_.reserve(entries.size());
    for (auto& entry : entries) set(std::move(entry.first), std::move(entry.second));
}

Dictionary::Dictionary(const Dictionary& other)
    : entries_(other.entries_), index_(other.index_ ? std::make_unique<Index>(*other.index_) : nullptr) {}

Dictionary::Dictionary() noexcept = default;
Dictionary::Dictionary(Dictionary&&) noexcept = default;
Dictionary& Dictionary::operator=(Dictionary&&) noexcept = default;
Dictionary::~Dictionary() = default;

Dictionary& Dictionary::operator=(const Dictionary& other) {
    if (this != &other) {
        entries_ = other.entries_;
        index_ = other.index_ ? std::make_unique<Index>(*other.index_) : nullptr;
    }
    return *this;
}

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
    if (!index_) index_ = std::make_unique<Index>();
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

// ---------------------------------------------------------------- Value

Value::Value(const char* s) {
    if (s) {
        new (&u_.string) std::string(s);
        type_ = Type::String;
    }
}

void Value::copyHeld(const Value& other) {
    switch (type_) {
    case Type::String: new (&u_.string) std::string(other.u_.string); break;
    case Type::Data: new (&u_.data) qrl::Data(other.u_.data); break;
    case Type::Array: new (&u_.array) std::shared_ptr<Array>(other.u_.array); break;
    case Type::Dictionary: new (&u_.dictionary) std::shared_ptr<Dictionary>(other.u_.dictionary); break;
    case Type::Object: new (&u_.object) std::shared_ptr<Object>(other.u_.object); break;
    default: break;  // plain bytes are not copied here
    }
}

namespace {

// Destroying a container destroys its elements, and a deeply nested value
// would do so one stack frame per level. Past kTeardownRecursion levels on a
// thread, containers are handed to the outermost teardown instead, which
// destroys them one after another: any depth is freed in bounded stack.
constexpr int kTeardownRecursion = 256;  // a few hundred bytes of stack a level
struct Teardown {
    int depth = 0;
    std::vector<Value>* later = nullptr;  // the outermost teardown's list
};
// Initial-exec: one load off the thread pointer, on every container freed.
[[gnu::tls_model("initial-exec")]] thread_local Teardown tTeardown;

}  // namespace

void Value::destroyContainer() noexcept {
    Teardown& t = tTeardown;
    if (t.later != nullptr && t.depth < kTeardownRecursion) [[likely]] {
        ++t.depth;
        releaseContainer();
        --t.depth;
        return;
    }
    destroyContainerFromTheTopOrLater();
}

void Value::destroyContainerFromTheTopOrLater() noexcept {
    Teardown& t = tTeardown;
    if (t.later != nullptr) {
        try {
            t.later->push_back(std::move(*this));  // leaves this null
            return;
        } catch (...) {
            // No memory for the list: destroy it here after all.
            ++t.depth;
            releaseContainer();
            --t.depth;
            return;
        }
    }
    std::vector<Value> later;
    t.later = &later;
    ++t.depth;
    releaseContainer();
    while (!later.empty()) {
        Value next = std::move(later.back());
        later.pop_back();
    }
    --t.depth;
    t.later = nullptr;
}

void Value::releaseContainer() noexcept {
    if (type_ == Type::Array) u_.array.~shared_ptr();
    else u_.dictionary.~shared_ptr();
    type_ = Type::Null;
}

void Value::destroyHeld() noexcept {
    switch (type_) {
    case Type::String: u_.string.~basic_string(); break;
    case Type::Data: u_.data.~vector(); break;
    case Type::Array:
    case Type::Dictionary: destroyContainer(); break;
    case Type::Object: u_.object.~shared_ptr(); break;
    default: break;  // plain bytes need nothing
    }
}

namespace {
Value fromUnsigned(unsigned long long u) {
    if (u > static_cast<unsigned long long>(std::numeric_limits<int64_t>::max())) {
        return Value(*qrl::Decimal::parse(std::to_string(u)));
    }
    return Value(static_cast<long long>(u));
}
}  // namespace

Value::Value(unsigned long v) : Value(fromUnsigned(v)) {}

Value::Value(unsigned long long v) : Value(fromUnsigned(v)) {}

Value::Value(std::shared_ptr<Array> a) {
    if (a) {
        new (&u_.array) std::shared_ptr<Array>(std::move(a));
        type_ = Type::Array;
    }
}

Value::Value(std::shared_ptr<Dictionary> d) {
    if (d) {
        new (&u_.dictionary) std::shared_ptr<Dictionary>(std::move(d));
        type_ = Type::Dictionary;
    }
}

Value::Value(std::shared_ptr<Object> o) {
    if (o) {
        new (&u_.object) std::shared_ptr<Object>(std::move(o));
        type_ = Type::Object;
    }
}

// ---------------------------------------------------------------- containers

DictionaryBuilder::DictionaryBuilder(size_t expected, const ValueArena* arena)
    : dictionary_(arena != nullptr ? std::allocate_shared<Dictionary>(arena->allocator<Dictionary>(),
                                                                       arena->allocator<Dictionary::Entry>())
                                   : std::make_shared<Dictionary>()),
      entries_(&dictionary_.asDictionary()->entries_) {
    entries_->reserve(expected);
}

Value DictionaryBuilder::finish() {
    dictionary_.asDictionary()->adoptEntries();
    return std::move(dictionary_);
}

Value Value::array(std::initializer_list<Value> items) { return Value(std::make_shared<Array>(items)); }

Value Value::array(Array items) { return Value(std::make_shared<Array>(std::move(items))); }

Value Value::arrayWithCapacity(size_t capacity, const ValueArena* arena) {
    auto a = arena != nullptr ? std::allocate_shared<Array>(arena->allocator<Array>(), arena->allocator<Value>())
                              : std::make_shared<Array>();
    a->reserve(capacity);
    return Value(std::move(a));
}

Value Value::dictionary(std::initializer_list<std::pair<std::string, Value>> items) {
    return Value(std::make_shared<Dictionary>(items));
}

Value Value::dictionary(std::vector<std::pair<std::string, Value>> entries) {
    return Value(std::make_shared<Dictionary>(std::move(entries)));
}

namespace {

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
    detail::civilFromDays(days, y, m, d);
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

int64_t Value::integerValue() const {
    switch (type()) {
    case Type::Boolean: return u_.boolean ? 1 : 0;
    case Type::Integer: return u_.integer;
    case Type::Real: return saturatingFromDouble(u_.real);
    case Type::Decimal: return u_.decimal.toInt64();
    case Type::String: return integerFromString(u_.string);
    default: return 0;
    }
}

int32_t Value::intValue() const { return static_cast<int32_t>(integerValue()); }

bool Value::boolValue() const {
    switch (type()) {
    case Type::Boolean: return u_.boolean;
    case Type::Integer: return u_.integer != 0;
    case Type::Real: return u_.real != 0.0;
    case Type::Decimal: return !u_.decimal.isZero();
    case Type::String: return boolFromString(u_.string);
    default: return false;
    }
}

double Value::doubleValue() const {
    switch (type()) {
    case Type::Boolean: return u_.boolean ? 1.0 : 0.0;
    case Type::Integer: return static_cast<double>(u_.integer);
    case Type::Real: return u_.real;
    case Type::Decimal: return u_.decimal.toDouble();
    case Type::String: return doubleFromString(u_.string);
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
    if (type_ == Type::Dictionary) return u_.dictionary->get(key);
    return Value();
}

Value Value::operator[](size_t index) const {
    if (type_ == Type::Array && index < u_.array->size()) return (*u_.array)[index];
    return Value();
}

Value Value::deepCopy() const {
    switch (type()) {
    case Type::Array: {
        const Array& src = *u_.array;
        Array copy;
        copy.reserve(src.size());
        for (const Value& item : src) copy.push_back(item.deepCopy());
        return Value::array(std::move(copy));
    }
    case Type::Dictionary: {
        const Dictionary& src = *u_.dictionary;
        DictionaryBuilder copy(src.size());
        for (const auto& [key, value] : src) copy.append(key) = value.deepCopy();
        return copy.finish();
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
