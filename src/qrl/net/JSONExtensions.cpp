#include "qrl/net/JSONExtensions.h"

#include "qrl/foundation/PlatformLog.h"
#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"

namespace qrl {

std::optional<std::string> JSONRepresentation(const Value& value) {
    QRLJsonWriter writer;
    auto text = writer.stringWithObject(value);
    if (!text) platformLog("-JSONRepresentation failed. Error trace is: " + writer.errorTraceValue().description());
    return text;
}

Value JSONValue(std::string_view text) {
    QRLJsonParser parser;
    Value value = parser.objectWithString(text);
    if (value.isNull()) platformLog("-JSONValue failed. Error trace is: " + parser.errorTraceValue().description());
    return value;
}

}  // namespace qrl
