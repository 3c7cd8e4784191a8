#include "qrl/logging/QRLLogFileFormatterDefault.h"

#include "qrl/foundation/Format.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl {

QRLLogFileFormatterDefault::QRLLogFileFormatterDefault() : dateFormatter_("yyyy/MM/dd HH:mm:ss:SSS") {}

std::optional<std::string> QRLLogFileFormatterDefault::formatLogMessage(const QRLLogMessage& logMessage) {
    std::string text;
    appendFormattedLogMessage(logMessage, text);
    return text;
}

bool QRLLogFileFormatterDefault::appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out) {
    thread_local std::string date;  // reused by this thread's lines
    date.clear();
    dateFormatter_.append(date, logMessage.timestamp());
    appendFormat(out, "%@  %@", std::string_view(date), logMessage.logMsg());
    return true;
}

}  // namespace qrl
