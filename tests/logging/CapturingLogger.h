// A logger for tests that keeps a copy of every message it is given, and a
// scope that attaches it to the engine and takes it off again.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl::test {

struct CapturedMessage {
    int32_t level = 0;
    int32_t flag = 0;
    int32_t context = 0;
    std::string message;
    std::string function;
    int32_t line = 0;
    std::optional<std::string> dispatchQueueName;
    std::optional<std::string> deliveredOnQueue;  // where logMessage() ran
};

class CapturingLogger : public QRLAbstractLogger {
public:
    explicit CapturingLogger(std::string name = "test.capture") : QRLAbstractLogger(std::move(name)) {}

    // Called first for every message, on the logger's queue; may block or
    // throw. Set it before the logger is attached.
    std::function<void(const QRLLogMessage&)> onMessage;

    void logMessage(const QRLLogMessage& m) override {
        if (onMessage) onMessage(m);
        CapturedMessage c;
        c.level = m.logLevel();
        c.flag = m.logFlag();
        c.context = m.logContext();
        c.message = m.logMsg();
        c.function = m.function() ? m.function() : "";
        c.line = m.lineNumber();
        if (auto q = m.dispatchQueueName()) c.dispatchQueueName = std::string(*q);
        if (auto q = SerialQueue::currentLabel()) c.deliveredOnQueue = std::string(*q);
        std::lock_guard lock(mutex_);
        messages_.push_back(std::move(c));
    }

    // Copies, so that they can be read while messages still arrive.
    std::vector<CapturedMessage> messages() const {
        std::lock_guard lock(mutex_);
        return messages_;
    }
    std::vector<std::string> texts() const {
        std::lock_guard lock(mutex_);
        std::vector<std::string> out;
        for (const auto& c : messages_) out.push_back(c.message);
        return out;
    }

private:
    mutable std::mutex mutex_;
    std::vector<CapturedMessage> messages_;
};

// Attaches `logger` for the scope; on the way out flushes and removes it, so
// that it has seen everything logged inside the scope.
class ScopedLogger {
public:
    explicit ScopedLogger(std::shared_ptr<QRLLogger> logger) : logger_(std::move(logger)) {
        QRLLog::addLogger(logger_);
    }
    ~ScopedLogger() {
        QRLLog::flushLog();
        QRLLog::removeLogger(logger_);
        QRLLog::flushLog();
    }
    ScopedLogger(const ScopedLogger&) = delete;
    ScopedLogger& operator=(const ScopedLogger&) = delete;

private:
    std::shared_ptr<QRLLogger> logger_;
};

}  // namespace qrl::test
