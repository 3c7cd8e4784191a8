#include "qrl/net/QRLJsonParser.h"

#include <algorithm>
#include <bit>
#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>
#include <optional>
#include <span>
#include <tuple>
#include <utility>

#include "qrl/net/JsonText.h"
#include "qrl/foundation/Utf8.h"

namespace qrl {

namespace {

// Blank, tab, line feed, vertical tab, form feed, carriage return; nothing
// else, whatever the locale says.
struct WhitespaceTable {
    bool space[256] = {};
    constexpr WhitespaceTable() {
        space[static_cast<unsigned char>(' ')] = true;
        space[static_cast<unsigned char>('\t')] = true;
        space[static_cast<unsigned char>('\n')] = true;
        space[static_cast<unsigned char>('\v')] = true;
        space[static_cast<unsigned char>('\f')] = true;
        space[static_cast<unsigned char>('\r')] = true;
    }
};
constexpr WhitespaceTable kWhitespace;

inline bool isDigit(char ch) { return static_cast<unsigned char>(ch - '0') < 10; }

// Eight ASCII digits, first digit in the lowest byte (a little-endian load):
// their value, by pairing neighbours into two-digit then four-digit groups.
inline uint32_t eightDigitsValue(uint64_t bytes) {
    bytes -= 0x3030303030303030ull;
    bytes = bytes * 10 + (bytes >> 8);  // even bytes: two-digit groups
    constexpr uint64_t kMask = 0x000000FF000000FFull;
    const uint64_t high = (bytes & kMask) * (100 + (1000000ull << 32));
    const uint64_t low = ((bytes >> 16) & kMask) * (1 + (10000ull << 32));
    return static_cast<uint32_t>((high + low) >> 32);
}

constexpr uint64_t kPowersOfTen[8] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000};

// Adds the run of digits at p to value (wrapping past 20 digits, when the
// caller no longer uses it) and answers its end. Eight bytes are looked at
// at once: the top bit of each byte of `flags` marks a byte that is no digit
// (above '9' by the addition, below '0' by the subtraction; a carry or
// borrow only ever reaches bytes after one that is marked already).
inline const char* accumulateDigits(const char* p, const char* end, uint64_t& value) {
    if constexpr (std::endian::native == std::endian::little) {
        while (end - p >= 8) {
            uint64_t bytes;
            std::memcpy(&bytes, p, 8);
            const uint64_t flags =
                ((bytes + 0x4646464646464646ull) | (bytes - 0x3030303030303030ull)) & 0x8080808080808080ull;
            if (flags == 0) {
                value = value * 100000000u + eightDigitsValue(bytes);
                p += 8;
                continue;
            }
            const int count = __builtin_ctzll(flags) >> 3;  // digits before the first other byte
            if (count > 0) {
                // The digits move to the top, '0's fill in below them.
                const uint64_t padded = (bytes << (8 * (8 - count))) | (0x3030303030303030ull >> (8 * count));
                value = value * kPowersOfTen[count] + eightDigitsValue(padded);
            }
            return p + count;
        }
    }
    while (p < end && isDigit(*p)) value = value * 10 + static_cast<uint64_t>(*p++ - '0');
    return p;
}

std::string hexMessage(const char* prefix, unsigned value) {
    char buffer[96];
    std::snprintf(buffer, sizeof buffer, "%s '0x%x'", prefix, value);
    return buffer;
}

}  // namespace

Value QRLJsonParser::objectWithString(std::string_view text) { return parse(text.data(), text.size(), true); }

Value QRLJsonParser::objectWithString(const char* text) {
    return parse(text, text != nullptr ? std::strlen(text) : 0, text != nullptr);
}

Value QRLJsonParser::objectWithString(std::string_view text, std::shared_ptr<Error>* error) {
    Value result = objectWithString(text);
    if (result.isNull()) storeLastError(error);
    return result;
}

Value QRLJsonParser::objectWithString(const char* text, std::shared_ptr<Error>* error) {
    Value result = objectWithString(text);
    if (result.isNull()) storeLastError(error);
    return result;
}

