// Options across processes on simulated time: a burst of changes ends in one
// broadcast a quarter of a second after its last change, received options
// are applied without being sent again, and two processes exchange options
// without echo.
#include <gtest/gtest.h>

#include <thread>

#include "logging/LoggingTestSupport.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/Logging.h"

namespace qrl {
namespace {

using test::LoggingFixture;
using test::RecordingHandler;

constexpr uint64_t kQuarterSecond = 6'000'000;  // ticks of the 24 MHz simulated clock

// Another process of the product, as far as the wire shows: a centre joined
// to this process's, a store of its own, and a handler that takes what it
// hears into its store. It posts only when told to.
class PeerProcess {
public:
    explicit PeerProcess(SimDistributedNotificationCenter& bus)
        : center_(SimDistributedNotificationCenter::create(RunLoop::main())) {
        center_->join(bus);
        center_->addObserver(this, "kLoggingOptionsChanged", std::nullopt, [this](const DistributedNotification& n) {
            heard.push_back(n);
            if (const auto& info = n.userInfo.asDictionary()) {
                for (const auto& [key, value] : *info) options.set(key, value);
            }
        });
    }
    ~PeerProcess() { center_->removeObserver(this); }

    void change(const std::string& key, Value value) {
        options.set(key, std::move(value));
        auto info = std::make_shared<Dictionary>(options);
        info->set("kLoggingOptionsReceiveCount", 0);
        info->set("kLoggingDistributedNotification", true);
        center_->postNotificationName("kLoggingOptionsChanged", "<Logging: peer>", Value(info));
    }
    std::size_t sent() const { return center_->sentCount(); }

    Dictionary options;
    std::vector<DistributedNotification> heard;

private:
    std::shared_ptr<SimDistributedNotificationCenter> center_;
};

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

TEST_F(LoggingPropagationTest, SettersAndTheSwitchAreBroadcastTogetherWithTheirFinalValues) {
    start();
    Logging::setSharedLoggingLevel(kLogLevelVerbose);
    run(0.1);
    Logging::setApplicationLoggingLevel(kLogLevelError);
    Logging::setSharedLoggingLevel(kLogLevelInfo);
    UserDefaults::standardUserDefaults()->setBool(true, "qrlLoggingEnabled");
    Logging::setUploaderLoggingLevel(kLogLevelWarning);  // unchanged: no write, no restart of the delay
    run(0.25);
    ASSERT_EQ(center_->sentCount(), 1u);
    const Value info = center_->sentNotifications()[0].userInfo;
    EXPECT_EQ(info["sharedLoggingLevel"], Value(3));
    EXPECT_EQ(info["sharedLoggingLevelText"], Value("Info"));
    EXPECT_EQ(info["applicationLoggingLevel"], Value(1));
    EXPECT_EQ(info["qrlLoggingEnabled"], Value(true));
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
    // No user information at all: every level to 0.
    logging->updateLoggingPreferencesBecauseOfNotification({"kLoggingOptionsChanged", "x", Value()});
    EXPECT_EQ(sharedLogLevel.load(), 0);
    EXPECT_EQ(applicationLogLevel.load(), 0);
    run(5.0);
    EXPECT_EQ(center_->sentCount(), 0u);
}

TEST_F(LoggingPropagationTest, TwoProcessesExchangeOptionsWithoutEcho) {
    start();
    auto handler = std::make_shared<RecordingHandler>();
    Logging::registerLoggingChangeHandler(handler);
    PeerProcess peer(*center_);

    // The peer changes an option: this process applies all it sent and stays quiet.
    peer.options = Dictionary{{"sharedLoggingLevel", 4},
                              {"uploaderLoggingLevel", "1"},
                              {"kLoggingDebug", true},
                              {"kLoggingResume", "YES"},
                              {"qrlLoggingEnabled", true}};
    peer.change("applicationLoggingLevel", 0);
    EXPECT_TRUE(handler->received.empty());  // delivered on the run loop, not during the post
    run(5.0);
    ASSERT_EQ(handler->received.size(), 1u);
    EXPECT_EQ(handler->received[0].object, "<Logging: peer>");
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelVerbose);
    EXPECT_EQ(uploaderLogLevel.load(), kLogLevelError);
    EXPECT_EQ(applicationLogLevel.load(), kLogLevelOff);
    EXPECT_EQ(foundationLogLevel.load(), kLogLevelOff);  // absent: 0
    EXPECT_EQ(additionalApplicationLogLevel.load(), kLoggingDebug | kLoggingResume);
    EXPECT_TRUE(Logging::loggingEnabled());
    EXPECT_FALSE(Logging::defaultLogger()->performingRemoteUpdate());
    // The levels went into this process's store, with their texts.
    const auto store = QRLDefaultsFactory::shared();
    EXPECT_EQ(store->integerForKey("sharedLoggingLevel"), 4);
    EXPECT_EQ(store->objectForKey("uploaderLoggingLevelText"), Value("Errors"));
    EXPECT_EQ(center_->sentCount(), 0u);
    EXPECT_EQ(peer.heard.size(), 1u);  // its own post, nothing after it

    // This process changes one: one broadcast, heard by both, and nobody answers.
    Logging::setFoundationLoggingLevel(kLogLevelError);
    run(5.0);
    EXPECT_EQ(center_->sentCount(), 1u);
    EXPECT_EQ(peer.sent(), 1u);
    ASSERT_EQ(peer.heard.size(), 2u);
    EXPECT_EQ(peer.heard[1].object, Logging::defaultLogger()->description());
    EXPECT_EQ(peer.options.get("foundationLoggingLevel"), Value(1));
    EXPECT_EQ(peer.options.get("sharedLoggingLevel"), Value(4));  // this process stored what it received
    ASSERT_EQ(handler->received.size(), 2u);                     // the peer's post and its own
    EXPECT_EQ(handler->received[1].object, Logging::defaultLogger()->description());
    EXPECT_EQ(foundationLogLevel.load(), kLogLevelError);
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
