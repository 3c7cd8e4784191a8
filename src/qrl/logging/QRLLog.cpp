#include "qrl/logging/QRLLog.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cstdlib>
#include <exception>
#include <mutex>
#include <optional>

#include "qrl/foundation/DispatchGroup.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/Semaphore.h"
#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/logging/QRLLogger.h"

namespace qrl {

namespace detail {

// The engine's way into messages it keeps for reuse.
struct LogMessageAccess {
    static QRLLogMessage* make() { return new QRLLogMessage(); }
    static std::string& text(QRLLogMessage& m) { return m.logMsg_; }
    static int32_t poolSlot(const QRLLogMessage& m) { return m.poolSlot_; }
    static void setPoolSlot(QRLLogMessage& m, int32_t slot) { m.poolSlot_ = slot; }

    static void prepare(QRLLogMessage& m, int32_t level, int32_t flag, int32_t context, const char* file,
                        const char* function, int32_t line) {
        m.logLevel_ = level;
        m.logFlag_ = flag;
        m.logContext_ = context;
        m.file_ = file;
        m.function_ = function;
        m.lineNumber_ = line;
        m.stamp();
        m.clearLazy();
    }

    // Buffers grown by an unusually long message are not kept.
    static void trim(QRLLogMessage& m) {
        constexpr size_t kKeptCapacity = 4096;
        if (m.logMsg_.capacity() > kKeptCapacity) std::string().swap(m.logMsg_);
        if (m.queueName_.capacity() > kKeptCapacity) std::string().swap(m.queueName_);
    }
};

}  // namespace detail

namespace {

using Access = detail::LogMessageAccess;

constexpr long kMaxPendingMessages = 1000;

// Depth of engine work on this thread (delivering a message, flushing,
// changing the logger list). Statements made there must not wait for room,
// and flushLog() must not be called there.
thread_local int tEngineDepth = 0;

struct EngineScope {
    EngineScope() { ++tEngineDepth; }
    ~EngineScope() { --tEngineDepth; }
    EngineScope(const EngineScope&) = delete;
    EngineScope& operator=(const EngineScope&) = delete;
};

// Messages kept for reuse together with their text buffers, so that a
// statement costs no allocation once the pool is warm. A lock-free stack of
// slot indexes; the head carries a tag that changes on every push and pop,
// so that a pop racing with a pop and a push of the same slot fails its
// compare-and-swap instead of linking a stale successor.
class MessagePool {
public:
    // The pending bound, and some for messages being made or waiting for room.
    static constexpr uint32_t kCapacity = 1152;

    QRLLogMessage* take() {
        uint64_t head = head_.load(std::memory_order_acquire);
        while (indexOf(head) != kEmpty) {
            const uint32_t index = indexOf(head);
            const uint32_t next = next_[index].load(std::memory_order_relaxed);
            if (head_.compare_exchange_weak(head, pack(tagOf(head) + 1, next), std::memory_order_acquire,
                                            std::memory_order_acquire))
                return slots_[index];
        }
        QRLLogMessage* m = Access::make();
        uint32_t created = created_.load(std::memory_order_relaxed);
        while (created < kCapacity &&
               !created_.compare_exchange_weak(created, created + 1, std::memory_order_relaxed)) {
        }
        if (created < kCapacity) {
            slots_[created] = m;
            Access::setPoolSlot(*m, static_cast<int32_t>(created));
        }
        return m;
    }

    // Keeps a pooled message for reuse; deletes any other.
    void give(QRLLogMessage* m) noexcept {
        const int32_t slot = Access::poolSlot(*m);
        if (slot < 0) {
            delete m;
            return;
        }
        Access::trim(*m);
        const auto index = static_cast<uint32_t>(slot);
        uint64_t head = head_.load(std::memory_order_relaxed);
        do {
            next_[index].store(indexOf(head), std::memory_order_relaxed);
        } while (!head_.compare_exchange_weak(head, pack(tagOf(head) + 1, index), std::memory_order_release,
                                              std::memory_order_relaxed));
    }

private:
    static constexpr uint32_t kEmpty = 0xffffffffu;
    static constexpr uint64_t pack(uint32_t tag, uint32_t index) { return (uint64_t{tag} << 32) | index; }
    static constexpr uint32_t indexOf(uint64_t head) { return static_cast<uint32_t>(head); }
    static constexpr uint32_t tagOf(uint64_t head) { return static_cast<uint32_t>(head >> 32); }