Value QRLJsonParser::parse(const char* text, size_t length, bool present) {
    clearErrorTrace();
    if (!present || !isValidUtf8(std::string_view(text, length))) {
        addErrorWithCode(kQRLJsonErrorNoInput, "Input was 'nil'");
        return Value();
    }
    resetNesting();
    c_ = text;
    end_ = text + length;
    failed_ = false;
    arrays_.clear();
    objects_.clear();
    frames_.clear();
    Value value;
    {
        // The containers of a document of some size are carved from shared
        // blocks; what they allocate once it is handed out comes from the
        // heap. A small one (a preferences file, a message) would keep a
        // whole block for as long as any part of it is kept, for little
        // gain: its containers come from the heap.
        std::optional<ValueArena> arena;
        if (length >= kSmallestCarvedText) arena_ = &arena.emplace();
        value = scanDocument();
        releaseScratch();
        arena_ = nullptr;
    }
    if (failed_) return Value();
    if (!scanIsAtEnd()) {
        addErrorWithCode(kQRLJsonErrorGarbage, "Garbage after JSON");
        return Value();
    }
    if (!value.isArray() && !value.isDictionary()) {
        addErrorWithCode(kQRLJsonErrorNotContainer, "Valid fragment, but not JSON");
        return Value();
    }
    return value;
}

// The stacks keep their room for the next document, unless a very deep one
// made them grow.
void QRLJsonParser::releaseScratch() {
    constexpr size_t kKept = 256;
    arrays_.clear();
    objects_.clear();
    frames_.clear();
    if (arrays_.capacity() > kKept) std::vector<Value>().swap(arrays_);
    if (objects_.capacity() > kKept) std::vector<DictionaryBuilder>().swap(objects_);
    if (frames_.capacity() > kKept) std::vector<Frame>().swap(frames_);
}

Value QRLJsonParser::fail(uint64_t code, std::string description) {
    addErrorWithCode(code, std::move(description));
    failed_ = true;
    return Value();
}

// A failure while a value was read: every open container adds its own
// error, innermost first, and drops what it had collected.
Value QRLJsonParser::failInValue() {
    failed_ = true;
    while (!frames_.empty()) {
        const Frame frame = frames_.back();
        frames_.pop_back();
        if (frame.dictionary) {
            std::string text = "Object value expected for key: ";
            text += objects_.back().lastKey();
            objects_.pop_back();
            addErrorWithCode(kQRLJsonErrorSyntax, std::move(text));
        } else {
            arrays_.pop_back();
            addErrorWithCode(kQRLJsonErrorSyntax, "Expected value while parsing array");
        }
    }
    return Value();
}

// A failure of the innermost container itself (its punctuation or its end):
// its error comes first, then the enclosing containers' as above.
Value QRLJsonParser::failInContainer(uint64_t code, const char* description) {
    const Frame frame = frames_.back();
    frames_.pop_back();
    if (frame.dictionary) objects_.pop_back();
    else arrays_.pop_back();
    addErrorWithCode(code, description);
    return failInValue();
}

// Most places have no white space at all: that case stays inline.
inline __attribute__((always_inline)) void QRLJsonParser::skipWhitespace() {
    if (c_ < end_ && !kWhitespace.space[static_cast<unsigned char>(*c_)]) return;
    while (c_ < end_ && kWhitespace.space[static_cast<unsigned char>(*c_)]) ++c_;
}

bool QRLJsonParser::scanIsAtEnd() {
    skipWhitespace();
    return c_ == end_;
}

// A value that is no container, at the cursor (not at the end).
Value QRLJsonParser::scanScalar() {
    switch (*c_++) {
        case '"':
            return scanStringValue();
        case 't':
            return scanRestOfTrue();
        case 'f':
            return scanRestOfFalse();
        case 'n':
            return scanRestOfNull();
        case '-':
        case '0':
        case '1':
        case '2':
        case '3':
        case '4':
        case '5':
        case '6':
        case '7':
        case '8':
        case '9':
            --c_;
            return scanNumber();
        case '+':
            return fail(kQRLJsonErrorBadNumber, "Leading + disallowed in number");
        default:
            return fail(kQRLJsonErrorSyntax, "Unrecognised leading character");
    }
}

