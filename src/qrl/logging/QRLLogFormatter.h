// QRLLogFormatter: turns a log message into the text a logger writes, or into
// no text at all, in which case the logger writes nothing.
#pragma once

#include <optional>
#include <string>

namespace qrl {

class QRLLogMessage;

// A formatter is called on the queue of the logger that owns it, while the
// engine holds the message; one instance set on two loggers is called from
// both of their queues, so implementations keep no unguarded state that
// formatting changes.
class QRLLogFormatter {
public:
    virtual ~QRLLogFormatter() = default;

    // The text for `logMessage`; nullopt means "write nothing".
    virtual std::optional<std::string> formatLogMessage(const QRLLogMessage& logMessage) = 0;

    // Appends the text for `logMessage` to `out` and answers true, or leaves
    // `out` as it was and answers false for no text. Loggers call this one so
    // that they can reuse one buffer; the default goes through
    // formatLogMessage, and a formatter on a hot path builds the text in place.
    virtual bool appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out);
};

}  // namespace qrl
