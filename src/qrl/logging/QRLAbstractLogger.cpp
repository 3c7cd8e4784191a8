#include "qrl/logging/QRLAbstractLogger.h"

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFormatter.h"

namespace qrl {

QRLAbstractLogger::QRLAbstractLogger(std::string loggerName)
    : name_(std::move(loggerName)),
      slot_(std::make_shared<FormatterSlot>()),
      loggerQueue_(std::make_shared<SerialQueue>(name_)) {}

QRLAbstractLogger::~QRLAbstractLogger() = default;

void QRLAbstractLogger::logMessage(const QRLLogMessage& logMessage) { (void)logMessage; }

std::shared_ptr<QRLLogFormatter> QRLAbstractLogger::logFormatter() {
    SerialQueue& logging = QRLLog::loggingQueue();
    if (loggerQueue_->isCurrent() || logging.isCurrent()) return slot_->formatter;
    try {
        return logging.sync([this] { return slot_->formatter; });
    } catch (const Exception&) {
        // Refused because this thread already runs a task of the logging
        // queue further out: that queue waits for us, so nothing swaps now.
        return slot_->formatter;
    }
}

void QRLAbstractLogger::setLogFormatter(std::shared_ptr<QRLLogFormatter> logFormatter) {
    SerialQueue& logging = QRLLog::loggingQueue();
    if (loggerQueue_->isCurrent() || logging.isCurrent()) {
        if (slot_->formatter != logFormatter) slot_->formatter = std::move(logFormatter);
        return;
    }
    logging.async([slot = slot_, formatter = std::move(logFormatter)]() mutable {
        if (slot->formatter != formatter) slot->formatter = std::move(formatter);
    });
}

}  // namespace qrl
