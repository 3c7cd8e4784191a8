// The cross-process notification centre as a port: what may travel, the
// observers' filters and removal, delivery on the run loop, and the choice
// of backend where no session bus can be reached.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <mutex>
#include <optional>
#include <thread>

#include "logging/LoggingTestSupport.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/DistributedNotificationCenter.h"
#include "qrl/logging/sim/SimDistributedNotificationCenter.h"

namespace qrl {
namespace {

using Sim = SimDistributedNotificationCenter;

// Runs what the main loop has been handed so far.
void deliverPending() {
    for (int i = 0; i < 10 && RunLoop::main().runOnce(0.0); ++i) {
    }
}

// Who heard what, in order.
struct Ear {
    std::vector<std::string> heard;
    DistributedNotificationCenter::Callback as(const std::string& who) {
        return [this, who](const DistributedNotification& n) { heard.push_back(who + ":" + n.name + "/" + n.object); };
    }
};

class BoxedThing : public Object {
public:
    std::string description() const override { return "thing"; }
};

TEST(DistributedNotificationText, PortableTextIsStrictUTF8WithoutNulOrNoncharacters) {
    const std::pair<std::string, bool> cases[] = {
        {"", true},
        {"kLoggingOptionsChanged", true},
        {"caf\xC3\xA9 \xE2\x82\xAC \xF0\x9F\x8E\xA5", true},
        {"\xF4\x8F\xBF\xBD", true},       // U+10FFFD
        {std::string("a\0b", 3), false},  // NUL
        {"\xC3\x28", false},              // bad continuation
        {"\xC0\xAF", false},              // overlong
        {"\xED\xA0\x80", false},          // surrogate
        {"\xEF\xB7\x90", false},          // U+FDD0
        {"\xEF\xBF\xBE", false},          // U+FFFE
        {"\xF4\x8F\xBF\xBF", false},      // U+10FFFF
        {"\xF4\x90\x80\x80", false},      // beyond U+10FFFF
        {"\xE2\x82", false},              // cut short
    };
    for (const auto& [text, portable] : cases)
        EXPECT_EQ(DistributedNotificationCenter::isPortableText(text), portable) << testing::PrintToString(text);
}

TEST(DistributedNotificationText, UserInformationKeepsSimpleValuesAndLeavesTheRestOut) {
    Value deep = Value::dictionary({{"leaf", 1}});
    for (int i = 0; i < 20; ++i) deep = Value::dictionary({{"d", deep}});
    const Value info = Value::dictionary({
        {"bool", true},
        {"int", INT64_MIN},
        {"real", 0.25},
        {"text", "Warnings"},
        {"data", Data{0, 1, 255}},
        {"null", Value()},
        {"date", Date{1}},
        {"decimal", Decimal::fromInt64(3)},
        {"object", Value(std::shared_ptr<Object>(std::make_shared<BoxedThing>()))},
        {"badText", "\xC3\x28"},
        {"list", Value::array({1, Value(), "x", Value::array({Value::dictionary({{"\xED\xA0\x80", 1}, {"k", 2}})})})},
        {"deep", deep},
    });
    std::size_t dropped = 0;
    const Value out = DistributedNotificationCenter::portableUserInfo(info, &dropped);
    ASSERT_TRUE(out.isDictionary());
    EXPECT_EQ(out.asDictionary()->keys(),
              (std::vector<std::string>{"bool", "int", "real", "text", "data", "list", "deep"}));
    EXPECT_EQ(out["int"], Value(INT64_MIN));
    EXPECT_EQ(out["data"], Value(Data{0, 1, 255}));
    EXPECT_EQ(out["list"], Value::array({1, "x", Value::array({Value::dictionary({{"k", 2}})})}));
    // Sixteen levels are kept (the top dictionary is the first).
    int levels = 1;
    for (Value v = out["deep"]; v.isDictionary() && v.asDictionary()->contains("d"); v = v["d"]) ++levels;
    EXPECT_EQ(levels, DistributedNotificationCenter::kMaxNesting - 1);
    // null, date, decimal, object, bad text, the null and the bad key in the
    // list, and the container past the limit.
    EXPECT_EQ(dropped, 8u);
    EXPECT_TRUE(DistributedNotificationCenter::portableUserInfo(Value()).isNull());
}

class DistributedNotificationCenterTest : public ::testing::Test {
protected:
    void TearDown() override { deliverPending(); }
    test::CapturedPlatformLog log_;
};

TEST_F(DistributedNotificationCenterTest, ObserversFilterByNameAndObjectAndLeaveByTokenIdentityOrName) {
    auto center = Sim::create(RunLoop::main());
    Ear ear;
    int x = 0, y = 0;
    center->addObserver(&x, "", std::nullopt, ear.as("any"));
    center->addObserver(&x, "n", std::string("o1"), ear.as("n-o1"));
    const auto token = center->addObserver(&y, "n", std::nullopt, ear.as("n"));
    center->addObserver(&y, "m", std::nullopt, ear.as("m"));
    EXPECT_EQ(center->observerCount(), 4u);
    center->postNotificationName("n", "o1");
    center->postNotificationName("n", "o2");
    center->postNotificationName("m", "o1");
    deliverPending();
    EXPECT_EQ(ear.heard, (std::vector<std::string>{"any:n/o1", "n-o1:n/o1", "n:n/o1", "any:n/o2", "n:n/o2", "any:m/o1",
                                                   "m:m/o1"}));
    EXPECT_TRUE(center->removeObserver(token));
    EXPECT_FALSE(center->removeObserver(token));
    EXPECT_EQ(center->removeObserver(&y, "n"), 0u);
    EXPECT_EQ(center->removeObserver(&x, "n"), 1u);
    EXPECT_EQ(center->removeObserver(&y), 1u);
    EXPECT_EQ(center->removeObserver(&x), 1u);
    EXPECT_EQ(center->observerCount(), 0u);
    EXPECT_THROW(center->addObserver(&x, "n", std::nullopt, {}), Exception);
}

TEST_F(DistributedNotificationCenterTest, BadPostsAreRefusedAndSendNothing) {
    auto center = Sim::create(RunLoop::main());
    EXPECT_THROW(center->postNotificationName("", "o"), Exception);
    EXPECT_THROW(center->postNotificationName("n\xFF", "o"), Exception);
    EXPECT_THROW(center->postNotificationName("n", std::string("o\0", 2)), Exception);
    EXPECT_THROW(center->postNotificationName("n", "o", Value(3)), Exception);
    EXPECT_EQ(center->sentCount(), 0u);
    try {
        center->postNotificationName("n", "o", "text");
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "DistributedNotificationCenter");
        EXPECT_NE(e.reason().find("dictionary or null"), std::string::npos) << e.reason();
    }
}

TEST_F(DistributedNotificationCenterTest, ValuesLeftOutAreReportedOncePerCentre) {
    auto center = Sim::create(RunLoop::main());
    std::optional<DistributedNotification> got;
    center->addObserver(nullptr, "n", std::nullopt, [&](const DistributedNotification& n) { got = n; });
    center->postNotificationName("n", "o", Value::dictionary({{"when", Date{5}}, {"kept", 1}}));
    center->postNotificationName("n", "o", Value::dictionary({{"when", Date{6}}}));
    deliverPending();
    ASSERT_TRUE(got);
    EXPECT_EQ(log_.countContaining("values that cannot travel were left out"), 1u)
        << testing::PrintToString(log_.lines());
    EXPECT_EQ(log_.countContaining("Cross-process notification n: 1 values"), 1u);
    EXPECT_EQ(center->sentNotifications()[0].userInfo, Value::dictionary({{"kept", 1}}));
}

TEST_F(DistributedNotificationCenterTest, ObserversMayRemoveEachOtherAndAFailingOneStopsNobody) {
    auto center = Sim::create(RunLoop::main());
    std::vector<std::string> calls;
    DistributedNotificationCenter::Token second = 0;
    center->addObserver(nullptr, "n", std::nullopt, [&](const DistributedNotification&) {
        calls.push_back("first");
        center->removeObserver(second);
        throw std::runtime_error("observer failed");
    });
    second = center->addObserver(nullptr, "n", std::nullopt,
                                 [&](const DistributedNotification&) { calls.push_back("second"); });
    center->addObserver(nullptr, "n", std::nullopt, [&](const DistributedNotification&) { calls.push_back("third"); });
    center->postNotificationName("n", "o");
    center->postNotificationName("n", "o");
    deliverPending();
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "third", "first", "third"}));
    EXPECT_EQ(log_.countContaining("an observer failed: observer failed"), 2u);
}


