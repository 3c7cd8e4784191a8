#include "qrl/logging/QRLASLLogger.h"

#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl {

std::shared_ptr<QRLASLLogger> QRLASLLogger::sharedInstance() {
    static const std::shared_ptr<QRLASLLogger> instance(new QRLASLLogger(detail::SyslogClient::Options{}));
    return instance;
}

std::shared_ptr<QRLASLLogger> QRLASLLogger::create() {
    sharedInstance();
    return nullptr;
}

std::shared_ptr<QRLASLLogger> QRLASLLogger::createForSocket(std::string socketPath,
                                                            std::chrono::milliseconds reconnectInterval) {
    detail::SyslogClient::Options options;
    options.socketPath = std::move(socketPath);
    options.reconnectInterval = reconnectInterval;
    return std::shared_ptr<QRLASLLogger>(new QRLASLLogger(std::move(options)));
}

QRLASLLogger::QRLASLLogger(detail::SyslogClient::Options options)
    : QRLAbstractLogger("tigostu.aslLogger"), client_(std::move(options)) {}

int QRLASLLogger::severityForLogLevel(int32_t logLevel) {
    switch (logLevel) {
        case 1: return 2;   // critical
        case 2: return 3;   // error
        case 3: return 4;   // warning
        default: return 5;  // notice
    }
}

void QRLASLLogger::logMessage(const QRLLogMessage& logMessage) {
    std::string_view text = logMessage.logMsg();
    if (QRLLogFormatter* f = formatter()) {
        line_.clear();
        if (!f->appendFormattedLogMessage(logMessage, line_)) return;
        text = line_;
    }
    client_.send(severityForLogLevel(logMessage.logLevel()), logMessage.timestamp(), text);
}

}  // namespace qrl
