// Options across processes on simulated time: a burst of changes ends in one
// broadcast a quarter of a second after its last change, and received
// options are applied without being sent again.
#include <gtest/gtest.h>

#include <thread>

#include "logging/LoggingTestSupport.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/Logging.h"

namespace qrl {
namespace {

using test::LoggingFixture;

constexpr uint64_t kQuarterSecond = 6'000'000;  // ticks of the 24 MHz simulated clock

class LoggingPropagationTest : public LoggingFixture {
protected:
    // Starts Logging and lets the start-up broadcast go out.
    void start() {
        LoggerStart();
        run(0.25);
        drainMainLoop();  // its delivery, to nobody yet
        ASSERT_EQ(center_->sentCount(), 1u);
        center_->clearSent();
    }
    uint64_t now() { return clock_.clock().now(); }
};

TEST_F(LoggingPropagationTest, TwentyChangesInABurstGiveOneBroadcastAQuarterSecondAfterTheLast) {
    start();
    auto defaults = UserDefaults::standardUserDefaults();
    uint64_t last = 0;
    for (int i = 0; i < 20; ++i) {
        defaults->setObject(i % 2 == 1, "kLoggingDebug");
        last = now();
        EXPECT_EQ((additionalApplicationLogLevel.load() & kLoggingDebug) != 0, i % 2 == 1);
        run(0.01);  // 20 changes in 0.2 s
    }
    EXPECT_EQ(center_->sentCount(), 0u);
    ASSERT_EQ(RunLoop::main().nextTimerDeadline(), last + kQuarterSecond);
    RunLoop::main().runUntil(last + kQuarterSecond - 1);
    EXPECT_EQ(center_->sentCount(), 0u);
    RunLoop::main().runUntil(last + kQuarterSecond);
    ASSERT_EQ(center_->sentCount(), 1u);
    EXPECT_EQ(center_->sentNotifications()[0].userInfo["kLoggingDebug"], Value(true));
    run(10.0);
    EXPECT_EQ(center_->sentCount(), 1u);
}

TEST_F(LoggingPropagationTest, OnlyANumberSwitchesLoggingFromANotification) {
    start();
    const auto logging = Logging::defaultLogger();
    Dictionary base = *QRLDefaultsFactory::shared()->dictionaryRepresentation();
    auto apply = [&](Value enabled) {
        auto info = std::make_shared<Dictionary>(base);
        if (!enabled.isNull()) info->set("qrlLoggingEnabled", enabled);
        logging->updateLoggingPreferencesBecauseOfNotification({"kLoggingOptionsChanged", "x", Value(info)});
    };
    apply("YES");
    EXPECT_FALSE(Logging::loggingEnabled());
    apply(1);
    EXPECT_TRUE(Logging::loggingEnabled());
    apply(Value());  // absent: left as it is
    EXPECT_TRUE(Logging::loggingEnabled());
    apply(false);
    EXPECT_FALSE(Logging::loggingEnabled());
    run(5.0);
    EXPECT_EQ(center_->sentCount(), 0u);
}

TEST_F(LoggingPropagationTest, AChangeOnAnotherThreadIsBroadcastFromThatThreadsRunLoop) {
    start();
    std::size_t sentOnThread = 0;
    std::thread worker([&] {
        Logging::setUploaderLoggingLevel(kLogLevelVerbose);
        RunLoop::current().runFor(0.25);
        sentOnThread = center_->sentCount();
    });
    worker.join();
    EXPECT_EQ(sentOnThread, 1u);
    EXPECT_EQ(center_->sentNotifications()[0].userInfo["uploaderLoggingLevel"], Value(4));
    EXPECT_EQ(RunLoop::main().timerCount(), 0u);  // nothing was scheduled here
}

}  // namespace
}  // namespace qrl
