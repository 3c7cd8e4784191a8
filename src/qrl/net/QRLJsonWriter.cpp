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
    clearErrorTrace();
    // An object's proxy is written in its place, itself perhaps through a
    // proxy; each substitution that ends in failure adds its own code 4, and
    // a chain longer than the limit (an object standing in for itself) ends
    // with code 7.
    const Value* at = &value;
    std::optional<Value> proxy;
    uint64_t hops = 0;
    for (;; ++hops) {
        if (at->isArray() || at->isDictionary()) {
            resetNesting();
            sorted_.clear();
            proxies_.clear();
            open_.clear();
            std::optional<std::string> text;
            {
                jsontext::Output out(buffer_, 128);
                if (appendValue(*at, out)) text = out.text();
            }
            proxies_.clear();
            // A buffer grown for a very large document is not kept.
            if (buffer_.size() > kKeptBufferSize) std::string().swap(buffer_);
            if (text) return text;
            break;
        }
        auto next = proxyOf(*at);
        if (!next) break;
        if (hops >= proxyLimit()) {
            addErrorWithCode(kQRLJsonErrorNesting, "Nested too deep");
            break;
        }
        proxy = std::move(next);
        at = &*proxy;
    }
    for (uint64_t i = 0; i <= hops; ++i) addErrorWithCode(kQRLJsonErrorNotContainer, "Not valid type for JSON");
    return std::nullopt;
}

std::optional<std::string> QRLJsonWriter::stringWithObject(const Value& value, std::shared_ptr<Error>* error) {
    auto result = stringWithObject(value);
    if (!result) storeLastError(error);
    return result;
}

void QRLJsonWriter::indent(jsontext::Output& out) const {
    const size_t spaces = static_cast<size_t>(2 * depth_);
    char* at = out.room(spaces + 1);
    *at = '\n';
    std::memset(at + 1, ' ', spaces);
    out.advance(spaces + 1);
}

// The common kinds are written here; everything that can fail or call out
// lives in openOther.
QRLJsonWriter::Step QRLJsonWriter::openValue(const Value& value, jsontext::Output& out) {
    switch (value.type()) {
        case Value::Type::Dictionary:
            return openDictionary(*value.asDictionary(), out);
        case Value::Type::Array:
            return openArray(*value.asArray(), out);
        case Value::Type::String:
            return appendString(*value.asString(), out) ? Step::Written : openOther(value);
        case Value::Type::Boolean:
            out.write(*value.asBoolean() ? std::string_view("true") : std::string_view("false"));
            return Step::Written;
        case Value::Type::Integer:
            appendNumber(out, *value.asInteger());
            return Step::Written;
        case Value::Type::Real: {
            const double number = *value.asReal();
            if (!std::isfinite(number)) return openOther(value);
            appendNumber(out, number);
            return Step::Written;
        }
        case Value::Type::Decimal:
            jsontext::appendDecimal(out, *value.asDecimal());
            return Step::Written;
        case Value::Type::Null:
            out.write("null");
            return Step::Written;
        default:
            return openOther(value);
    }
}

QRLJsonWriter::Step QRLJsonWriter::openOther(const Value& value) {
    switch (value.type()) {
        case Value::Type::String:  // appendString refused it
            addErrorWithCode(kQRLJsonErrorUnsupportedValue,
                             "JSON serialisation not supported for a string that is not valid UTF-8");
            return Step::Failed;
        case Value::Type::Real: {
            const double number = *value.asReal();
            if (std::isnan(number)) {
                addErrorWithCode(kQRLJsonErrorUnsupportedValue, "NaN is not a valid number in JSON");
                return Step::Failed;
            }
            addErrorWithCode(kQRLJsonErrorUnsupportedValue, "Infinity is not a valid number in JSON");
            return Step::Failed;
        }
        case Value::Type::Object:
            if (auto proxy = proxyOf(value)) {
                // The proxy is written in the object's place. Whatever comes
                // of it, the object counts as written.
                if (!enterProxy()) return Step::Written;
                proxies_.push_back(std::move(*proxy));
                frames_.push_back(Frame{Frame::Kind::Proxy, 0, 0, 0, nullptr});
                return Step::Substituted;
            }
            break;
        default:
            break;
    }
    addErrorWithCode(kQRLJsonErrorUnsupportedValue, "JSON serialisation not supported for " + className(value));
    return Step::Failed;
}

bool QRLJsonWriter::opens(const void* container) {
    if (!enterContainer()) return false;
    if (maxDepth() == 0 && !open_.insert(container).second) {
        addErrorWithCode(kQRLJsonErrorNesting, "Nested too deep");
        return false;
    }
    return true;
}

