// QRLLog: the log engine. Messages are formatted on the caller's thread and
// handed to every attached logger in one order shared by all of them, with at
// most 1000 waiting; a caller beyond that waits, and no message is dropped.
#pragma once

#include <array>
#include <concepts>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <typeinfo>
#include <vector>

#include "qrl/foundation/Format.h"

namespace qrl {

class QRLLogger;
class QRLLogMessage;
class SerialQueue;

// A class whose log level can be read and set by name through QRLLog.
template <class T>
concept QRLLogLevelClass = requires(int32_t level) {
    { T::qrlLogLevel() } -> std::convertible_to<int32_t>;
    T::qrlSetLogLevel(level);
};

// Class-level operations only; the engine lives from its first use to the
// end of the process.
//
// Delivery. Every message, every change of the logger list and every flush
// passes through the serial queue labelled "tigostu" in submission order.
// For each message the logging queue hands the message to each logger on the
// logger's own queue, newest logger first, and waits until all have
// finished before it takes the next: with two or more processors the loggers
// run in parallel (the last one on the delivering thread), otherwise one
// after the other. A logger that throws is reported on the platform log
// (standard error) and the others still get the message.
//
// Back-pressure. A counting semaphore of 1000 is taken for each message
// before it is queued and given back once every logger has had it; the
// 1001st caller waits there until one message has been delivered. A
// statement made while delivering (from a logger, or from a task on the logging queue) does not wait, so that it
// cannot wait for itself, and a synchronous one is queued asynchronously.
// What the engine cannot see is a task of a logger's queue that the engine
// did not submit: a synchronous statement from there waits for itself.
//
// Cost. A message costs no allocation once the engine is warm (messages and
// their buffers are reused). A synchronous statement, or a logger whose
// queue is idle, runs on the thread at hand under that queue's identity
// instead of being handed to another thread.
//
// At exit, and on kApplicationWillTerminateNotification, the engine flushes.
class QRLLog {
public:
    QRLLog() = delete;

    // The serial queue labelled "tigostu"; it lives for the process.
    static SerialQueue& loggingQueue();

    // Changes of the logger list take effect in their turn, after the
    // messages queued before them. A null logger is ignored. The list holds
    // its own reference until removal.
    static void addLogger(std::shared_ptr<QRLLogger> logger);
    // Calls willRemoveLogger() when answered, also for a logger that was
    // never added; then takes it out of the list if it is there.
    static void removeLogger(std::shared_ptr<QRLLogger> logger);
    static void removeAllLoggers();

    // The entry point of every log statement: a null format does nothing;
    // otherwise the text is formatted here, on the caller's thread, and the
    // message queued. `synchronous` returns only after every logger has had
    // it. Kept out of line and cold so that each statement's guard stays a
    // few instructions.
    template <class... Args>
    [[gnu::noinline, gnu::cold]] static void log(bool synchronous, int32_t level, int32_t flag, int32_t context,
                                                 const char* file, const char* function, int32_t line,
                                                 const char* format, const Args&... args) {
        if (format == nullptr) return;
        const std::array<FormatArg, sizeof...(Args)> list{FormatArg(args)...};
        logv(synchronous, level, flag, context, file, function, line, format,
             std::span<const FormatArg>(list.data(), list.size()));
    }

    // log() with the arguments gathered by the caller.
    static void logv(bool synchronous, int32_t level, int32_t flag, int32_t context, const char* file,
                     const char* function, int32_t line, std::string_view format, std::span<const FormatArg> args);

    // Queues a message made by the caller; the engine owns it from here on.
    // A null message is ignored.
    static void queueLogMessage(std::unique_ptr<QRLLogMessage> logMessage, bool synchronously);

    // Returns once every message queued before the call has reached every
    // logger and every logger that answers flush() has flushed. Throws
    // qrl::Exception("QRLLog", ...) when called from the logging queue or
    // while delivering, where it would wait for itself.
    static void flushLog();

    // The processor count that chooses the delivery: parallel for 2 or more.
    // Starts as the host's count (1 when it reports none). Setting it (tests,
    // tuning) returns the previous count; 0 counts as 1.
    static uint32_t numProcessors();
    static uint32_t setNumProcessors(uint32_t count);

    // Messages queued and not yet delivered to every logger, counting callers
    // waiting for room; may be stale on return.
    static long pendingMessageCount();

    // ---- Class-level log levels.
    //
    // A class takes part when it has static qrlLogLevel() and
    // qrlSetLogLevel(int32_t) and is registered, once, by a static
    // ClassRegistration (QRL_LOG_REGISTER_CLASS in a .cpp of the library or
    // program that holds the class). Registrations in a shared library stay
    // for as long as it is loaded.
    class ClassRegistration {
    public:
        ClassRegistration(const std::type_info& type, std::string name, int32_t (*logLevel)(),
                          void (*setLogLevel)(int32_t));
        ~ClassRegistration();
        ClassRegistration(const ClassRegistration&) = delete;
        ClassRegistration& operator=(const ClassRegistration&) = delete;

        const std::type_info& type() const { return *type_; }
        const std::string& name() const { return name_; }
        int32_t logLevel() const { return logLevel_(); }
        void setLogLevel(int32_t level) const { setLogLevel_(level); }

    private:
        const std::type_info* type_;
        std::string name_;
        int32_t (*logLevel_)();
        void (*setLogLevel_)(int32_t);
    };

    static bool isRegisteredClass(const std::type_info& cls);
    template <class T>
    static bool isRegisteredClass() {
        return isRegisteredClass(typeid(T));
    }
    // In the order of registration.
    static std::vector<const std::type_info*> registeredClasses();
    static std::vector<std::string> registeredClassNames();
    // -1 when the class does not take part.
    static int32_t logLevelForClass(const std::type_info& cls);
    static int32_t logLevelForClassWithName(std::string_view name);
    // Ignored when the class does not take part.
    static void setLogLevelForClass(int32_t level, const std::type_info& cls);
    static void setLogLevelForClassWithName(int32_t level, std::string_view name);
};

}  // namespace qrl

#define QRL_LOG_CONCAT_INNER_(a, b) a##b
#define QRL_LOG_CONCAT_(a, b) QRL_LOG_CONCAT_INNER_(a, b)

// Registers Class (which has static qrlLogLevel() and qrlSetLogLevel(int32_t))
// under its name as written, for as long as the program or library is loaded.
#define QRL_LOG_REGISTER_CLASS(Class)                                                                                \
    static_assert(::qrl::QRLLogLevelClass<Class>, #Class " needs static qrlLogLevel() and qrlSetLogLevel(int32_t)"); \
    static const ::qrl::QRLLog::ClassRegistration QRL_LOG_CONCAT_(qrlLogClassRegistration_, __LINE__)(               \
        typeid(Class), #Class, [] { return static_cast<int32_t>(Class::qrlLogLevel()); },                            \
        [](int32_t level) { Class::qrlSetLogLevel(level); })
