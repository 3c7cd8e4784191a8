// QRLAbstractLogger: the base of the framework's loggers: a serial queue of
// its own labelled with the logger's name, and a formatter that is swapped
// in step with the engine so that logMessage() can read it without a lock.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "qrl/logging/QRLLogger.h"

namespace qrl {

// logMessage() does nothing here; derived classes write. The formatter is
// retained (shared). Thread-safe: every member may be called from any thread.
class QRLAbstractLogger : public QRLLogger {
public:
    // Makes the logger's queue, labelled `loggerName`.
    explicit QRLAbstractLogger(std::string loggerName = "QRLAbstractLogger");
    ~QRLAbstractLogger() override;
    QRLAbstractLogger(const QRLAbstractLogger&) = delete;
    QRLAbstractLogger& operator=(const QRLAbstractLogger&) = delete;

    void logMessage(const QRLLogMessage& logMessage) override;

    // On the logger's own queue (or the logging queue) the formatter is read
    // directly; elsewhere it is read on the logging queue, so that the answer
    // is the one the next message will be formatted with.
    std::shared_ptr<QRLLogFormatter> logFormatter() override;
    // On the logger's own queue (or the logging queue) the swap happens now;
    // elsewhere it is queued on the logging queue and takes effect for the
    // messages logged after this call. Setting the same formatter does nothing.
    void setLogFormatter(std::shared_ptr<QRLLogFormatter> logFormatter) override;

    std::shared_ptr<SerialQueue> loggerQueue() override { return loggerQueue_; }
    std::optional<std::string> loggerName() const override { return name_; }

protected:
    // The formatter for logMessage(): read without a lock, which is safe on
    // this logger's queue while the engine delivers. Null when none is set.
    QRLLogFormatter* formatter() const { return slot_->formatter.get(); }

private:
    // Shared with swaps still queued, so that a logger may go before them.
    struct FormatterSlot {
        std::shared_ptr<QRLLogFormatter> formatter;
    };

    std::string name_;
    std::shared_ptr<FormatterSlot> slot_;
    std::shared_ptr<SerialQueue> loggerQueue_;
};

}  // namespace qrl
