// QRLLogMessage: one formatted log statement with where and when it was made;
// the thread, queue label and time are taken on the caller's thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

namespace detail {
struct LogMessageAccess;
}

// The name of `filePath` without its folders and without what follows its
// last "." ("main.txt" gives "main", "/x/y" gives "y"). A "." that stands in
// a folder name only is no extension: "/a.b/c" gives "c". Null gives nullopt.
// The view points into `filePath`, which must outlive it; a caller who needs
// its own copy makes one.
std::optional<std::string_view> ExtractFileNameWithoutExtension(const char* filePath);

// A message is made on the thread of the statement and then only read: by
// every logger, possibly at the same time on several threads. The lazily made
// texts (threadID, fileName, methodName) are made once, safely, by whichever
// reader asks first.
//
// `file` and `function` are borrowed, not copied: they must outlive the
// message (the __FILE__ and __func__ of a statement do).
//
// Loggers receive messages by reference for the length of logMessage();
// a logger that wants to keep something copies it.
class QRLLogMessage {
public:
    // Takes the date now, the caller's kernel thread id and the label of the
    // queue whose task the caller runs (none outside a queue, and on an
    // unlabelled queue).
    QRLLogMessage(std::string logMsg, int32_t level, int32_t flag, int32_t context, const char* file,
                  const char* function, int32_t line);
    QRLLogMessage(const QRLLogMessage&) = delete;
    QRLLogMessage& operator=(const QRLLogMessage&) = delete;

    int32_t logLevel() const { return logLevel_; }  // effective level at the statement
    int32_t logFlag() const { return logFlag_; }
    int32_t logContext() const { return logContext_; }
    const std::string& logMsg() const { return logMsg_; }
    Date timestamp() const { return timestamp_; }
    const char* file() const { return file_; }
    const char* function() const { return function_; }
    int32_t lineNumber() const { return lineNumber_; }
    // The caller's kernel thread id (gettid).
    uint32_t machThreadID() const { return machThreadID_; }
    std::optional<std::string_view> dispatchQueueName() const {
        if (!hasQueueName_) return std::nullopt;
        return std::string_view(queueName_);
    }

    // machThreadID in lower-case hexadecimal ("%x").
    std::string_view threadID() const;
    // ExtractFileNameWithoutExtension(file()).
    std::optional<std::string_view> fileName() const;
    // function() as a string; nullopt when it is null.
    std::optional<std::string_view> methodName() const;

private:
    friend struct detail::LogMessageAccess;
    QRLLogMessage() = default;

    void stamp();  // date, thread and queue of the calling thread
    void clearLazy() { lazyReady_.store(0, std::memory_order_relaxed); }
    template <class F>
    void makeOnce(uint8_t bit, F&& make) const;

    int32_t logLevel_ = 0;
    int32_t logFlag_ = 0;
    int32_t logContext_ = 0;
    int32_t lineNumber_ = 0;
    std::string logMsg_;
    Date timestamp_;
    const char* file_ = nullptr;
    const char* function_ = nullptr;
    uint32_t machThreadID_ = 0;
    bool hasQueueName_ = false;
    std::string queueName_;

    // Lazily made texts: a bit per text in lazyReady_, made under lazyBusy_.
    mutable std::atomic<uint8_t> lazyReady_{0};
    mutable std::atomic_flag lazyBusy_;
    mutable char threadIDText_[9] = {};
    mutable uint8_t threadIDLength_ = 0;
    mutable std::optional<std::string_view> fileName_;
    mutable std::optional<std::string_view> methodName_;

    // Set by the engine for messages it keeps for reuse; -1 for the others.
    int32_t poolSlot_ = -1;
};

}  // namespace qrl
