// QRLLogFileFormatterDefault: the line of a log file: the message's local
// date "yyyy/MM/dd HH:mm:ss:SSS", two blanks, and the message.
#pragma once

#include <optional>
#include <string>

#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/detail/LocalDateFormatter.h"

namespace qrl {

// The format is "%@  %@" with the date of the message's timestamp and its
// text; the logger adds the line feed. Thread-safe.
class QRLLogFileFormatterDefault : public QRLLogFormatter {
public:
    QRLLogFileFormatterDefault();

    std::optional<std::string> formatLogMessage(const QRLLogMessage& logMessage) override;
    bool appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out) override;

private:
    detail::LocalDateFormatter dateFormatter_;
};

}  // namespace qrl