    std::atomic<uint64_t> head_{pack(0, kEmpty)};
    std::atomic<uint32_t> created_{0};
    std::array<std::atomic<uint32_t>, kCapacity> next_{};
    std::array<QRLLogMessage*, kCapacity> slots_{};
};

struct LoggerNode {
    std::shared_ptr<QRLLogger> logger;
    std::shared_ptr<SerialQueue> queue;
    bool answersFlush = false;
};

uint32_t hostProcessors() {
    const long n = ::sysconf(_SC_NPROCESSORS_CONF);
    return n > 0 ? static_cast<uint32_t>(n) : 1u;
}

struct Engine {
    SerialQueue queue{std::optional<std::string>("tigostu")};
    DispatchGroup group;
    // One unit a pending message: a caller held at the bound goes on as soon
    // as one message has been delivered.
    Semaphore room{kMaxPendingMessages};
    std::atomic<uint32_t> processors{hostProcessors()};
    MessagePool pool;
    const pid_t pid = ::getpid();
    std::vector<LoggerNode> nodes;  // newest first; touched only on the logging queue
};

Engine& engine();

void flushOnTheWayOut(const char* occasion) noexcept {
    try {
        Engine& e = engine();
        // A forked child has none of the engine's threads, and from inside
        // the engine a flush would wait for itself.
        if (::getpid() != e.pid || tEngineDepth > 0 || e.queue.isCurrent()) return;
        QRLLog::flushLog();
    } catch (const std::exception& ex) {
        try {
            platformLogFormat("QRLLog: could not flush the log %s: %s", occasion, ex.what());
        } catch (...) {
        }
    }
}

Engine& engine() {
    // Never destroyed: statements may run during static destruction.
    static Engine* const instance = [] {
        auto* e = new Engine;
        std::atexit([] { flushOnTheWayOut("at exit"); });
        NotificationCenter::defaultCenter().addObserver(
            kApplicationWillTerminateNotification, nullptr,
            [](const Notification&) { flushOnTheWayOut("at application termination"); });
        return e;
    }();
    return *instance;
}

void report(const LoggerNode& node, const char* operation, const char* what) noexcept {
    try {
        const auto& label = node.queue->label();
        platformLogFormat("QRLLog: logger %@ threw from %s: %s", label ? label->c_str() : nullptr, operation, what);
    } catch (...) {
        // Nowhere left to report to.
    }
}

template <class F>
void guarded(const LoggerNode& node, const char* operation, F&& call) noexcept {
    try {
        call();
    } catch (const std::exception& ex) {
        report(node, operation, ex.what());
    } catch (...) {
        report(node, operation, "an exception that is not a std::exception");
    }
}

// Runs `call` on the node's queue and returns when it has run: right here
// when the queue is idle, under the queue's identity.
template <class F>
void runOnQueue(const LoggerNode& node, const char* operation, F& call) noexcept {
    auto onQueue = [&] {
        EngineScope scope;
        guarded(node, operation, call);
    };
    try {
        node.queue->sync(onQueue);
    } catch (const Exception&) {
        // Refused because this thread runs a task of that queue further out:
        // the queue waits for us, so the call is as alone here as on it.
        onQueue();
    } catch (const std::exception& ex) {
        report(node, operation, ex.what());
    }
}

// Runs `call` for each node in `nodes`: in parallel on their queues, the
// last one on this thread, when `parallel`; otherwise one after another.
// Returns when all have run.
template <class Nodes, class F>
void forEachNode(Engine& e, const Nodes& nodes, bool parallel, const char* operation, F call) {
    const size_t n = nodes.size();
    if (n == 0) return;
    if (parallel && n > 1) {
        for (size_t i = 0; i + 1 < n; ++i) {
            const LoggerNode* node = &*nodes[i];
            auto task = [node, &call, operation] {
                EngineScope scope;
                guarded(*node, operation, [&] { call(*node); });
            };
            try {
                node->queue->async(e.group, task);
            } catch (const std::exception&) {
                // No worker could be started: run it here instead.
                auto direct = [&] { call(*node); };
                runOnQueue(*node, operation, direct);
            }
        }
        const LoggerNode& last = *nodes[n - 1];
        auto direct = [&] { call(last); };
        runOnQueue(last, operation, direct);
        e.group.wait();
    } else {
        for (size_t i = 0; i < n; ++i) {
            const LoggerNode& node = *nodes[i];
            auto direct = [&] { call(node); };
            runOnQueue(node, operation, direct);
        }
    }
}

// The nodes as pointers, for forEachNode.
struct AllNodes {
    const std::vector<LoggerNode>& nodes;
    size_t size() const { return nodes.size(); }
    const LoggerNode* operator[](size_t i) const { return &nodes[i]; }
};

// On the logging queue: hands the message to every logger and gives its
// room back.
void deliver(Engine& e, QRLLogMessage* m, bool permit) noexcept {
    {
        EngineScope scope;
        const bool parallel = e.processors.load(std::memory_order_relaxed) >= 2;
        forEachNode(e, AllNodes{e.nodes}, parallel, "logMessage",
                    [m](const LoggerNode& node) { node.logger->logMessage(*m); });
    }
    e.pool.give(m);
    if (permit) e.room.signal();
}

void submit(Engine& e, QRLLogMessage* m, bool synchronously) {
    // From inside the engine a wait for room could wait for itself.
    const bool nested = tEngineDepth > 0 || e.queue.isCurrent();
    const bool permit = !nested;
    if (permit) e.room.wait();
    if (synchronously && !nested) {
        try {
            e.queue.sync([&] { deliver(e, m, permit); });
            return;
        } catch (const Exception&) {
            // Refused: the logging queue waits further out on this thread.
            // The message goes behind it instead.
        }
    }
    try {
        e.queue.async([&e, m, permit] { deliver(e, m, permit); });
    } catch (const std::exception& ex) {
        // Not queued: say what it was rather than lose it.
        try {
            platformLogFormat("QRLLog: could not queue a message (%s): %@", ex.what(),
                              std::string_view(Access::text(*m)));
        } catch (...) {
        }
        e.pool.give(m);
        if (permit) e.room.signal();
    }
}

// ---------------------------------------------------------------- class registry

// Registrations are called under the registry's lock, so that none goes
// away while it runs; the lock is recursive so that a class's own hooks may
// ask the registry again.
struct ClassRegistry {
    std::recursive_mutex mutex;
    std::vector<const QRLLog::ClassRegistration*> entries;
};

ClassRegistry& classRegistry() {
    static ClassRegistry* const registry = new ClassRegistry;  // outlives every registration
    return *registry;
}

// Calls `use` with the first registration that `match` accepts, under the
// lock; false when there is none.
template <class Match, class Use>
bool withClass(Match&& match, Use&& use) {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    for (const QRLLog::ClassRegistration* entry : r.entries) {
        if (match(*entry)) {
            use(*entry);
            return true;
        }
    }
    return false;
}

auto byType(const std::type_info& cls) {
    return [&cls](const QRLLog::ClassRegistration& entry) { return entry.type() == cls; };
}

auto byName(std::string_view name) {
    return [name](const QRLLog::ClassRegistration& entry) { return entry.name() == name; };
}

}  // namespace

// ---------------------------------------------------------------- engine operations

SerialQueue& QRLLog::loggingQueue() { return engine().queue; }

void QRLLog::addLogger(std::shared_ptr<QRLLogger> logger) {
    if (!logger) return;
    Engine& e = engine();
    e.queue.async([&e, logger = std::move(logger)] {
        EngineScope scope;
        LoggerNode node;
        node.logger = logger;
        const auto fail = [&](const char* what) {
            try {
                platformLogFormat("QRLLog: a logger could not be added: %s", what);
            } catch (...) {
            }
        };
        try {
            node.queue = logger->loggerQueue();
            if (!node.queue) node.queue = std::make_shared<SerialQueue>(logger->loggerName());
            node.answersFlush = logger->answers(QRLLogger::Operation::flush);
        } catch (const std::exception& ex) {
            fail(ex.what());
            return;
        } catch (...) {
            fail("an exception that is not a std::exception");
            return;
        }
        e.nodes.insert(e.nodes.begin(), node);
        guarded(node, "didAddLogger", [&] {
            if (logger->answers(QRLLogger::Operation::didAddLogger)) logger->didAddLogger();
        });
    });
}

namespace {

// Calls willRemoveLogger() when answered; `node` names the logger in a
// report, and is null for a logger that is not in the list.
void announceRemoval(const std::shared_ptr<QRLLogger>& logger, const LoggerNode* node) noexcept {
    auto ask = [&] {
        if (logger->answers(QRLLogger::Operation::willRemoveLogger)) logger->willRemoveLogger();
    };
    if (node) {
        guarded(*node, "willRemoveLogger", ask);
        return;
    }
    try {
        ask();
    } catch (...) {
        try {
            platformLog("QRLLog: a logger that is not attached threw from willRemoveLogger");
        } catch (...) {
        }
    }
}

}  // namespace

void QRLLog::removeLogger(std::shared_ptr<QRLLogger> logger) {
    if (!logger) return;
    Engine& e = engine();
    e.queue.async([&e, logger = std::move(logger)] {
        EngineScope scope;
        auto it =
            std::find_if(e.nodes.begin(), e.nodes.end(), [&](const LoggerNode& node) { return node.logger == logger; });
        // Asked first, also when the logger is not in the list.
        announceRemoval(logger, it == e.nodes.end() ? nullptr : &*it);
        if (it != e.nodes.end()) e.nodes.erase(it);
    });
}

void QRLLog::removeAllLoggers() {
    Engine& e = engine();
    e.queue.async([&e] {
        EngineScope scope;
        for (const LoggerNode& node : e.nodes) announceRemoval(node.logger, &node);
        e.nodes.clear();
    });
}

void QRLLog::logv(bool synchronous, int32_t level, int32_t flag, int32_t context, const char* file,
                  const char* function, int32_t line, std::string_view format, std::span<const FormatArg> args) {
    Engine& e = engine();
    QRLLogMessage* m = e.pool.take();
    try {
        std::string& text = Access::text(*m);
        text.clear();
        vappendFormat(text, format, args);
        Access::prepare(*m, level, flag, context, file, function, line);
    } catch (...) {
        e.pool.give(m);
        throw;
    }
    submit(e, m, synchronous);
}

void QRLLog::queueLogMessage(std::unique_ptr<QRLLogMessage> logMessage, bool synchronously) {
    if (!logMessage) return;
    submit(engine(), logMessage.release(), synchronously);
}

void QRLLog::flushLog() {
    Engine& e = engine();
    if (tEngineDepth > 0 || e.queue.isCurrent())
        Exception::raise("QRLLog", "flushLog() called from the logging queue or from a logger would wait for itself");
    e.queue.sync([&e] {
        EngineScope scope;
        std::vector<const LoggerNode*> flushing;
        for (const LoggerNode& node : e.nodes)
            if (node.answersFlush) flushing.push_back(&node);
        forEachNode(e, flushing, true, "flush", [](const LoggerNode& node) { node.logger->flush(); });
    });
}

uint32_t QRLLog::numProcessors() { return engine().processors.load(std::memory_order_relaxed); }

uint32_t QRLLog::setNumProcessors(uint32_t count) {
    return engine().processors.exchange(count == 0 ? 1u : count, std::memory_order_relaxed);
}

// Units taken plus callers waiting for one.
long QRLLog::pendingMessageCount() { return kMaxPendingMessages - engine().room.value(); }

// ---------------------------------------------------------------- class registry

QRLLog::ClassRegistration::ClassRegistration(const std::type_info& type, std::string name, int32_t (*logLevel)(),
                                             void (*setLogLevel)(int32_t))
    : type_(&type), name_(std::move(name)), logLevel_(logLevel), setLogLevel_(setLogLevel) {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    r.entries.push_back(this);
}

QRLLog::ClassRegistration::~ClassRegistration() {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    std::erase(r.entries, this);
}

bool QRLLog::isRegisteredClass(const std::type_info& cls) {
    return withClass(byType(cls), [](const ClassRegistration&) {});
}

std::vector<const std::type_info*> QRLLog::registeredClasses() {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    std::vector<const std::type_info*> classes;
    classes.reserve(r.entries.size());
    for (const ClassRegistration* entry : r.entries) classes.push_back(&entry->type());
    return classes;
}

std::vector<std::string> QRLLog::registeredClassNames() {
    ClassRegistry& r = classRegistry();
    std::lock_guard lock(r.mutex);
    std::vector<std::string> names;
    names.reserve(r.entries.size());
    for (const ClassRegistration* entry : r.entries) names.push_back(entry->name());
    return names;
}

int32_t QRLLog::logLevelForClass(const std::type_info& cls) {
    int32_t level = -1;
    withClass(byType(cls), [&](const ClassRegistration& entry) { level = entry.logLevel(); });
    return level;
}

int32_t QRLLog::logLevelForClassWithName(std::string_view name) {
    int32_t level = -1;
    withClass(byName(name), [&](const ClassRegistration& entry) { level = entry.logLevel(); });
    return level;
}

void QRLLog::setLogLevelForClass(int32_t level, const std::type_info& cls) {
    withClass(byType(cls), [level](const ClassRegistration& entry) { entry.setLogLevel(level); });
}

void QRLLog::setLogLevelForClassWithName(int32_t level, std::string_view name) {
    withClass(byName(name), [level](const ClassRegistration& entry) { entry.setLogLevel(level); });
}

}  // namespace qrl
