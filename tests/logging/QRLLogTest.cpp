#include "qrl/logging/QRLLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <latch>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/NotificationCenter.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using test::CapturingLogger;
using test::ScopedLogger;
using Strings = std::vector<std::string>;

constexpr auto kDeadline = std::chrono::seconds(20);

template <class... Args>
void logInfo(const char* format, const Args&... args) {
    QRLLog::log(false, 7, 4, 1, __FILE__, __func__, __LINE__, format, args...);
}

std::shared_ptr<CapturingLogger> makeLogger(const char* name, bool answersOptional = false) {
    return std::make_shared<CapturingLogger>(name, answersOptional);
}

// Starts each test with nothing pending and puts the processor count back.
class Engine : public ::testing::TestWithParam<uint32_t> {
protected:
    void SetUp() override {
        QRLLog::flushLog();
        savedProcessors_ = QRLLog::setNumProcessors(GetParam());
        ASSERT_EQ(QRLLog::pendingMessageCount(), 0);
    }
    void TearDown() override {
        QRLLog::flushLog();
        QRLLog::setNumProcessors(savedProcessors_);
        EXPECT_EQ(QRLLog::pendingMessageCount(), 0);
    }

private:
    uint32_t savedProcessors_ = 1;
};

INSTANTIATE_TEST_SUITE_P(Processors, Engine, ::testing::Values(1u, 8u),
                         [](const ::testing::TestParamInfo<uint32_t>& p) { return p.param == 1 ? "One" : "Eight"; });

TEST_P(Engine, EveryLoggerSeesOneOrderAndEachThreadsOwnOrder) {
    auto a = makeLogger("test.a"), slow = makeLogger("test.slow"), c = makeLogger("test.c");
    slow->onMessage = [](const QRLLogMessage&) {
        volatile uint64_t h = 1469598103934665603ULL;  // takes its time, so that producers run ahead
        for (int i = 0; i < 2000; ++i) h = (h ^ static_cast<uint64_t>(i)) * 1099511628211ULL;
        std::this_thread::yield();
    };
    constexpr int kProducers = 4, kEach = 300;
    {
        ScopedLogger sa(a), ss(slow), sc(c);
        std::latch start(kProducers);
        std::vector<std::thread> producers;
        for (int p = 0; p < kProducers; ++p)
            producers.emplace_back([p, &start] {
                start.arrive_and_wait();
                for (int i = 0; i < kEach; ++i) logInfo("p%d %d", p, i);
            });
        for (auto& t : producers) t.join();
    }
    const Strings seen = a->texts();
    ASSERT_EQ(seen.size(), static_cast<size_t>(kProducers * kEach));
    EXPECT_EQ(slow->texts(), seen);
    EXPECT_EQ(c->texts(), seen);
    int next[kProducers] = {};
    for (const std::string& text : seen) {
        int p = -1, i = -1;
        ASSERT_EQ(std::sscanf(text.c_str(), "p%d %d", &p, &i), 2) << text;
        ASSERT_EQ(i, next[p]++) << "producer " << p << " out of order";
    }
    for (const auto& logger : {a, slow, c})
        for (const auto& m : logger->messages()) {
            ASSERT_EQ(m.deliveredOnQueue, logger->loggerName());  // on the logger's own queue
            EXPECT_FALSE(m.dispatchQueueName.has_value());        // producers ran on no queue
        }
}

// Start and end of each logMessage, across loggers.
struct Timeline {
    std::mutex mutex;
    Strings events;
    void add(std::string e) {
        std::lock_guard lock(mutex);
        events.push_back(std::move(e));
    }
};

