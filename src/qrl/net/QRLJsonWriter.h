// QRLJsonWriter: writes an array or dictionary value as JSON text, compact or
// indented by two spaces, keys in the dictionary's order or sorted by UTF-16
// code units. Failures give nullopt and the error trace. One thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_set>
#include <utility>
#include <vector>

#include "qrl/net/QRLJsonBase.h"

namespace qrl {

namespace jsontext {
class Output;
}

class QRLJsonWriter : public QRLJsonBase {
public:
    QRLJsonWriter() = default;

    // The text of an array or dictionary, or of what an object's proxyForJson
    // stands in for; nullopt with the error trace filled otherwise. Integers
    // print in decimal, reals in their shortest round-trip form, decimals in
    // plain notation; NaN, infinities, data, dates and objects without a
    // proxy are refused with code 1, and so are strings and keys that are not
    // valid UTF-8. An object whose proxy fails inside a container leaves its
    // errors in the trace but does not stop the writing. Chains of proxies
    // count as nesting. The value must not change while it is written (a
    // proxyForJson must leave the containers being written alone).
    // Reals read back as decimals, whose range ends near 10^165: larger
    // doubles are written but cannot be read again.
    std::optional<std::string> stringWithObject(const Value& value);
    // The same; upon failure the trace's last error is stored at *error, when
    // error is given.
    std::optional<std::string> stringWithObject(const Value& value, std::shared_ptr<Error>* error);

    bool sortKeys() const { return sortKeys_; }
    void setSortKeys(bool sortKeys) { sortKeys_ = sortKeys; }
    bool humanReadable() const { return humanReadable_; }
    void setHumanReadable(bool humanReadable) { humanReadable_ = humanReadable; }

private:
    void indent(jsontext::Output& out) const;
    // Writes a whole array or dictionary, one container frame at a time on
    // frames_ rather than the thread's stack.
    bool appendValue(const Value& value, jsontext::Output& out);
    enum class Step : uint8_t { Written, Opened, Substituted, Failed };
    // Writes a scalar, or opens a container (pushing its frame), or pushes
    // the value a proxy stands in with (Substituted: it is written next).
    inline Step openValue(const Value& value, jsontext::Output& out);
    [[gnu::noinline, gnu::cold]] Step openOther(const Value& value);
    Step openArray(const Array& array, jsontext::Output& out);
    Step openDictionary(const Dictionary& dictionary, jsontext::Output& out);
    // The next value to write inside the innermost frame, closing the frames
    // that are done; null when the whole value is written (or the entry's
    // key failed: *failed is set then).
    inline const Value* nextValue(jsontext::Output& out, bool& failed);
    // A failure inside the innermost frame: each enclosing entry adds its
    // error, as far as the nearest proxy, which counts as written. False when
    // no proxy stops it.
    bool unwindFailure();
    // Takes the innermost frame off, with what it holds (a proxy's value, a
    // sorted dictionary's entries, its place among the open containers).
    void popFrame();
    [[gnu::noinline, gnu::cold]] bool entryFailed(const std::string* key);
    bool appendString(std::string_view text, jsontext::Output& out);

    struct Frame {
        enum class Kind : uint8_t { Array, Dictionary, Proxy };
        Kind kind;
        size_t sortedMark;    // sorted dictionaries: where their entries start in sorted_
        size_t next;          // elements or entries written or started
        size_t count;
        const void* container;
    };
    const std::string& keyAt(const Frame& frame, size_t i) const;
    const Value& entryValueAt(const Frame& frame, size_t i) const;
    std::vector<Frame> frames_;
    std::vector<Value> proxies_;  // the values that proxies stand in with, innermost last
    // With no depth limit, the containers being written: one met again is a
    // cycle, and fails as too deep rather than growing for ever.
    std::unordered_set<const void*> open_;
    bool opens(const void* container);
    bool sortKeys_ = false;
    bool humanReadable_ = false;
    // Entries of the sorted dictionaries being written, innermost last.
    std::vector<const std::pair<std::string, Value>*> sorted_;
    // Where the text is built before it is copied out at its final size.
    std::string buffer_;
    static constexpr size_t kKeptBufferSize = 16u << 20;
};

}  // namespace qrl
