#include "qrl/net/QRLJsonParser.h"

#include <cstdio>
#include <cstring>
#include <iterator>
#include <limits>

#include "qrl/net/JsonText.h"

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
    if (!present || !jsontext::isValidUTF8(text, length)) {
        addErrorWithCode(kQRLJsonErrorNoInput, "Input was 'nil'");
        return Value();
    }
    resetNesting();
    c_ = text;
    end_ = text + length;
    failed_ = false;
    elements_.clear();
    members_.clear();
    Value value = scanValue();
    releaseScratch();
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

// The scratch stacks keep their room for the next document, unless a very
// large one made them grow.
void QRLJsonParser::releaseScratch() {
    constexpr size_t kKept = 4096;
    elements_.clear();
    members_.clear();
    if (elements_.capacity() > kKept) std::vector<Value>().swap(elements_);
    if (members_.capacity() > kKept) std::vector<std::pair<std::string, Value>>().swap(members_);
}

Value QRLJsonParser::fail(uint64_t code, std::string description) {
    addErrorWithCode(code, std::move(description));
    failed_ = true;
    return Value();
}

Value QRLJsonParser::failInArray(size_t mark, uint64_t code, const char* description) {
    elements_.erase(elements_.begin() + static_cast<std::ptrdiff_t>(mark), elements_.end());
    return fail(code, description);
}

Value QRLJsonParser::failInDictionary(size_t mark, uint64_t code, const char* description, const std::string* key) {
    std::string text = description;
    if (key != nullptr) text += *key;
    members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(mark), members_.end());
    return fail(code, std::move(text));
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