// The document is read in one loop over an explicit stack of open
// containers rather than by recursion: each value goes straight into the
// container it belongs to, and nesting costs no machine stack. Containers
// are made when they open, with the room the last one at their depth
// needed. The states follow the grammar: a value is expected; an array or
// an object is at the top of its loop (before an element, a key or its
// end); or a value of one was just read (before a comma).
Value QRLJsonParser::scanDocument() {
    enum class State { Value, ArrayNext, ArrayAfterValue, ObjectNext, ObjectAfterValue };
    Value top;
    State state = State::Value;
    // Hands a finished value to the container it belongs to, or keeps it as
    // the document's; says where reading goes on.
    auto deliver = [&](Value&& value) {
        if (frames_.empty()) {
            top = std::move(value);
            return false;
        }
        if (frames_.back().dictionary) {
            *frames_.back().member = std::move(value);
            state = State::ObjectAfterValue;
        } else {
            frames_.back().array->push_back(std::move(value));
            state = State::ArrayAfterValue;
        }
        return true;
    };
    for (;;) {
        switch (state) {
            case State::Value: {
                skipWhitespace();
                if (c_ == end_) {
                    addErrorWithCode(kQRLJsonErrorEndOfInput, "Unexpected end of string");
                    return failInValue();
                }
                if (*c_ == '[') {
                    ++c_;
                    if (!enterContainer()) return failInValue();
                    arrays_.push_back(Value::arrayWithCapacity(expectedSize(false), arena_));
                    frames_.push_back(Frame{arrays_.back().asArray().get(), nullptr, false});
                    state = State::ArrayNext;
                    break;
                }
                if (*c_ == '{') {
                    ++c_;
                    if (!enterContainer()) return failInValue();
                    objects_.emplace_back(expectedSize(true), arena_);
                    frames_.push_back(Frame{nullptr, nullptr, true});
                    state = State::ObjectNext;
                    break;
                }
                Value value = scanScalar();
                if (failed_) return failInValue();
                if (!deliver(std::move(value))) return top;
                break;
            }
            case State::ArrayNext:
                if (c_ == end_) return failInContainer(kQRLJsonErrorEndOfInput, "End of input while parsing array");
                skipWhitespace();
                if (c_ < end_ && *c_ == ']') {
                    ++c_;
                    leaveContainer();
                    if (!deliver(finishArray())) return top;
                    break;
                }
                state = State::Value;
                break;
            case State::ArrayAfterValue:
                skipWhitespace();
                if (c_ < end_ && *c_ == ',') {
                    ++c_;
                    skipWhitespace();
                    if (c_ < end_ && *c_ == ']') {
                        return failInContainer(kQRLJsonErrorTrailingComma, "Trailing comma disallowed in array");
                    }
                }
                state = State::ArrayNext;
                break;
            case State::ObjectNext: {
                if (c_ == end_) return failInContainer(kQRLJsonErrorEndOfInput, "End of input while parsing object");
                skipWhitespace();
                if (c_ < end_ && *c_ == '}') {
                    ++c_;
                    leaveContainer();
                    if (!deliver(finishDictionary())) return top;
                    break;
                }
                if (c_ == end_ || *c_ != '"') return failInContainer(kQRLJsonErrorSyntax, "Object key string expected");
                ++c_;
                // The key goes in with a null value, which the member's value
                // replaces once it is read.
                const char* const quote = jsontext::findStringSpecial(c_, end_);
                if (quote < end_ && *quote == '"') {
                    frames_.back().member = &objects_.back().append(std::string_view(c_, static_cast<size_t>(quote - c_)));
                    c_ = quote + 1;
                } else {
                    std::string key;
                    if (!scanRestOfString(key)) return failInContainer(kQRLJsonErrorSyntax, "Object key string expected");
                    frames_.back().member = &objects_.back().append(std::move(key));
                }
                skipWhitespace();
                if (c_ == end_ || *c_ != ':') {
                    return failInContainer(kQRLJsonErrorSyntax, "Expected ':' separating key and value");
                }
                ++c_;
                state = State::Value;
                break;
            }
            case State::ObjectAfterValue:
                skipWhitespace();
                if (c_ < end_ && *c_ == ',') {
                    ++c_;
                    skipWhitespace();
                    if (c_ < end_ && *c_ == '}') {
                        return failInContainer(kQRLJsonErrorTrailingComma, "Trailing comma disallowed in object");
                    }
                }
                state = State::ObjectNext;
                break;
        }
    }
}

Value QRLJsonParser::scanStringValue() {
    const char* const quote = jsontext::findStringSpecial(c_, end_);
    if (quote < end_ && *quote == '"') {  // nothing to decode: made in place
        Value value(std::string_view(c_, static_cast<size_t>(quote - c_)));
        c_ = quote + 1;
        return value;
    }
    std::string text;
    if (!scanRestOfString(text)) {
        failed_ = true;
        return Value();
    }
    return Value(std::move(text));
}

bool QRLJsonParser::scanLiteralRest(std::string_view rest) {
    if (static_cast<size_t>(end_ - c_) < rest.size() || std::memcmp(c_, rest.data(), rest.size()) != 0) return false;
    c_ += rest.size();
    return true;
}

Value QRLJsonParser::scanRestOfTrue() {
    if (!scanLiteralRest("rue")) return fail(kQRLJsonErrorSyntax, "Expected 'true'");
    return Value(true);
}

