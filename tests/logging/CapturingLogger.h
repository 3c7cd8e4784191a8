// A logger for tests that keeps a copy of every message it is given (and of
// the optional operations called on it), and a scope that attaches it to the
// engine and takes it off again.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/QRLLogMessage.h"

namespace qrl::test {

struct CapturedMessage {
    int32_t level = 0;
    int32_t flag = 0;
    int32_t context = 0;
    std::string message;
    std::string written;  // the formatter's text, or the message without one
    std::string file;
    std::string function;
    int32_t line = 0;
    std::optional<std::string> dispatchQueueName;
    // Where logMessage() ran: the current queue's label and the thread.
    std::optional<std::string> deliveredOnQueue;
    std::thread::id deliveredOnThread;
};

class CapturingLogger : public QRLAbstractLogger {
public:
    // With `answersOptional`, the logger answers didAddLogger,
    // willRemoveLogger and flush, and notes each call in events().
    explicit CapturingLogger(std::string name = "test.capture", bool answersOptional = false)
        : QRLAbstractLogger(std::move(name)), answersOptional_(answersOptional) {}

    // Called first for every message, on the logger's queue; may block or
    // throw. Set it before the logger is attached.
    std::function<void(const QRLLogMessage&)> onMessage;

    void logMessage(const QRLLogMessage& m) override {
        if (onMessage) onMessage(m);
        CapturedMessage c;
        if (QRLLogFormatter* f = formatter()) {
            if (!f->appendFormattedLogMessage(m, c.written)) return;  // no text: nothing written
        } else {
            c.written = m.logMsg();
        }
        c.level = m.logLevel();
        c.flag = m.logFlag();
        c.context = m.logContext();
        c.message = m.logMsg();
        c.file = m.file() ? m.file() : "";
        c.function = m.function() ? m.function() : "";
        c.line = m.lineNumber();
        if (auto q = m.dispatchQueueName()) c.dispatchQueueName = std::string(*q);
        if (auto q = SerialQueue::currentLabel()) c.deliveredOnQueue = std::string(*q);
        c.deliveredOnThread = std::this_thread::get_id();
        std::lock_guard lock(mutex_);
        events_.push_back(m.logMsg() + "@" + c.deliveredOnQueue.value_or("(null)"));
        messages_.push_back(std::move(c));
    }

    bool answers(Operation) const override { return answersOptional_; }
    void didAddLogger() override { note("didAdd"); }
    void willRemoveLogger() override { note("willRemove"); }
    void flush() override { note("flush"); }

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
    // Messages and optional operations in order, as "what@current queue".
    std::vector<std::string> events() const {
        std::lock_guard lock(mutex_);
        return events_;
    }

private:
    void note(const std::string& what) {
        const auto label = SerialQueue::currentLabel();
        std::lock_guard lock(mutex_);
        events_.push_back(what + "@" + (label ? std::string(*label) : "(null)"));
    }

    bool answersOptional_;
    mutable std::mutex mutex_;
    std::vector<CapturedMessage> messages_;
    std::vector<std::string> events_;
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
