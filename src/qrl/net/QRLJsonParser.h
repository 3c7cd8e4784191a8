// QRLJsonParser: reads JSON text (UTF-8) into values: objects become
// dictionaries in document order, arrays arrays, integers 64-bit numbers (or
// decimals when too large), reals decimals. Failures leave a null value and
// the error trace. One thread at a time.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/net/QRLJsonBase.h"

namespace qrl {

class QRLJsonParser : public QRLJsonBase {
public:
    QRLJsonParser() = default;

    // The array or dictionary the text holds, or a null value with the error
    // trace filled. A null pointer, or text that is not valid UTF-8, is an
    // absent input: code 12.
    Value objectWithString(std::string_view text);
    Value objectWithString(const char* text);
    // The same; upon failure the trace's last error is stored at *error, when
    // error is given.
    Value objectWithString(std::string_view text, std::shared_ptr<Error>* error);
    Value objectWithString(const char* text, std::shared_ptr<Error>* error);

private:
    Value parse(const char* text, size_t length, bool present);
    void releaseScratch();

    // Each scan answers the value read; upon failure it adds to the trace,
    // sets failed_ and answers null.
    Value scanValue();
    Value scanStringValue();
    Value scanRestOfTrue();
    Value scanRestOfFalse();
    Value scanRestOfNull();
    Value scanRestOfArray();
    Value scanRestOfDictionary();
    // The container from the top of elements_ or members_, past mark.
    [[gnu::noinline]] Value finishArray(size_t mark);
    [[gnu::noinline]] Value finishDictionary(size_t mark);
    bool scanRestOfString(std::string& out);
    bool scanUnicodeChar(uint16_t& out);
    bool scanHexQuad(uint16_t& out);
    Value scanNumber();
    // Failures add to the trace, set failed_ and answer null; those inside a
    // container also drop what it had collected. Kept out of line so that
    // the frames of the recursive scans stay small.
    [[gnu::noinline, gnu::cold]] Value fail(uint64_t code, std::string description);
    [[gnu::noinline, gnu::cold]] Value failInArray(size_t mark, uint64_t code, const char* description);
    [[gnu::noinline, gnu::cold]] Value failInDictionary(size_t mark, uint64_t code, const char* description,
                                                        const std::string* key);
    bool scanIsAtEnd();
    void skipWhitespace();
    bool scanLiteralRest(std::string_view rest);

    const char* c_ = nullptr;    // read cursor
    const char* end_ = nullptr;  // end of the text
    bool failed_ = false;
    // Elements of the arrays and members of the objects being read,
    // innermost last; each container takes its own from the top when it
    // closes, so that it is made once at its final size.
    std::vector<Value> elements_;
    std::vector<std::pair<std::string, Value>> members_;
};

}  // namespace qrl
