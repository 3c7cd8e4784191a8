#include "qrl/logging/QRLLog.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <latch>
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

std::shared_ptr<CapturingLogger> makeLogger(const char* name) { return std::make_shared<CapturingLogger>(name); }

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

TEST_P(Engine, TheThousandAndFirstCallerGoesOnAfterExactlyOneDelivery) {
    auto holder = makeLogger("test.holder");
    std::latch entered(1), firstReleased(1), restReleased(1);
    holder->onMessage = [&, n = 0](const QRLLogMessage&) mutable {
        if (n == 0) {
            entered.count_down();
            firstReleased.wait();
        } else if (n == 1) {
            restReleased.wait();
        }
        ++n;
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
    auto until = std::chrono::steady_clock::now() + kDeadline;
    while (QRLLog::pendingMessageCount() != 1001 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    const bool waiting = QRLLog::pendingMessageCount() == 1001;
    const bool returnedWhileHeld = returned.load();
    // One message delivered (the next one is held): one in, one out.
    firstReleased.count_down();
    until = std::chrono::steady_clock::now() + kDeadline;
    while (!returned && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    const bool returnedAfterOne = returned.load();
    restReleased.count_down();
    late.join();
    EXPECT_TRUE(waiting);
    EXPECT_FALSE(returnedWhileHeld);
    EXPECT_TRUE(returnedAfterOne);
    QRLLog::flushLog();
    const Strings seen = holder->texts();
    ASSERT_EQ(seen.size(), 1001u);
    for (int i = 0; i <= 1000; ++i) ASSERT_EQ(seen[i], qrl::format("m%d", i));

    // Without loggers, messages still pass and give their room back.
    QRLLog::removeAllLoggers();
    for (int i = 0; i < 2500; ++i) logInfo("nobody hears %d", i);
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

TEST_P(Engine, TheTerminationNoticeFlushesTheLog) {
    auto slow = makeLogger("test.slow");
    slow->onMessage = [](const QRLLogMessage&) { std::this_thread::yield(); };
    QRLLog::addLogger(slow);
    for (int i = 0; i < 100; ++i) logInfo("%d", i);
    NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
    EXPECT_EQ(slow->texts().size(), 100u);
    QRLLog::removeLogger(slow);
}

}  // namespace
}  // namespace qrl
