// The one check the JSON fuzzer runs on each input, shared with the unit tests
// that replay the saved inputs: the parser answers sanely, and what it reads
// survives a write and a read unchanged.
#pragma once

#include <string>
#include <string_view>

#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"

namespace qrl::fuzzcheck {

// Empty when the input was handled sanely; otherwise what went wrong.
inline std::string checkJsonInput(std::string_view input) {
    QRLJsonParser parser;
    const Value value = parser.objectWithString(input);
    const auto& trace = parser.errorTrace();

    if (value.isNull()) {
        if (trace.empty()) return "failed without an error";
        for (size_t i = 0; i < trace.size(); ++i) {
            const auto& error = trace[i];
            if (error->domain() != QRLJSONErrorDomain) return "error outside the JSON domain";
            if (error->code() < 2 || error->code() > 12) return "parser error code out of range";
            if (error->localizedDescription().empty()) return "error without a description";
            if (error->underlyingError().get() != (i == 0 ? nullptr : trace[i - 1].get())) return "broken error chain";
        }
    } else {
        if (!value.isArray() && !value.isDictionary()) return "top level is not a container";
        if (!trace.empty()) return "success with errors in the trace";
        if (parser.depth() != 0) return "depth not back to 0";
    }

    // The same parser, again: the same answer.
    const auto firstCodes = [&] {
        std::string codes;
        for (const auto& error : trace) codes += std::to_string(error->code()) + ",";
        return codes;
    }();
    const Value again = parser.objectWithString(input);
    std::string secondCodes;
    for (const auto& error : parser.errorTrace()) secondCodes += std::to_string(error->code()) + ",";
    if (again.isNull() != value.isNull() || secondCodes != firstCodes) return "second parse differs";
    if (!value.isNull() && !(again == value)) return "second parse gives another value";

    // Without a limit, whatever read before still reads the same.
    QRLJsonParser unlimited;
    unlimited.setMaxDepth(0);
    const Value free = unlimited.objectWithString(input);
    if (!value.isNull() && !(free == value)) return "unlimited parse differs";
    if (value.isNull() && !free.isNull() && trace.front()->code() != 7) return "only nesting may separate the limits";

    if (value.isNull()) return {};

    // What was read is written, and reads back equal; a second write is
    // stable, since reals are then decimals in plain notation.
    for (int style = 0; style < 2; ++style) {
        QRLJsonWriter writer;
        writer.setHumanReadable(style == 1);
        writer.setSortKeys(style == 1);
        const auto text = writer.stringWithObject(value);
        if (!text || !writer.errorTrace().empty()) return "cannot write what was read";
        QRLJsonParser reader;
        const Value reread = reader.objectWithString(*text);
        if (reread.isNull()) return "cannot read what was written: " + *text;
        if (!(reread == value)) return "round trip changes the value: " + *text;
        const auto rewritten = writer.stringWithObject(reread);
        if (!rewritten) return "cannot write the round trip";
        if (writer.stringWithObject(reader.objectWithString(*rewritten)) != rewritten) return "writing is not stable";
    }
    return {};
}

}  // namespace qrl::fuzzcheck
