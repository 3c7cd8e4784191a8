// QRLJsonWriter: writes an array or dictionary value as JSON text, compact or
// indented by two spaces, keys in the dictionary's order or sorted by UTF-16
// code units. Failures give nullopt and the error trace. One thread at a time.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
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
    std::optional<std::string> stringWithObjectHops(const Value& value, uint64_t hops);
    void indent(jsontext::Output& out) const;
    bool appendValue(const Value& value, jsontext::Output& out);
    [[gnu::noinline, gnu::cold]] bool appendOther(const Value& value, jsontext::Output& out);
    [[gnu::noinline, gnu::cold]] bool entryFailed(const std::string* key);
    bool appendArray(const Array& array, jsontext::Output& out);
    bool appendDictionary(const Dictionary& dictionary, jsontext::Output& out);
    [[gnu::noinline]] bool appendSortedEntries(const Dictionary& dictionary, jsontext::Output& out);
    bool appendEntry(const std::pair<std::string, Value>& entry, bool first, jsontext::Output& out);
    bool appendString(std::string_view text, jsontext::Output& out);

    bool sortKeys_ = false;
    bool humanReadable_ = false;
    // Entries of the dictionaries being written in key order, innermost last.
    std::vector<const std::pair<std::string, Value>*> sorted_;
    // Where the text is built before it is copied out at its final size.
    std::string buffer_;
    static constexpr size_t kKeptBufferSize = 16u << 20;
};

}  // namespace qrl