TEST_P(Engine, LoggersRunInParallelOrNewestFirstAndEachMessageEndsBeforeTheNext) {
    Timeline timeline;
    // With several processors, two loggers wait inside logMessage until
    // both have arrived: possible only when they run at the same time.
    std::mutex mutex;
    std::condition_variable arrived;
    std::map<std::string, int> count;
    std::atomic<int> missed{0};
    const bool parallel = GetParam() > 1;
    auto hook = [&](const char* name) {
        return [&, name](const QRLLogMessage& m) {
            timeline.add(std::string("start ") + name + " " + m.logMsg());
            if (parallel) {
                std::unique_lock lock(mutex);
                ++count[m.logMsg()];
                arrived.notify_all();
                if (!arrived.wait_for(lock, kDeadline, [&] { return count[m.logMsg()] == 2; })) ++missed;
            }
            timeline.add(std::string("end ") + name + " " + m.logMsg());
        };
    };
    auto older = makeLogger("test.older"), newer = makeLogger("test.newer");
    older->onMessage = hook("older");
    newer->onMessage = hook("newer");
    {
        ScopedLogger s1(older), s2(newer);
        for (int i = 0; i < 10; ++i) logInfo("%d", i);
    }
    EXPECT_EQ(missed.load(), 0);
    ASSERT_EQ(timeline.events.size(), 40u);
    for (int k = 0; k < 10; ++k) {
        const std::string n = std::to_string(k);
        const auto* e = &timeline.events[4 * static_cast<size_t>(k)];
        if (parallel) {
            EXPECT_TRUE(e[0].starts_with("start") && e[1].starts_with("start")) << e[0] << ", " << e[1];
            EXPECT_TRUE(e[2].starts_with("end") && e[3].starts_with("end")) << e[2] << ", " << e[3];
            for (int j = 0; j < 4; ++j) EXPECT_TRUE(e[j].ends_with(" " + n)) << e[j];
        } else {
            EXPECT_EQ(Strings(e, e + 4),
                      (Strings{"start newer " + n, "end newer " + n, "start older " + n, "end older " + n}));
        }
    }
}