// A remover that holds a lock the running callback needs (as a defaults
// switch holds the factory lock while the callback asks for the store) must
// not wait for that callback; the removal stops every later call.
TEST_F(DistributedNotificationCenterTest, RemovalNeverWaitsForARunningCallback) {
    auto center = Sim::create(RunLoop::main());
    std::mutex factoryLock;
    std::latch lockHeld(1), callbackRunning(1);
    std::atomic<int> calls{0};
    bool callbackGotTheLock = false;
    const auto token = center->addObserver(nullptr, "n", std::nullopt, [&](const DistributedNotification&) {
        ++calls;
        callbackRunning.count_down();
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (!(callbackGotTheLock = factoryLock.try_lock()) && std::chrono::steady_clock::now() < until)
            std::this_thread::yield();
        if (callbackGotTheLock) factoryLock.unlock();
    });
    std::thread remover([&] {
        std::lock_guard lock(factoryLock);
        lockHeld.count_down();
        callbackRunning.wait();
        center->removeObserver(token);
    });
    lockHeld.wait();
    center->postNotificationName("n", "o");
    deliverPending();
    remover.join();
    EXPECT_TRUE(callbackGotTheLock);
    center->postNotificationName("n", "o");
    deliverPending();
    EXPECT_EQ(calls.load(), 1);
}
// The process's choice, under environment variables set for one test.
class DistributedNotificationChoiceTest : public DistributedNotificationCenterTest {
protected:
    test::ScopedEnvironmentVariable notification_{"QRL_NOTIFICATION_PLATFORM", std::nullopt};
    test::ScopedEnvironmentVariable platform_{"QRL_PLATFORM", std::nullopt};
    // No bus anywhere: a path that does not exist.
    test::ScopedEnvironmentVariable bus_{"DBUS_SESSION_BUS_ADDRESS", "unix:path=/nonexistent/qrl-test-bus"};
};

TEST_F(DistributedNotificationChoiceTest, WithoutABusTheProcessSaysSoOnceAndKeepsToItself) {
    ScopedDistributedNotificationCenter scope(nullptr);
    const auto center = DistributedNotificationCenter::defaultCenter();
    EXPECT_EQ(center->backendName(), "local");
    EXPECT_EQ(DistributedNotificationCenter::defaultCenter(), center);
    EXPECT_EQ(log_.countContaining("Cross-process notifications: no session bus ("), 1u)
        << testing::PrintToString(log_.lines());
    EXPECT_EQ(log_.lines().size(), 1u);
    EXPECT_EQ(DistributedNotificationCenter::choiceReport().rfind("local (dbus: ", 0), 0u)
        << DistributedNotificationCenter::choiceReport();
    int calls = 0;
    center->addObserver(nullptr, "n", std::nullopt, [&](const DistributedNotification&) { ++calls; });
    center->postNotificationName("n", "o");
    deliverPending();
    EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace qrl