Value QRLJsonParser::scanValue() {
    skipWhitespace();
    if (c_ == end_) return fail(kQRLJsonErrorEndOfInput, "Unexpected end of string");
    switch (*c_++) {
        case '"':
            return scanStringValue();
        case '[':
            return scanRestOfArray();
        case '{':
            return scanRestOfDictionary();
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

// Kept apart from scanValue so that the string's storage is not part of
// every nesting level's stack frame.
Value QRLJsonParser::scanStringValue() {
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

Value QRLJsonParser::scanRestOfArray() {
    if (!enterContainer()) {
        failed_ = true;
        return Value();
    }
    const size_t mark = elements_.size();
    auto failHere = [&](uint64_t code, const char* description) { return failInArray(mark, code, description); };
    while (c_ < end_) {
        skipWhitespace();
        if (c_ < end_ && *c_ == ']') {
            ++c_;
            leaveContainer();
            return finishArray(mark);
        }
        // Nested arrays grow elements_ while the value is read, so it is
        // read whole before it goes in.
        Value element = scanValue();
        if (failed_) return failHere(kQRLJsonErrorSyntax, "Expected value while parsing array");
        elements_.push_back(std::move(element));
        skipWhitespace();
        if (c_ < end_ && *c_ == ',') {
            ++c_;
            skipWhitespace();
            if (c_ < end_ && *c_ == ']') {
                return failHere(kQRLJsonErrorTrailingComma, "Trailing comma disallowed in array");
            }
        }
    }
    return failHere(kQRLJsonErrorEndOfInput, "End of input while parsing array");
}

Value QRLJsonParser::finishArray(size_t mark) {
    const auto first = elements_.begin() + static_cast<std::ptrdiff_t>(mark);
    auto items = std::make_shared<Array>(std::make_move_iterator(first), std::make_move_iterator(elements_.end()));
    elements_.erase(first, elements_.end());
    return Value(std::move(items));
}

Value QRLJsonParser::finishDictionary(size_t mark) {
    auto dictionary = std::make_shared<Dictionary>();
    dictionary->reserve(members_.size() - mark);
    // A repeated key overwrites the value and keeps its first place.
    for (size_t i = mark; i < members_.size(); ++i) {
        dictionary->set(std::move(members_[i].first), std::move(members_[i].second));
    }
    members_.erase(members_.begin() + static_cast<std::ptrdiff_t>(mark), members_.end());
    return Value(std::move(dictionary));
}

Value QRLJsonParser::scanRestOfDictionary() {
    if (!enterContainer()) {
        failed_ = true;
        return Value();
    }
    const size_t mark = members_.size();
    auto failHere = [&](uint64_t code, const char* description) {
        return failInDictionary(mark, code, description, nullptr);
    };
    while (c_ < end_) {
        skipWhitespace();
        if (c_ < end_ && *c_ == '}') {
            ++c_;
            leaveContainer();
            return finishDictionary(mark);
        }
        if (c_ == end_ || *c_ != '"') return failHere(kQRLJsonErrorSyntax, "Object key string expected");
        ++c_;
        // The key is read in place; nested objects may move members_ while
        // the value is read, so the value goes in by position afterwards.
        const size_t slot = members_.size();
        members_.emplace_back();
        if (!scanRestOfString(members_[slot].first)) return failHere(kQRLJsonErrorSyntax, "Object key string expected");
        skipWhitespace();
        if (c_ == end_ || *c_ != ':') return failHere(kQRLJsonErrorSyntax, "Expected ':' separating key and value");
        ++c_;
        Value value = scanValue();
        if (failed_) return failInDictionary(mark, kQRLJsonErrorSyntax, "Object value expected for key: ", &members_[slot].first);
        members_[slot].second = std::move(value);
        skipWhitespace();
        if (c_ < end_ && *c_ == ',') {
            ++c_;
            skipWhitespace();
            if (c_ < end_ && *c_ == '}') return failHere(kQRLJsonErrorTrailingComma, "Trailing comma disallowed in object");
        }
    }
    return failHere(kQRLJsonErrorEndOfInput, "End of input while parsing object");
}

// Called with the cursor just past the opening quote. The text is known to
// be valid UTF-8, so plain runs are copied as they stand.
bool QRLJsonParser::scanRestOfString(std::string& out) {
    const char* span = jsontext::findStringSpecial(c_, end_);
    if (span != c_ && span < end_ && *span == '"') {
        out.assign(c_, span);
        c_ = span + 1;
        return true;
    }
    out.clear();
    for (;;) {
        span = jsontext::findStringSpecial(c_, end_);
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

// The integer part is accumulated while it is scanned, in unsigned 64-bit
// arithmetic, which is exact for up to 19 digits; the overflow test of the
// 64-bit signed value is then one comparison, and longer runs always
// overflow.
Value QRLJsonParser::scanNumber() {
    const char* const start = c_;
    bool negative = false;
    bool simple = true;
    if (c_ < end_ && *c_ == '-') {
        negative = true;
        ++c_;
    }
    const char* const digits = c_;
    uint64_t magnitude = 0;
    if (c_ < end_ && *c_ == '0') {
        ++c_;
        if (c_ < end_ && isDigit(*c_)) return fail(kQRLJsonErrorBadNumber, "Leading 0 disallowed in number");
    } else {
        if (negative && (c_ == end_ || !isDigit(*c_))) {
            return fail(kQRLJsonErrorBadNumber, "No digits after initial minus");
        }
        while (c_ < end_ && isDigit(*c_)) magnitude = magnitude * 10 + static_cast<uint64_t>(*c_++ - '0');
    }
    const size_t count = static_cast<size_t>(c_ - digits);
    if (c_ < end_ && *c_ == '.') {
        ++c_;
        if (c_ == end_ || !isDigit(*c_)) return fail(kQRLJsonErrorBadNumber, "No digits after decimal point");
        while (c_ < end_ && isDigit(*c_)) ++c_;
        simple = false;
    }
    if (c_ < end_ && (*c_ == 'e' || *c_ == 'E')) {
        ++c_;
        if (c_ < end_ && (*c_ == '+' || *c_ == '-')) ++c_;
        if (c_ == end_ || !isDigit(*c_)) return fail(kQRLJsonErrorBadNumber, "No digits after exponent");
        while (c_ < end_ && isDigit(*c_)) ++c_;
        simple = false;
    }

    constexpr auto kMax = static_cast<uint64_t>(std::numeric_limits<int64_t>::max());
    if (simple && count <= 19 && magnitude <= kMax) {
        const auto value = static_cast<int64_t>(magnitude);
        return Value(negative ? -value : value);
    }
    auto decimal = Decimal::parse(std::string_view(start, static_cast<size_t>(c_ - start)));
    if (!decimal) return fail(kQRLJsonErrorBadNumber, "Failed creating decimal instance");
    return Value(*decimal);
}

}  // namespace qrl
