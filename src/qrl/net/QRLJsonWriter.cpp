#include "qrl/net/QRLJsonWriter.h"

#include <cxxabi.h>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <typeinfo>
#include <vector>

#include "qrl/net/JsonProxy.h"
#include "qrl/net/JsonText.h"
#include "qrl/foundation/Utf8.h"

namespace qrl {

namespace {

// What an object offers in place of itself, if it answers proxyForJson.
std::optional<Value> proxyOf(const Value& value) {
    if (!value.isObject()) return std::nullopt;
    const auto* proxy = dynamic_cast<const JsonProxy*>(value.asObject().get());
    if (proxy == nullptr) return std::nullopt;
    return proxy->proxyForJson();
}

std::string className(const Value& value) {
    switch (value.type()) {
        case Value::Type::Data:
            return "qrl::Data";
        case Value::Type::Date:
            return "qrl::Date";
        case Value::Type::Object: {
            const Object& object = *value.asObject();
            const char* mangled = typeid(object).name();
            int status = 0;
            char* demangled = abi::__cxa_demangle(mangled, nullptr, nullptr, &status);
            std::string name = (status == 0 && demangled != nullptr) ? demangled : mangled;
            std::free(demangled);
            return name;
        }
        default:
            return "qrl::Value";
    }
}

template <class T>
void appendNumber(jsontext::Output& out, T number) {
    char* const at = out.room(32);
    out.advance(static_cast<size_t>(std::to_chars(at, at + 32, number).ptr - at));
}

}  // namespace

std::optional<std::string> QRLJsonWriter::stringWithObject(const Value& value) {
    return stringWithObjectHops(value, 0);
}

std::optional<std::string> QRLJsonWriter::stringWithObject(const Value& value, std::shared_ptr<Error>* error) {
    auto result = stringWithObject(value);
    if (!result) storeLastError(error);
    return result;
}

// An object's proxy is written in its place, itself perhaps through a proxy;
// hops counts those substitutions so that an object standing in for itself
// ends with code 7 rather than recursing forever.
std::optional<std::string> QRLJsonWriter::stringWithObjectHops(const Value& value, uint64_t hops) {
    clearErrorTrace();
    if (value.isArray() || value.isDictionary()) {
        resetNesting();
        sorted_.clear();
        std::optional<std::string> text;
        {
            jsontext::Output out(buffer_, 128);
            if (appendValue(value, out)) text = out.text();
        }
        // A buffer grown for a very large document is not kept.
        if (buffer_.size() > kKeptBufferSize) std::string().swap(buffer_);
        if (text) return text;
    } else if (auto proxy = proxyOf(value)) {
        if (hops >= nestingLimit()) {
            addErrorWithCode(kQRLJsonErrorNesting, "Nested too deep");
        } else if (auto text = stringWithObjectHops(*proxy, hops + 1)) {
            return text;
        }
    }
    addErrorWithCode(kQRLJsonErrorNotContainer, "Not valid type for JSON");
    return std::nullopt;
}

void QRLJsonWriter::indent(jsontext::Output& out) const {
    const size_t spaces = static_cast<size_t>(2 * depth_);
    char* at = out.room(spaces + 1);
    *at = '\n';
    std::memset(at + 1, ' ', spaces);
    out.advance(spaces + 1);
}

// The common kinds are written here; everything that can fail or call out
// lives in appendOther, so that this frame, one per nesting level, stays
// small.
bool QRLJsonWriter::appendValue(const Value& value, jsontext::Output& out) {
    switch (value.type()) {
        case Value::Type::Dictionary:
            return appendDictionary(*value.asDictionary(), out);
        case Value::Type::Array:
            return appendArray(*value.asArray(), out);
        case Value::Type::String:
            return appendString(*value.asString(), out) || appendOther(value, out);
        case Value::Type::Boolean:
            out.write(*value.asBoolean() ? std::string_view("true") : std::string_view("false"));
            return true;
        case Value::Type::Integer:
            appendNumber(out, *value.asInteger());
            return true;
        case Value::Type::Real: {
            const double number = *value.asReal();
            if (!std::isfinite(number)) return appendOther(value, out);
            appendNumber(out, number);
            return true;
        }
        case Value::Type::Decimal:
            jsontext::appendDecimal(out, *value.asDecimal());
            return true;
        case Value::Type::Null:
            out.write("null");
            return true;
        default:
            return appendOther(value, out);
    }
}

bool QRLJsonWriter::appendOther(const Value& value, jsontext::Output& out) {
    switch (value.type()) {
        case Value::Type::String:  // appendString refused it
            addErrorWithCode(kQRLJsonErrorUnsupportedValue,
                             "JSON serialisation not supported for a string that is not valid UTF-8");
            return false;
        case Value::Type::Real: {
            const double number = *value.asReal();
            if (std::isnan(number)) {
                addErrorWithCode(kQRLJsonErrorUnsupportedValue, "NaN is not a valid number in JSON");
                return false;
            }
            addErrorWithCode(kQRLJsonErrorUnsupportedValue, "Infinity is not a valid number in JSON");
            return false;
        }
        case Value::Type::Object:
            if (auto proxy = proxyOf(value)) {
                // The proxy is written in the object's place. Whatever comes
                // of it, the object counts as written.
                if (enterProxy()) {
                    appendValue(*proxy, out);
                    leaveProxy();
                }
                return true;
            }
            break;
        default:
            break;
    }
    addErrorWithCode(kQRLJsonErrorUnsupportedValue, "JSON serialisation not supported for " + className(value));
    return false;
}

bool QRLJsonWriter::appendArray(const Array& array, jsontext::Output& out) {
    if (!enterContainer()) return false;
    out.put('[');
    for (size_t i = 0; i < array.size(); ++i) {
        if (i > 0) out.put(',');
        if (humanReadable_) indent(out);
        if (!appendValue(array[i], out)) return false;
    }
    leaveContainer();
    if (humanReadable_ && !array.empty()) indent(out);
    out.put(']');
    return true;
}

bool QRLJsonWriter::appendDictionary(const Dictionary& dictionary, jsontext::Output& out) {
    if (!enterContainer()) return false;
    out.put('{');
    const auto& entries = dictionary.entries();
    if (sortKeys_) {
        if (!appendSortedEntries(dictionary, out)) return false;
    } else {
        for (size_t i = 0; i < entries.size(); ++i) {
            if (!appendEntry(entries[i], i == 0, out)) return false;
        }
    }
    leaveContainer();
    if (humanReadable_ && !entries.empty()) indent(out);
    out.put('}');
    return true;
}

bool QRLJsonWriter::appendSortedEntries(const Dictionary& dictionary, jsontext::Output& out) {
    const size_t mark = sorted_.size();
    for (const auto& entry : dictionary.entries()) sorted_.push_back(&entry);
    std::sort(sorted_.begin() + static_cast<std::ptrdiff_t>(mark), sorted_.end(),
              [](const auto* a, const auto* b) { return jsontext::compareUTF16(a->first, b->first) < 0; });
    bool written = true;
    for (size_t i = mark; i < sorted_.size() && written; ++i) written = appendEntry(*sorted_[i], i == mark, out);
    sorted_.resize(mark);
    return written;
}

bool QRLJsonWriter::appendEntry(const std::pair<std::string, Value>& entry, bool first, jsontext::Output& out) {
    if (!first) out.put(',');
    if (humanReadable_) indent(out);
    if (!appendString(entry.first, out)) return entryFailed(nullptr);
    if (humanReadable_) {
        out.write(" : ");
    } else {
        out.put(':');
    }
    return appendValue(entry.second, out) || entryFailed(&entry.first);
}

// A key that is no string (nullptr), or the value of the given key.
bool QRLJsonWriter::entryFailed(const std::string* key) {
    if (key == nullptr) {
        addErrorWithCode(kQRLJsonErrorUnsupportedValue, "JSON object key must be string");
    } else {
        addErrorWithCode(kQRLJsonErrorUnsupportedValue, "Unsupported value for key " + *key + " in object");
    }
    return false;
}

// Fails, leaving out as it was, only for text that is not valid UTF-8.
// Plain runs are copied straight into room made for the whole text; each
// escape makes room for itself and the rest.
bool QRLJsonWriter::appendString(std::string_view text, jsontext::Output& out) {
    const size_t start = out.size();
    const char* p = text.data();
    const char* const end = p + text.size();
    bool nonAscii = false;
    char* to = out.room(text.size() + 2);
    *to++ = '"';
    for (;;) {
        if (end - p >= 16) {
            const char* special = jsontext::findStringSpecialInBlocks(p, end, nonAscii);
            std::memcpy(to, p, static_cast<size_t>(special - p));
            to += special - p;
            p = special;
        } else {
            unsigned char high = 0;
            while (p < end && !jsontext::kStringSpecial.special[static_cast<unsigned char>(*p)]) {
                high |= static_cast<unsigned char>(*p);
                *to++ = *p++;
            }
            if (high & 0x80) nonAscii = true;
        }
        if (p == end) break;

        const auto ch = static_cast<unsigned char>(*p++);
        out.setEnd(to);
        to = out.room(6 + static_cast<size_t>(end - p) + 1);
        *to++ = '\\';
        switch (ch) {
            case '"':
            case '\\':
                *to++ = static_cast<char>(ch);
                break;
            case 8:
                *to++ = 'b';
                break;
            case 9:
                *to++ = 't';
                break;
            case 10:
                *to++ = 'n';
                break;
            case 12:
                *to++ = 'f';
                break;
            case 13:
                *to++ = 'r';
                break;
            default: {
                static constexpr char kHex[] = "0123456789abcdef";
                *to++ = 'u';
                *to++ = '0';
                *to++ = '0';
                *to++ = kHex[ch >> 4];
                *to++ = kHex[ch & 0xF];
                break;
            }
        }
    }
    *to++ = '"';
    out.setEnd(to);
    if (nonAscii && !isValidUtf8(text)) {
        out.truncate(start);
        return false;
    }
    return true;
}

}  // namespace qrl
