#include "qrl/foundation/Format.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>

#include "qrl/foundation/Value.h"
#include "qrl/foundation/Utf8.h"

namespace qrl {

const void* FormatArg::pointer() const {
    switch (kind_) {
    case Kind::Pointer: return u_.p;
    case Kind::CString: return u_.cs;
    case Kind::Object: return u_.o.p;
    default: return nullptr;
    }
}

namespace {

constexpr int kMaxWidth = 1'000'000;

enum class Length : uint8_t { None, HH, H, L, LL, BigL, J, Z, T };

struct Directive {
    bool left = false, plus = false, space = false, alt = false, zero = false;
    int width = 0;
    int precision = -1;  // -1: none
    Length length = Length::None;
    char conv = 0;
};

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Reads decimal digits at fmt[i]; false when the number exceeds limit (the
// digits are consumed all the same).
bool readNumber(std::string_view fmt, size_t& i, int& value, int limit) {
    long long v = 0;
    bool ok = true;
    while (i < fmt.size() && isDigit(fmt[i])) {
        if (v <= limit) v = v * 10 + (fmt[i] - '0');
        ++i;
    }
    if (v > limit) ok = false;
    value = ok ? static_cast<int>(v) : 0;
    return ok;
}

void pad(std::string& out, int count, char c) {
    if (count > 0) out.append(static_cast<size_t>(count), c);
}

size_t utf8Length(std::string_view s) {
    size_t n = 0;
    for (char c : s) n += (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    return n;
}

// The longest prefix of at most `chars` whole UTF-8 characters.
std::string_view utf8Prefix(std::string_view s, size_t chars) {
    size_t seen = 0;
    for (size_t i = 0; i < s.size(); ++i) {
        if ((static_cast<unsigned char>(s[i]) & 0xC0) != 0x80) {
            if (seen == chars) return s.substr(0, i);
            ++seen;
        }
    }
    return s;
}

// Text with width and precision, counted in characters.
void appendText(std::string& out, const Directive& dir, std::string_view text) {
    if (dir.precision >= 0) text = utf8Prefix(text, static_cast<size_t>(dir.precision));
    if (dir.width == 0) {
        out.append(text);
        return;
    }
    const int fill = dir.width - static_cast<int>(std::min<size_t>(utf8Length(text), kMaxWidth));
    if (!dir.left) pad(out, fill, ' ');
    out.append(text);
    if (dir.left) pad(out, fill, ' ');
}

template <class F>
void appendShortest(std::string& out, F v) {
    char buf[64];
    out.append(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
}

void appendHexAddress(std::string& out, const void* p) {
    char buf[24] = "0x";
    out.append(buf, std::to_chars(buf + 2, buf + sizeof buf, reinterpret_cast<uintptr_t>(p), 16).ptr);
}

// ------------------------------------------------------------ markers

const char* valueTypeName(const Value& v) {
    switch (v.type()) {
    case Value::Type::Null: return "null";
    case Value::Type::Boolean: return "bool";
    case Value::Type::Integer: return "int";
    case Value::Type::Real: return "double";
    case Value::Type::Decimal: return "decimal";
    case Value::Type::String: return "string";
    case Value::Type::Data: return "data";
    case Value::Type::Date: return "date";
    case Value::Type::Array: return "array";
    case Value::Type::Dictionary: return "dictionary";
    case Value::Type::Object: return "object";
    }
    return "value";
}

void appendArgumentText(std::string& out, const FormatArg& a) {
    using K = FormatArg::Kind;
    switch (a.kind()) {
    case K::Bool: out.push_back(a.unsignedValue() ? '1' : '0'); break;
    case K::Signed: {
        char buf[24];
        out.append(buf, std::to_chars(buf, buf + sizeof buf, a.signedValue()).ptr);
        break;
    }
    case K::Unsigned: {
        char buf[24];
        out.append(buf, std::to_chars(buf, buf + sizeof buf, a.unsignedValue()).ptr);
        break;
    }
    case K::Real: appendShortest(out, a.realValue()); break;
    case K::LongReal: appendShortest(out, a.longRealValue()); break;
    case K::CString: out.append(a.cString() ? a.cString() : "(null)"); break;
    case K::String: out.append(a.stringValue()); break;
    case K::Pointer:
        if (a.pointer()) appendHexAddress(out, a.pointer());
        else out.append("(nil)");
        break;
    case K::Object: a.describe(out); break;
    case K::Value: out.append(a.value().description()); break;
    }
}

void appendMismatch(std::string& out, char conv, const FormatArg& a) {
    using K = FormatArg::Kind;
    out.append("%!");
    out.push_back(conv);
    out.push_back('(');
    switch (a.kind()) {
    case K::Bool: out.append("bool"); break;
    case K::Signed: out.append("int"); break;
    case K::Unsigned: out.append("uint"); break;
    case K::Real: out.append("double"); break;
    case K::LongReal: out.append("long double"); break;
    case K::CString:
    case K::String: out.append("string"); break;
    case K::Pointer: out.append("pointer"); break;
    case K::Object: out.append("object"); break;
    case K::Value: out.append(valueTypeName(a.value())); break;
    }
    out.push_back('=');
    appendArgumentText(out, a);
    out.push_back(')');
}

void appendMarker(std::string& out, char conv, const char* what) {
    out.append("%!");
    out.push_back(conv);
    out.push_back('(');
    out.append(what);
    out.push_back(')');
}

// ------------------------------------------------------------ integers

// The argument as 64 bits plus its signedness and size; false when it is no integer.
bool integerOf(const FormatArg& a, uint64_t& bits, bool& isSigned, unsigned& size) {
    using K = FormatArg::Kind;
    switch (a.kind()) {
    case K::Bool:
        bits = a.unsignedValue();
        isSigned = false;
        size = 4;
        return true;
    case K::Signed:
    case K::Unsigned:
        bits = a.unsignedValue();
        isSigned = a.kind() == K::Signed;
        size = a.integerSize();
        return true;
    case K::Value:
        if (auto b = a.value().asBoolean()) {
            bits = *b ? 1 : 0;
            isSigned = false;
            size = 4;
            return true;
        }
        if (auto i = a.value().asInteger()) {
            bits = static_cast<uint64_t>(*i);
            isSigned = true;
            size = 8;
            return true;
        }
        return false;
    default: return false;
    }
}

unsigned lengthBytes(Length length, unsigned argSize) {
    switch (length) {
    case Length::HH: return 1;
    case Length::H: return 2;
    case Length::None: return argSize < 4 ? 4 : argSize;
    default: return 8;
    }
}

// Truncates bits to `bytes` and reads them back signed or unsigned, as
// printf reads an argument of that type.
void narrow(uint64_t bits, unsigned bytes, bool asSigned, uint64_t& magnitude, bool& negative) {
    int64_t s = 0;
    uint64_t u = 0;
    switch (bytes) {
    case 1: s = static_cast<int8_t>(bits); u = static_cast<uint8_t>(bits); break;
    case 2: s = static_cast<int16_t>(bits); u = static_cast<uint16_t>(bits); break;
    case 4: s = static_cast<int32_t>(bits); u = static_cast<uint32_t>(bits); break;
    default: s = static_cast<int64_t>(bits); u = bits; break;
    }
    if (asSigned && s < 0) {
        negative = true;
        magnitude = static_cast<uint64_t>(0) - static_cast<uint64_t>(s);
    } else {
        negative = false;
        magnitude = asSigned ? static_cast<uint64_t>(s) : u;
    }
}

void appendInteger(std::string& out, const Directive& dir, uint64_t magnitude, bool negative, int base, bool upper,
                   bool isSignedConv, bool forcePrefix = false) {
    char digits[72];
    char* d = digits;
    if (!(dir.precision == 0 && magnitude == 0)) {
        d = std::to_chars(digits, digits + sizeof digits, magnitude, base).ptr;
        if (upper)
            for (char* c = digits; c != d; ++c)
                if (*c >= 'a' && *c <= 'f') *c = static_cast<char>(*c - 'a' + 'A');
    }
    int ndigits = static_cast<int>(d - digits);
    int zeros = dir.precision > ndigits ? dir.precision - ndigits : 0;
    char prefix[3] = {};
    int nprefix = 0;
    if (isSignedConv) {
        if (negative) prefix[nprefix++] = '-';
        else if (dir.plus) prefix[nprefix++] = '+';
        else if (dir.space) prefix[nprefix++] = ' ';
    }
    if (base == 8 && dir.alt && zeros == 0 && (ndigits == 0 || digits[0] != '0')) zeros = 1;
    if (base == 16 && ((dir.alt && magnitude != 0) || forcePrefix)) {
        prefix[nprefix++] = '0';
        prefix[nprefix++] = upper ? 'X' : 'x';
    }
    const int body = nprefix + zeros + ndigits;
    const int fill = dir.width - body;
    const bool zeroFill = dir.zero && !dir.left && dir.precision < 0;
    if (!dir.left && !zeroFill) pad(out, fill, ' ');
    out.append(prefix, static_cast<size_t>(nprefix));
    if (zeroFill) pad(out, fill, '0');
    pad(out, zeros, '0');
    out.append(digits, static_cast<size_t>(ndigits));
    if (dir.left) pad(out, fill, ' ');
}

void formatIntegerConversion(std::string& out, const Directive& dir, const FormatArg& a) {
    uint64_t bits;
    bool argSigned;
    unsigned argSize;
    if (!integerOf(a, bits, argSigned, argSize)) {
        appendMismatch(out, dir.conv, a);
        return;
    }
    if (dir.conv == 'c' || dir.conv == 'C') {
        // One character, padded to the width; precision does not apply.
        const int fill = dir.width - 1;
        if (!dir.left) pad(out, fill, ' ');
        if (dir.conv == 'C' || dir.length == Length::L) appendUtf8(out, static_cast<uint32_t>(bits));
        else out.push_back(static_cast<char>(static_cast<unsigned char>(bits)));
        if (dir.left) pad(out, fill, ' ');
        return;
    }
    // bits holds the argument's value in 64-bit two's complement already;
    // the conversion reads it back at the width the length modifier names.
    const bool signedConv = dir.conv == 'd' || dir.conv == 'i';
    uint64_t magnitude;
    bool negative;
    narrow(bits, lengthBytes(dir.length, argSize), signedConv, magnitude, negative);
    switch (dir.conv) {
    case 'o': appendInteger(out, dir, magnitude, false, 8, false, false); break;
    case 'x': appendInteger(out, dir, magnitude, false, 16, false, false); break;
    case 'X': appendInteger(out, dir, magnitude, false, 16, true, false); break;
    case 'u': appendInteger(out, dir, magnitude, false, 10, false, false); break;
    default: appendInteger(out, dir, magnitude, negative, 10, false, true); break;
    }
}

// ------------------------------------------------------------ floating point

template <class F>
void appendFloat(std::string& out, const Directive& dir, F v) {
    const char conv = dir.conv;
    const bool upper = conv == 'F' || conv == 'E' || conv == 'G' || conv == 'A';
    const char lower = static_cast<char>(upper ? conv - 'A' + 'a' : conv);
    const bool negative = std::signbit(v);
    if (negative) v = -v;

    char sign = 0;
    if (negative) sign = '-';
    else if (dir.plus) sign = '+';
    else if (dir.space) sign = ' ';

    if (!std::isfinite(v)) {
        const char* body = std::isnan(v) ? (upper ? "NAN" : "nan") : (upper ? "INF" : "inf");
        const int fill = dir.width - 3 - (sign ? 1 : 0);
        if (!dir.left) pad(out, fill, ' ');
        if (sign) out.push_back(sign);
        out.append(body);
        if (dir.left) pad(out, fill, ' ');
        return;
    }

    const int p = dir.precision;
    // Enough room for every digit the conversion can produce.
    constexpr size_t kIntegerDigits = std::numeric_limits<F>::max_exponent10 + 2;
    const size_t needed = static_cast<size_t>(p < 0 ? 6 : p) + (lower == 'f' ? kIntegerDigits : 0) + 48;
    char stackBuf[512];
    std::string heapBuf;
    char* buf = stackBuf;
    if (needed > sizeof stackBuf) {
        heapBuf.resize(needed);
        buf = heapBuf.data();
    }
    char* end = buf + needed;
    char* e = buf;
    const char* prefix = "";
    bool failed = false;
    auto done = [&failed](std::to_chars_result r) {
        failed = failed || r.ec != std::errc();
        return r.ptr;
    };

    switch (lower) {
    case 'f':
        e = done(std::to_chars(buf, end, v, std::chars_format::fixed, p < 0 ? 6 : p));
        if (failed) break;
        if (dir.alt && (p == 0)) *e++ = '.';
        break;
    case 'e': {
        e = done(std::to_chars(buf, end, v, std::chars_format::scientific, p < 0 ? 6 : p));
        if (failed) break;
        if (dir.alt && p == 0) {
            // "1e+00" -> "1.e+00"
            std::memmove(buf + 2, buf + 1, static_cast<size_t>(e - buf - 1));
            buf[1] = '.';
            ++e;
        }
        break;
    }
    case 'g': {
        const int P = p < 0 ? 6 : (p == 0 ? 1 : p);
        e = done(std::to_chars(buf, end, v, std::chars_format::scientific, P - 1));
        if (failed) break;
        const char* ePos = static_cast<const char*>(std::memchr(buf, 'e', static_cast<size_t>(e - buf)));
        int x = 0;
        std::from_chars(ePos + (ePos[1] == '+' ? 2 : 1), e, x);
        const bool fixed = P > x && x >= -4;
        if (fixed) e = done(std::to_chars(buf, end, v, std::chars_format::fixed, P - 1 - x));
        if (failed) break;
        char* mantEnd = fixed ? e : buf + (ePos - buf);
        char* dot = static_cast<char*>(std::memchr(buf, '.', static_cast<size_t>(mantEnd - buf)));
        if (!dir.alt) {
            if (dot) {
                char* t = mantEnd;
                while (t > dot + 1 && t[-1] == '0') --t;
                if (t == dot + 1) --t;  // drop the point too
                std::memmove(t, mantEnd, static_cast<size_t>(e - mantEnd));
                e -= mantEnd - t;
            }
        } else if (!dot) {
            std::memmove(mantEnd + 1, mantEnd, static_cast<size_t>(e - mantEnd));
            *mantEnd = '.';
            ++e;
        }
        break;
    }
    default: {  // 'a'
        e = done(p < 0 ? std::to_chars(buf, end, v, std::chars_format::hex)
                       : std::to_chars(buf, end, v, std::chars_format::hex, p));
        if (failed) break;
        if (dir.alt && !std::memchr(buf, '.', static_cast<size_t>(e - buf))) {
            char* pPos = static_cast<char*>(std::memchr(buf, 'p', static_cast<size_t>(e - buf)));
            std::memmove(pPos + 1, pPos, static_cast<size_t>(e - pPos));
            *pPos = '.';
            ++e;
        }
        prefix = upper ? "0X" : "0x";
        break;
    }
    }
    if (failed) {  // cannot happen with the room reserved above; never print garbage
        appendMarker(out, conv, "ERROR");
        return;
    }
    if (upper)
        for (char* c = buf; c != e; ++c)
            if (*c >= 'a' && *c <= 'z') *c = static_cast<char>(*c - 'a' + 'A');

    const int nprefix = static_cast<int>(std::strlen(prefix));
    const int body = static_cast<int>(e - buf) + nprefix + (sign ? 1 : 0);
    const int fill = dir.width - body;
    const bool zeroFill = dir.zero && !dir.left;
    if (!dir.left && !zeroFill) pad(out, fill, ' ');
    if (sign) out.push_back(sign);
    out.append(prefix);
    if (zeroFill) pad(out, fill, '0');
    out.append(buf, e);
    if (dir.left) pad(out, fill, ' ');
}

void formatFloatConversion(std::string& out, const Directive& dir, const FormatArg& a) {
    using K = FormatArg::Kind;
    switch (a.kind()) {
    case K::Real: appendFloat(out, dir, a.realValue()); return;
    case K::LongReal: appendFloat(out, dir, a.longRealValue()); return;
    case K::Value:
        if (a.value().isNumber()) {
            appendFloat(out, dir, a.value().doubleValue());
            return;
        }
        break;
    default: break;
    }
    appendMismatch(out, dir.conv, a);
}

// ------------------------------------------------------------ strings, objects, pointers

void formatStringConversion(std::string& out, const Directive& dir, const FormatArg& a) {
    using K = FormatArg::Kind;
    switch (a.kind()) {
    case K::CString: appendText(out, dir, a.cString() ? std::string_view(a.cString()) : "(null)"); return;
    case K::String: appendText(out, dir, a.stringValue()); return;
    case K::Pointer:
        if (!a.pointer()) {
            appendText(out, dir, "(null)");
            return;
        }
        break;
    case K::Value:
        if (const std::string* s = a.value().asString()) {
            appendText(out, dir, *s);
            return;
        }
        break;
    default: break;
    }
    appendMismatch(out, dir.conv, a);
}

void formatObjectConversion(std::string& out, const Directive& dir, const FormatArg& a) {
    using K = FormatArg::Kind;
    switch (a.kind()) {
    case K::CString:
    case K::String: formatStringConversion(out, dir, a); return;
    case K::Pointer:
        if (!a.pointer()) appendText(out, dir, "(null)");
        else appendMismatch(out, dir.conv, a);
        return;
    case K::Value:
        if (const std::string* s = a.value().asString()) {
            appendText(out, dir, *s);
            return;
        }
        break;
    default: break;
    }
    if (dir.width == 0 && dir.precision < 0) {
        appendArgumentText(out, a);
        return;
    }
    std::string text;
    appendArgumentText(text, a);
    appendText(out, dir, text);
}

void formatPointerConversion(std::string& out, const Directive& dir, const FormatArg& a) {
    using K = FormatArg::Kind;
    const bool pointerLike = a.kind() == K::Pointer || a.kind() == K::CString ||
                             (a.kind() == K::Object && a.objectFromPointer());
    if (!pointerLike) {
        appendMismatch(out, dir.conv, a);
        return;
    }
    if (!a.pointer()) {
        Directive s = dir;
        s.precision = -1;
        appendText(out, s, "(nil)");
        return;
    }
    Directive s = dir;
    s.plus = s.space = false;
    appendInteger(out, s, reinterpret_cast<uintptr_t>(a.pointer()), false, 16, false, false, true);
}

// ------------------------------------------------------------ the parser

// Reads "m$" at fmt[i] when present: the 1-based position, or 0 for none.
// Sets bad when the position is 0.
size_t readPosition(std::string_view fmt, size_t& i, bool& bad) {
    size_t k = i;
    while (k < fmt.size() && isDigit(fmt[k])) ++k;
    if (k == i || k >= fmt.size() || fmt[k] != '$') return 0;
    int pos = 0;
    size_t j = i;
    if (!readNumber(fmt, j, pos, std::numeric_limits<int>::max() / 2) || pos == 0) bad = true;
    i = k + 1;
    return bad ? 0 : static_cast<size_t>(pos);
}

// A '*' argument: true with its value when it is an integer.
bool starArgument(std::span<const FormatArg> args, size_t index, long long& value) {
    if (index >= args.size()) return false;
    uint64_t bits;
    bool isSigned;
    unsigned size;
    if (!integerOf(args[index], bits, isSigned, size)) return false;
    if (isSigned) {
        value = static_cast<long long>(static_cast<int64_t>(bits));
    } else {
        if (bits > static_cast<uint64_t>(std::numeric_limits<long long>::max())) return false;
        value = static_cast<long long>(bits);
    }
    return true;
}

size_t utf8SequenceLength(unsigned char lead) {
    if (lead >= 0xF0 && lead < 0xF8) return 4;
    if (lead >= 0xE0 && lead < 0xF0) return 3;
    if (lead >= 0xC0 && lead < 0xE0) return 2;
    return 1;
}

}  // namespace

void vappendFormat(std::string& out, std::string_view fmt, std::span<const FormatArg> args) {
    size_t next = 0;  // next sequential argument
    size_t i = 0;
    const size_t n = fmt.size();
    while (i < n) {
        const void* pct = std::memchr(fmt.data() + i, '%', n - i);
        if (!pct) {
            out.append(fmt.data() + i, n - i);
            return;
        }
        const size_t at = static_cast<size_t>(static_cast<const char*>(pct) - fmt.data());
        out.append(fmt.data() + i, at - i);
        i = at + 1;

        Directive dir;
        bool badIndex = false;
        const size_t position = readPosition(fmt, i, badIndex);

        for (bool more = true; more && i < n;) {
            switch (fmt[i]) {
            case '-': dir.left = true; ++i; break;
            case '+': dir.plus = true; ++i; break;
            case ' ': dir.space = true; ++i; break;
            case '#': dir.alt = true; ++i; break;
            case '0': dir.zero = true; ++i; break;
            case '\'': ++i; break;  // grouping: none in the C locale
            default: more = false; break;
            }
        }

        // Width.
        if (i < n && fmt[i] == '*') {
            ++i;
            bool badStar = false;
            size_t starPos = readPosition(fmt, i, badStar);
            const size_t index = starPos ? starPos - 1 : next++;
            long long w = 0;
            if (badStar || !starArgument(args, index, w) || w > kMaxWidth || w < -kMaxWidth) {
                out.append("%!(BADWIDTH)");
            } else if (w < 0) {
                dir.left = true;
                dir.width = static_cast<int>(-w);
            } else {
                dir.width = static_cast<int>(w);
            }
        } else if (i < n && isDigit(fmt[i])) {
            if (!readNumber(fmt, i, dir.width, kMaxWidth)) out.append("%!(BADWIDTH)");
        }

        // Precision.
        if (i < n && fmt[i] == '.') {
            ++i;
            if (i < n && fmt[i] == '*') {
                ++i;
                bool badStar = false;
                size_t starPos = readPosition(fmt, i, badStar);
                const size_t index = starPos ? starPos - 1 : next++;
                long long p = 0;
                if (badStar || !starArgument(args, index, p) || p > kMaxWidth) {
                    out.append("%!(BADPREC)");
                } else {
                    dir.precision = p < 0 ? -1 : static_cast<int>(p);
                }
            } else {
                int p = 0;
                if (!readNumber(fmt, i, p, kMaxWidth)) out.append("%!(BADPREC)");
                else dir.precision = p;
            }
        }

        // Length modifier.
        if (i < n) {
            switch (fmt[i]) {
            case 'h':
                ++i;
                dir.length = Length::H;
                if (i < n && fmt[i] == 'h') {
                    ++i;
                    dir.length = Length::HH;
                }
                break;
            case 'l':
                ++i;
                dir.length = Length::L;
                if (i < n && fmt[i] == 'l') {
                    ++i;
                    dir.length = Length::LL;
                }
                break;
            case 'q': ++i; dir.length = Length::LL; break;
            case 'L': ++i; dir.length = Length::BigL; break;
            case 'j': ++i; dir.length = Length::J; break;
            case 'z': ++i; dir.length = Length::Z; break;
            case 't': ++i; dir.length = Length::T; break;
            default: break;
            }
        }

        if (i >= n) {
            out.append("%!(NOVERB)");
            return;
        }
        dir.conv = fmt[i++];

        if (dir.conv == '%') {
            out.push_back('%');
            continue;
        }
        const char c = dir.conv;
        const bool known = c == 'd' || c == 'i' || c == 'u' || c == 'o' || c == 'x' || c == 'X' || c == 'c' ||
                           c == 'C' || c == 's' || c == 'S' || c == 'f' || c == 'F' || c == 'e' || c == 'E' ||
                           c == 'g' || c == 'G' || c == 'a' || c == 'A' || c == 'p' || c == '@' || c == 'n';
        if (!known) {
            out.append("%!");
            const size_t len = std::min(utf8SequenceLength(static_cast<unsigned char>(c)), n - (i - 1));
            out.append(fmt.data() + i - 1, len);
            i += len - 1;
            out.append("(BADVERB)");
            continue;
        }
        if (badIndex) {
            appendMarker(out, c, "BADINDEX");
            continue;
        }
        const size_t index = position ? position - 1 : next++;
        if (index >= args.size()) {
            appendMarker(out, c, "MISSING");
            continue;
        }
        const FormatArg& arg = args[index];
        switch (c) {
        case 'd':
        case 'i':
        case 'u':
        case 'o':
        case 'x':
        case 'X':
        case 'c':
        case 'C': formatIntegerConversion(out, dir, arg); break;
        case 'f':
        case 'F':
        case 'e':
        case 'E':
        case 'g':
        case 'G':
        case 'a':
        case 'A': formatFloatConversion(out, dir, arg); break;
        case 's':
        case 'S': formatStringConversion(out, dir, arg); break;
        case '@': formatObjectConversion(out, dir, arg); break;
        case 'p': formatPointerConversion(out, dir, arg); break;
        default: appendMarker(out, c, "BADVERB"); break;  // 'n': never writes through a pointer
        }
    }
}

std::string vformat(std::string_view fmt, std::span<const FormatArg> args) {
    std::string out;
    out.reserve(fmt.size() + 16 * args.size());
    vappendFormat(out, fmt, args);
    return out;
}

}  // namespace qrl
