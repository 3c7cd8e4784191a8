// QRLLogger: an output of the log engine. The engine calls logMessage() for
// every message, in one order shared by all loggers, on the logger's own queue.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>

namespace qrl {

class QRLLogFormatter;
class QRLLogMessage;
class SerialQueue;

// Required: logMessage, logFormatter, setLogFormatter.
//
// Optional: didAddLogger, willRemoveLogger and flush are called only when
// the logger answers them, which it says through answers(); a logger that
// implements one overrides both. loggerQueue and loggerName are answered by
// giving a value; the defaults (null, nullopt) are "not answered".
//
// Threads: logMessage() and flush() run with the logger's queue as the
// current queue (SerialQueue::currentLabel() gives its label, isCurrent() is
// true), while the engine's logging queue waits for them. didAddLogger() and
// willRemoveLogger() run on the logging queue. A logger must not log through
// the engine, nor flush it, from any of these.
class QRLLogger {
public:
    enum class Operation : uint8_t { didAddLogger, willRemoveLogger, flush };

    virtual ~QRLLogger() = default;

    virtual void logMessage(const QRLLogMessage& logMessage) = 0;
    virtual std::shared_ptr<QRLLogFormatter> logFormatter() = 0;
    virtual void setLogFormatter(std::shared_ptr<QRLLogFormatter> logFormatter) = 0;

    // Whether the logger answers an optional operation; none by default.
    virtual bool answers(Operation operation) const {
        (void)operation;
        return false;
    }
    virtual void didAddLogger() {}
    virtual void willRemoveLogger() {}
    virtual void flush() {}

    // The queue to run this logger's work on; null lets the engine make one,
    // labelled with loggerName().
    virtual std::shared_ptr<SerialQueue> loggerQueue() { return nullptr; }
    virtual std::optional<std::string> loggerName() const { return std::nullopt; }
};

}  // namespace qrl