Value QRLJsonParser::scanRestOfFalse() {
    if (!scanLiteralRest("alse")) return fail(kQRLJsonErrorSyntax, "Expected 'false'");
    return Value(false);
}

Value QRLJsonParser::scanRestOfNull() {
    if (!scanLiteralRest("ull")) return fail(kQRLJsonErrorSyntax, "Expected 'null'");
    return Value();
}

// The innermost container is complete, and its frame goes. An array that
// was given far more room than it took (a guess gone wrong) is cut down.
Value QRLJsonParser::finishArray() {
    Array& array = *frames_.back().array;
    noteSize(false, array.size());
    if (array.capacity() > 2 * array.size() + 16) array.shrink_to_fit();
    Value value = std::move(arrays_.back());
    arrays_.pop_back();
    frames_.pop_back();
    return value;
}

// A repeated key overwrites the value and keeps its first place.
Value QRLJsonParser::finishDictionary() {
    noteSize(true, objects_.back().size());
    Value dictionary = objects_.back().finish();
    objects_.pop_back();
    frames_.pop_back();
    return dictionary;
}

// Containers at one depth of a document tend to have the same number of
// elements: the last one's is the guess for the next one's room.
size_t QRLJsonParser::expectedSize(bool dictionary) const {
    const size_t depth = frames_.size();
    if (depth >= expectedSizes_.size()) return 0;
    return dictionary ? expectedSizes_[depth].dictionary : expectedSizes_[depth].array;
}

void QRLJsonParser::noteSize(bool dictionary, size_t size) {
    const size_t depth = frames_.size() - 1;
    if (depth >= expectedSizes_.size()) expectedSizes_.resize(depth + 1);
    const auto guess = static_cast<uint32_t>(std::min<size_t>(size, kLargestGuess));
    if (dictionary) expectedSizes_[depth].dictionary = guess;
    else expectedSizes_[depth].array = guess;
}

// Called with the cursor just past the opening quote. The text is known to
// be valid UTF-8, so plain runs are copied as they stand.
bool QRLJsonParser::scanRestOfString(std::string& out) {
    out.clear();
    for (;;) {
        const char* const span = jsontext::findStringSpecial(c_, end_);
        out.append(c_, span);
        c_ = span;
        if (c_ == end_) break;
        const auto ch = static_cast<unsigned char>(*c_);
        if (ch == '"') {
            ++c_;
            return true;
        }
        if (ch == '\\') {
            ++c_;
            if (c_ == end_) break;
            const auto escaped = static_cast<unsigned char>(*c_++);
            switch (escaped) {
                case '"':
                case '/':
                case '\\':
                    out.push_back(static_cast<char>(escaped));
                    break;
                case 'b':
                    out.push_back('\b');
                    break;
                case 'f':
                    out.push_back('\f');
                    break;
                case 'n':
                    out.push_back('\n');
                    break;
                case 'r':
                    out.push_back('\r');
                    break;
                case 't':
                    out.push_back('\t');
                    break;
                case 'u': {
                    uint16_t unit = 0;
                    if (!scanUnicodeChar(unit)) {
                        addErrorWithCode(kQRLJsonErrorBadUnicode, "Broken unicode character");
                        return false;
                    }
                    jsontext::appendUTF16Unit(out, unit);
                    break;
                }
                default:
                    addErrorWithCode(kQRLJsonErrorBadEscape, hexMessage("Illegal escape sequence", escaped));
                    return false;
            }
        } else {
            addErrorWithCode(kQRLJsonErrorControlCharacter, hexMessage("Unescaped control character", ch));
            return false;
        }
        if (c_ == end_) break;
    }
    addErrorWithCode(kQRLJsonErrorEndOfInput, "Unexpected EOF while parsing string");
    return false;
}

bool QRLJsonParser::scanHexQuad(uint16_t& out) {
    uint16_t value = 0;
    for (int i = 0; i < 4; ++i) {
        if (c_ == end_) {
            addErrorWithCode(kQRLJsonErrorBadUnicode, "Missing hex digit in quad");
            return false;
        }
        const char ch = *c_;
        unsigned digit;
        if (ch >= '0' && ch <= '9') {
            digit = static_cast<unsigned>(ch - '0');
        } else if (ch >= 'a' && ch <= 'f') {
            digit = static_cast<unsigned>(ch - 'a' + 10);
        } else if (ch >= 'A' && ch <= 'F') {
            digit = static_cast<unsigned>(ch - 'A' + 10);
        } else {
            addErrorWithCode(kQRLJsonErrorBadUnicode, "Missing hex digit in quad");
            return false;
        }
        ++c_;
        value = static_cast<uint16_t>(value * 16 + digit);
    }
    out = value;
    return true;
}

