// ThreadLogger: the framework's formatter; each line names the queue the
// logging code ran on: "[label] message", optionally after the date and with
// the file and method.
#pragma once

#include <atomic>
#include <optional>
#include <string>

#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/detail/LocalDateFormatter.h"

namespace qrl {

// Forms, with d the present local time as "yyyy-MM-dd HH:mm:ss.SSS " when
// includeDate is on (else empty):
//   "%@[%@] %@"            d, queue label, message
//   "%@[%@] [%@ %@] %@"    d, queue label, file name, method name, message
// A missing label, file or method prints "(null)".
//
// Thread-safe: the switches may be flipped from any thread while loggers
// format on theirs.
class ThreadLogger : public QRLLogFormatter {
public:
    ThreadLogger();

    std::optional<std::string> formatLogMessage(const QRLLogMessage& logMessage) override;
    bool appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out) override;

    bool includeDate() const { return includeDate_.load(std::memory_order_relaxed); }
    void setIncludeDate(bool includeDate) { includeDate_.store(includeDate, std::memory_order_relaxed); }
    bool includeClassAndMethod() const { return includeClassAndMethod_.load(std::memory_order_relaxed); }
    void setIncludeClassAndMethod(bool includeClassAndMethod) {
        includeClassAndMethod_.store(includeClassAndMethod, std::memory_order_relaxed);
    }

private:
    std::atomic<bool> includeDate_{false};
    std::atomic<bool> includeClassAndMethod_{false};
    detail::LocalDateFormatter qrlLoggingFormatter_;
};

}  // namespace qrl