TEST_P(Engine, TheThousandAndFirstCallerWaitsUntilAMessageIsDelivered) {
    auto holder = makeLogger("test.holder");
    std::latch entered(1), released(1);
    holder->onMessage = [&, first = true](const QRLLogMessage&) mutable {
        if (!first) return;
        first = false;
        entered.count_down();
        released.wait();
    };
    ScopedLogger scope(holder);
    logInfo("m%d", 0);
    entered.wait();
    for (int i = 1; i < 1000; ++i) logInfo("m%d", i);
    EXPECT_EQ(QRLLog::pendingMessageCount(), 1000);

    std::atomic<bool> returned{false};
    std::thread late([&] {
        logInfo("m%d", 1000);
        returned = true;
    });
    // One more than the room: the late caller is waiting for it.
    const auto until = std::chrono::steady_clock::now() + kDeadline;
    while (QRLLog::pendingMessageCount() != 1001 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    const bool waiting = QRLLog::pendingMessageCount() == 1001;
    const bool returnedWhileHeld = returned.load();
    released.count_down();
    late.join();
    EXPECT_TRUE(waiting);
    EXPECT_FALSE(returnedWhileHeld);
    QRLLog::flushLog();
    const Strings seen = holder->texts();
    ASSERT_EQ(seen.size(), 1001u);
    for (int i = 0; i <= 1000; ++i) ASSERT_EQ(seen[i], qrl::format("m%d", i));

    // Without loggers, messages still pass and give their room back.
    QRLLog::removeAllLoggers();
    for (int i = 0; i < 2500; ++i) logInfo("nobody hears %d", i);
}

TEST_P(Engine, ChangesOfTheListAndFlushesComeInTheirTurn) {
    auto observer = makeLogger("test.observer", true), never = makeLogger("test.never", true);
    auto silent = makeLogger("test.silent"), slow = makeLogger("test.slow");
    slow->onMessage = [](const QRLLogMessage&) { std::this_thread::yield(); };
    ScopedLogger s1(silent), s2(slow);
    logInfo("before");
    QRLLog::addLogger(observer);
    logInfo("during");
    std::thread other([] {
        for (int i = 0; i < 100; ++i) logInfo("other %d", i);
    });
    other.join();
    QRLLog::flushLog();
    EXPECT_EQ(slow->texts().size(), 102u);  // nothing left to wait for after flushLog
    QRLLog::removeLogger(never);            // never added: asked, nothing else
    QRLLog::removeLogger(observer);
    logInfo("after");
    QRLLog::addLogger(nullptr);
    QRLLog::removeLogger(nullptr);
    QRLLog::flushLog();

    // A logger that does not flush is not waited for: its queue is held here.
    std::latch held(1), release(1);
    silent->loggerQueue()->async([&] {
        held.count_down();
        release.wait();
    });
    held.wait();
    QRLLog::flushLog();
    release.count_down();

    Strings expected{"didAdd@tigostu", "during@test.observer"};
    for (int i = 0; i < 100; ++i) expected.push_back(qrl::format("other %d@test.observer", i));
    expected.insert(expected.end(), {"flush@test.observer", "willRemove@tigostu"});
    EXPECT_EQ(observer->events(), expected);
    EXPECT_EQ(never->events(), Strings{"willRemove@tigostu"});
}

TEST_P(Engine, AThrowingLoggerIsReportedAndTheOthersCarryOn) {
    test::CapturedPlatformLog reports;
    auto steady = makeLogger("test.steady"), thrower = makeLogger("test.thrower");
    thrower->onMessage = [](const QRLLogMessage& m) {
        if (m.logMsg() == "boom") throw std::runtime_error("cannot write boom");
        if (m.logMsg() == "bang") throw 42;
    };
    {
        ScopedLogger s1(steady), s2(thrower);  // the thrower is newest: in parallel, on its own queue
        for (const char* text : {"one", "boom", "bang", "two"}) logInfo("%s", text);
    }
    EXPECT_EQ(steady->texts(), (Strings{"one", "boom", "bang", "two"}));
    EXPECT_EQ(thrower->texts(), (Strings{"one", "two"}));
    EXPECT_EQ(reports.lines(), (Strings{"QRLLog: logger test.thrower threw from logMessage: cannot write boom",
                                "QRLLog: logger test.thrower threw from logMessage: an exception that is not a "
                                "std::exception"}));
}

TEST_P(Engine, ALoggerThatLogsWhileDeliveringDoesNotWaitForItself) {
    auto echo = makeLogger("test.echo");
    std::latch entered(1), go(1);
    std::string refusedFlush;
    echo->onMessage = [&](const QRLLogMessage& m) {
        if (m.logMsg() != "call") return;
        entered.count_down();
        go.wait();
        QRLLog::log(true, 7, 4, 1, __FILE__, __func__, __LINE__, "echo sync");
        logInfo("echo async");
        try {
            QRLLog::flushLog();
        } catch (const Exception& e) {
            refusedFlush = e.name();
        }
    };
    {
        ScopedLogger scope(echo);
        logInfo("call");
        entered.wait();
        // The room is full now: a wait for it from inside would never end.
        for (int i = 1; i < 1000; ++i) logInfo("fill %d", i);
        EXPECT_EQ(QRLLog::pendingMessageCount(), 1000);
        go.count_down();
    }
    const Strings seen = echo->texts();
    ASSERT_EQ(seen.size(), 1002u);
    EXPECT_EQ(seen[999], "fill 999");
    EXPECT_EQ(seen[1000], "echo sync");  // queued behind, in the order made
    EXPECT_EQ(seen[1001], "echo async");
    EXPECT_EQ(refusedFlush, "QRLLog");
}

class PrefixFormatter : public QRLLogFormatter {
public:
    std::optional<std::string> formatLogMessage(const QRLLogMessage& m) override { return "F:" + m.logMsg(); }
};

TEST_P(Engine, SynchronousStatementsAndFormatterChangesTakeEffectInOrder) {
    auto logger = makeLogger("test.formatting");
    auto formatter = std::make_shared<PrefixFormatter>();
    {
        ScopedLogger scope(logger);
        EXPECT_EQ(logger->logFormatter(), nullptr);
        QRLLog::log(true, 1, 1, 32, __FILE__, __func__, __LINE__, "one");
        EXPECT_EQ(logger->texts().size(), 1u);  // delivered when log returned
        logger->setLogFormatter(formatter);
        EXPECT_EQ(logger->logFormatter(), formatter);
        logInfo("two");
        logger->setLogFormatter(formatter);  // the same: nothing changes
        logger->setLogFormatter(nullptr);
        QRLLog::queueLogMessage(nullptr, false);
        QRLLog::queueLogMessage(std::make_unique<QRLLogMessage>("made here", 3, 2, 16, "f.cpp", "fn", 12), true);
        EXPECT_EQ(logger->texts().size(), 3u);
    }
    const auto seen = logger->messages();
    ASSERT_EQ(seen.size(), 3u);
    EXPECT_EQ(seen[0].written, "one");
    EXPECT_EQ(seen[0].deliveredOnQueue, "test.formatting");
    EXPECT_EQ(seen[1].written, "F:two");
    EXPECT_EQ(seen[2].written, "made here");
    EXPECT_EQ(seen[2].context, 16);
    EXPECT_EQ(formatter.use_count(), 1);  // the engine and the logger let go of it
}

TEST_P(Engine, TheTerminationNoticeFlushesTheLog) {
    auto slow = makeLogger("test.slow");
    slow->onMessage = [](const QRLLogMessage&) { std::this_thread::yield(); };
    QRLLog::addLogger(slow);
    for (int i = 0; i < 100; ++i) logInfo("%d", i);
    NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
    EXPECT_EQ(slow->texts().size(), 100u);
    QRLLog::removeLogger(slow);
}

// ---------------------------------------------------------------- class levels

struct AudioThing {
    static inline int32_t level = 3;
    static int32_t qrlLogLevel() { return level; }
    static void qrlSetLogLevel(int32_t l) { level = l; }
};

namespace deep {
struct VideoThing {
    static inline int16_t level = 7;
    static int16_t qrlLogLevel() { return level; }
    static void qrlSetLogLevel(int32_t l) { level = static_cast<int16_t>(l); }
};
}  // namespace deep

struct Bystander {};

QRL_LOG_REGISTER_CLASS(AudioThing);
QRL_LOG_REGISTER_CLASS(deep::VideoThing);
static_assert(!QRLLogLevelClass<Bystander>);

TEST(QRLLogClassLevels, RegisteredClassesAnswerAndOthersGiveMinusOne) {
    AudioThing::level = 3;
    deep::VideoThing::level = 7;
    EXPECT_TRUE(QRLLog::isRegisteredClass<AudioThing>());
    EXPECT_TRUE(QRLLog::isRegisteredClass(typeid(deep::VideoThing)));
    EXPECT_FALSE(QRLLog::isRegisteredClass<Bystander>());
    const Strings names = QRLLog::registeredClassNames();
    const auto classes = QRLLog::registeredClasses();
    ASSERT_EQ(names.size(), classes.size());
    const auto audio = std::find(names.begin(), names.end(), "AudioThing");
    const auto video = std::find(names.begin(), names.end(), "deep::VideoThing");
    ASSERT_LT(audio, video);  // both there, in the order of registration
    ASSERT_NE(video, names.end());
    EXPECT_EQ(*classes[static_cast<size_t>(audio - names.begin())], typeid(AudioThing));

    EXPECT_EQ(QRLLog::logLevelForClass(typeid(AudioThing)), 3);
    EXPECT_EQ(QRLLog::logLevelForClassWithName("deep::VideoThing"), 7);
    QRLLog::setLogLevelForClassWithName(15, "AudioThing");
    QRLLog::setLogLevelForClass(1, typeid(deep::VideoThing));
    EXPECT_EQ(AudioThing::level, 15);
    EXPECT_EQ(deep::VideoThing::level, 1);
    QRLLog::setLogLevelForClassWithName(7, "Nobody");  // ignored
    QRLLog::setLogLevelForClass(7, typeid(Bystander));
    EXPECT_EQ(QRLLog::logLevelForClassWithName("Nobody"), -1);
    EXPECT_EQ(QRLLog::logLevelForClass(typeid(Bystander)), -1);

    {
        QRLLog::ClassRegistration temporary(
            typeid(Bystander), "Bystander", [] { return 1; }, [](int32_t) {});
        EXPECT_EQ(QRLLog::logLevelForClassWithName("Bystander"), 1);
    }
    EXPECT_FALSE(QRLLog::isRegisteredClass<Bystander>());  // gone with its registration
}

}  // namespace
}  // namespace qrl