// A high surrogate and its low partner fold into one 16-bit character,
// hi * 1024 + (lo - 0xDC00) cut to 16 bits, as this reader always has.
bool QRLJsonParser::scanUnicodeChar(uint16_t& out) {
    uint16_t hi = 0;
    if (!scanHexQuad(hi)) {
        addErrorWithCode(kQRLJsonErrorBadUnicode, "Missing hex quad");
        return false;
    }
    if (hi >= 0xD800 && hi < 0xDC00) {
        uint16_t lo = 0;
        bool haveLow = end_ - c_ >= 2 && c_[0] == '\\' && c_[1] == 'u';
        if (haveLow) {
            c_ += 2;
            haveLow = scanHexQuad(lo);
        }
        if (!haveLow) {
            addErrorWithCode(kQRLJsonErrorBadUnicode, "Missing low character in surrogate pair");
            return false;
        }
        const auto offset = static_cast<uint16_t>(lo - 0xDC00);
        if (offset >= 1023) {
            addErrorWithCode(kQRLJsonErrorBadUnicode, "Invalid low surrogate char");
            return false;
        }
        out = static_cast<uint16_t>(hi * 1024u + offset);
        return true;
    }
    if (hi >= 0xDC00 && hi < 0xE000) {
        addErrorWithCode(kQRLJsonErrorBadUnicode, "Invalid high character in surrogate pair");
        return false;
    }
    out = hi;
    return true;
}

// The digits of the integer and fraction parts are accumulated while they
// are scanned, in unsigned 64-bit arithmetic, which is exact for up to 19
// digits: an integer is then range-checked with one comparison, and a real
// of up to 19 digits goes to Decimal without being read a second time.
// Longer runs are handed to Decimal::parse whole.
Value QRLJsonParser::scanNumber() {
    const char* const start = c_;
    const char* p = c_;
    const bool negative = *p == '-';  // the caller saw '-' or a digit here
    if (negative) ++p;
    const char* const digits = p;
    uint64_t significand = 0;
    if (p < end_ && *p == '0') {
        ++p;
        if (p < end_ && isDigit(*p)) return failNumber(p, "Leading 0 disallowed in number");
    } else {
        if (p == end_ || !isDigit(*p)) return failNumber(p, "No digits after initial minus");
        p = accumulateDigits(p, end_, significand);
    }
    const auto integerDigits = static_cast<size_t>(p - digits);

    constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (p == end_ || (*p != '.' && *p != 'e' && *p != 'E')) {
        if (integerDigits <= 19 && significand <= kMax) {
            c_ = p;
            const auto value = static_cast<int64_t>(significand);
            return Value(negative ? -value : value);
        }
    }
    size_t fractionDigits = 0;
    if (p < end_ && *p == '.') {
        ++p;
        if (p == end_ || !isDigit(*p)) return failNumber(p, "No digits after decimal point");
        const char* const fraction = p;
        p = accumulateDigits(p, end_, significand);
        fractionDigits = static_cast<size_t>(p - fraction);
    }
    int64_t exponent = 0;
    if (p < end_ && (*p == 'e' || *p == 'E')) {
        ++p;
        bool exponentNegative = false;
        if (p < end_ && (*p == '+' || *p == '-')) exponentNegative = *p++ == '-';
        if (p == end_ || !isDigit(*p)) return failNumber(p, "No digits after exponent");
        while (p < end_ && isDigit(*p)) {
            // Saturates far beyond any exponent a decimal can reach.
            if (exponent < 1'000'000'000'000LL) exponent = exponent * 10 + (*p - '0');
            ++p;
        }
        if (exponentNegative) exponent = -exponent;
    }
    c_ = p;

    const std::optional<Decimal> decimal =
        integerDigits + fractionDigits <= 19
            ? Decimal::fromParts(significand, exponent - static_cast<int64_t>(fractionDigits), negative)
            : Decimal::parse(std::string_view(start, static_cast<size_t>(p - start)));
    if (!decimal) return fail(kQRLJsonErrorBadNumber, "Failed creating decimal instance");
    return Value(*decimal);
}

Value QRLJsonParser::failNumber(const char* at, const char* description) {
    c_ = at;
    return fail(kQRLJsonErrorBadNumber, description);
}

}  // namespace qrl
