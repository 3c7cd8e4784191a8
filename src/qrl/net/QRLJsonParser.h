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

    // The document's value; upon failure the trace is filled, failed_ set
    // and null answered.
    Value scanDocument();
    // Each scan answers the value read; upon failure it adds to the trace,
    // sets failed_ and answers null.
    Value scanScalar();
    Value scanStringValue();
    Value scanRestOfTrue();
    Value scanRestOfFalse();
    Value scanRestOfNull();
    // The innermost container, complete; its frame closes.
    [[gnu::noinline]] Value finishArray();
    [[gnu::noinline]] Value finishDictionary();
    size_t expectedSize(bool dictionary) const;  // of a container opening at the present depth
    void noteSize(bool dictionary, size_t size);  // of the container closing at the present depth
    bool scanRestOfString(std::string& out);
    bool scanUnicodeChar(uint16_t& out);
    bool scanHexQuad(uint16_t& out);
    Value scanNumber();
    // A malformed number, the cursor left where the scan stopped.
    [[gnu::noinline, gnu::cold]] Value failNumber(const char* at, const char* description);
    // Failures add to the trace, set failed_ and answer null; the open
    // containers add theirs and drop what they had collected.
    [[gnu::noinline, gnu::cold]] Value fail(uint64_t code, std::string description);
    [[gnu::noinline, gnu::cold]] Value failInValue();
    [[gnu::noinline, gnu::cold]] Value failInContainer(uint64_t code, const char* description);
    bool scanIsAtEnd();
    void skipWhitespace();
    bool scanLiteralRest(std::string_view rest);

    const char* c_ = nullptr;    // read cursor
    const char* end_ = nullptr;  // end of the text
    bool failed_ = false;
    // The open containers, innermost last, each built in place: an array
    // held by the innermost of arrays_ (array points into it), an object by
    // the innermost of objects_ (member is the value of its last key,
    // awaited).
    struct Frame {
        Array* array;
        Value* member;
        bool dictionary;
    };
    std::vector<Frame> frames_;
    std::vector<Value> arrays_;
    std::vector<DictionaryBuilder> objects_;
    // By depth, the sizes of the last array and object that closed there.
    struct Sizes {
        uint32_t array = 0;
        uint32_t dictionary = 0;
    };
    std::vector<Sizes> expectedSizes_;
    static constexpr size_t kLargestGuess = 1u << 20;
    // Where the document's containers are made while it is read.
    const ValueArena* arena_ = nullptr;
    static constexpr size_t kSmallestCarvedText = 4096;
};

}  // namespace qrl
