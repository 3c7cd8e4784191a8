#include "qrl/logging/ThreadLogger.h"

#include "qrl/foundation/Format.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl {

namespace {

// A text that may be missing, as an argument that prints "(null)" then.
FormatArg optionalText(const std::optional<std::string_view>& text) {
    if (text) return FormatArg(*text);
    return FormatArg(static_cast<const char*>(nullptr));
}

}  // namespace

ThreadLogger::ThreadLogger() : qrlLoggingFormatter_("yyyy-MM-dd HH:mm:ss.SSS") {}

std::optional<std::string> ThreadLogger::formatLogMessage(const QRLLogMessage& logMessage) {
    std::string text;
    appendFormattedLogMessage(logMessage, text);
    return text;
}

bool ThreadLogger::appendFormattedLogMessage(const QRLLogMessage& logMessage, std::string& out) {
    // The date text of this thread's last line is reused as its buffer.
    thread_local std::string date;
    thread_local std::string d;
    d.clear();
    if (includeDate()) {
        date.clear();
        qrlLoggingFormatter_.append(date, Date::now());
        appendFormat(d, "%@ ", std::string_view(date));
    }
    const auto queueName = logMessage.dispatchQueueName();
    if (includeClassAndMethod()) {
        const FormatArg args[] = {FormatArg(std::string_view(d)), optionalText(queueName),
                                  optionalText(logMessage.fileName()), optionalText(logMessage.methodName()),
                                  FormatArg(logMessage.logMsg())};
        vappendFormat(out, "%@[%@] [%@ %@] %@", args);
    } else {
        const FormatArg args[] = {FormatArg(std::string_view(d)), optionalText(queueName),
                                  FormatArg(logMessage.logMsg())};
        vappendFormat(out, "%@[%@] %@", args);
    }
    return true;
}

}  // namespace qrl