QRLJsonWriter::Step QRLJsonWriter::openArray(const Array& array, jsontext::Output& out) {
    if (!opens(&array)) return Step::Failed;
    out.put('[');
    frames_.push_back(Frame{Frame::Kind::Array, 0, 0, array.size(), &array});
    return Step::Opened;
}

QRLJsonWriter::Step QRLJsonWriter::openDictionary(const Dictionary& dictionary, jsontext::Output& out) {
    if (!opens(&dictionary)) return Step::Failed;
    out.put('{');
    const size_t mark = sorted_.size();
    if (sortKeys_) {
        for (const auto& entry : dictionary.entries()) sorted_.push_back(&entry);
        std::sort(sorted_.begin() + static_cast<std::ptrdiff_t>(mark), sorted_.end(),
                  [](const auto* a, const auto* b) { return jsontext::compareUTF16(a->first, b->first) < 0; });
    }
    frames_.push_back(Frame{Frame::Kind::Dictionary, mark, 0, dictionary.size(), &dictionary});
    return Step::Opened;
}

const std::string& QRLJsonWriter::keyAt(const Frame& frame, size_t i) const {
    if (sortKeys_) return sorted_[frame.sortedMark + i]->first;
    return static_cast<const Dictionary*>(frame.container)->entries()[i].first;
}

const Value& QRLJsonWriter::entryValueAt(const Frame& frame, size_t i) const {
    if (sortKeys_) return sorted_[frame.sortedMark + i]->second;
    return static_cast<const Dictionary*>(frame.container)->entries()[i].second;
}

const Value* QRLJsonWriter::nextValue(jsontext::Output& out, bool& failed) {
    while (!frames_.empty()) {
        Frame& frame = frames_.back();
        if (frame.kind == Frame::Kind::Proxy) {
            popFrame();  // what the proxy stood in with is written: so is the object
            continue;
        }
        if (frame.next < frame.count) {
            const size_t i = frame.next++;
            if (i > 0) out.put(',');
            if (humanReadable_) indent(out);
            if (frame.kind == Frame::Kind::Array) return &(*static_cast<const Array*>(frame.container))[i];
            if (!appendString(keyAt(frame, i), out)) {
                entryFailed(nullptr);
                popFrame();  // the dictionary itself failed; its entry adds nothing more
                failed = true;
                return nullptr;
            }
            if (humanReadable_) {
                out.write(" : ");
            } else {
                out.put(':');
            }
            return &entryValueAt(frame, i);
        }
        leaveContainer();
        if (humanReadable_ && frame.count > 0) indent(out);
        out.put(frame.kind == Frame::Kind::Dictionary ? '}' : ']');
        popFrame();
    }
    return nullptr;
}

bool QRLJsonWriter::appendValue(const Value& value, jsontext::Output& out) {
    frames_.clear();
    const Value* next = &value;
    for (;;) {
        const Step step = openValue(*next, out);
        if (step == Step::Substituted) {
            next = &proxies_.back();
            continue;
        }
        if (step == Step::Failed && !unwindFailure()) return false;
        if (step == Step::Written && !frames_.empty()) {
            // Most values are elements of arrays: the next one comes straight from here.
            Frame& top = frames_.back();
            if (top.kind == Frame::Kind::Array && top.next < top.count) {
                out.put(',');
                if (humanReadable_) indent(out);
                next = &(*static_cast<const Array*>(top.container))[top.next++];
                continue;
            }
        }
        bool failed = false;
        next = nextValue(out, failed);
        while (failed) {
            if (!unwindFailure()) return false;
            failed = false;
            next = nextValue(out, failed);
        }
        if (next == nullptr) return true;
    }
}

void QRLJsonWriter::popFrame() {
    const Frame& frame = frames_.back();
    if (frame.kind == Frame::Kind::Proxy) {
        leaveProxy();
        proxies_.pop_back();
    } else {
        if (frame.kind == Frame::Kind::Dictionary && sortKeys_) sorted_.resize(frame.sortedMark);
        if (!open_.empty()) open_.erase(frame.container);
    }
    frames_.pop_back();
}

// Like the failure of a nested call: the containers it crosses stay counted
// in depth, as a failure ends their writing before they close.
bool QRLJsonWriter::unwindFailure() {
    while (!frames_.empty()) {
        const Frame& frame = frames_.back();
        const bool proxy = frame.kind == Frame::Kind::Proxy;
        if (frame.kind == Frame::Kind::Dictionary) entryFailed(&keyAt(frame, frame.next - 1));
        popFrame();
        if (proxy) return true;
    }
    return false;
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
