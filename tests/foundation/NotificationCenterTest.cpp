#include "qrl/foundation/NotificationCenter.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

TEST(NotificationCenterTest, DeliversByNameAndSenderInRegistrationOrder) {
    NotificationCenter center;
    int senderA = 0, senderB = 0;
    std::vector<std::string> calls;
    center.addObserver("changed", nullptr, [&](const Notification& n) {
        calls.push_back("any:" + n.userInfo["k"].stringValue());
    });
    center.addObserver("changed", &senderA, [&](const Notification& n) {
        EXPECT_EQ(n.sender, &senderA);
        calls.push_back("a");
    });
    center.addObserver("", nullptr, [&](const Notification& n) { calls.push_back("all:" + n.name); });
    center.addObserver("other", nullptr, [&](const Notification&) { calls.push_back("other"); });

    center.post("changed", &senderA, Value::dictionary({{"k", "v"}}));
    center.post("changed", &senderB);
    EXPECT_EQ(calls, (std::vector<std::string>{"any:v", "a", "all:changed", "any:(null)", "all:changed"}));
}

TEST(NotificationCenterTest, RemovalsAndAdditionsDuringAPostTakeEffectAsPromised) {
    NotificationCenter center;
    std::vector<std::string> calls;
    NotificationCenter::Token second = 0, self = 0, added = 0;
    center.addObserver("n", nullptr, [&](const Notification&) {
        calls.push_back("first");
        center.removeObserver(second);  // later in this very post
        if (!added) added = center.addObserver("n", nullptr, [&](const Notification&) { calls.push_back("added"); });
    });
    second = center.addObserver("n", nullptr, [&](const Notification&) { calls.push_back("second"); });
    self = center.addObserver("n", nullptr, [&](const Notification&) {
        calls.push_back("self");
        EXPECT_TRUE(center.removeObserver(self));
        center.post("inner");  // nested posts are fine
    });
    center.post("n");
    center.post("n");
    EXPECT_EQ(calls, (std::vector<std::string>{"first", "self", "first", "added"}));
    EXPECT_FALSE(center.removeObserver(second));
    EXPECT_FALSE(center.removeObserver(0));
    EXPECT_EQ(center.observerCount(), 2u);
}

TEST(NotificationCenterTest, EveryObserverRunsAndTheFirstExceptionReachesThePoster) {
    NotificationCenter center;
    int later = 0;
    center.addObserver("n", nullptr, [](const Notification&) { throw std::runtime_error("first"); });
    center.addObserver("n", nullptr, [](const Notification&) { throw std::logic_error("second"); });
    center.addObserver("n", nullptr, [&](const Notification&) { ++later; });
    try {
        center.post("n");
        FAIL() << "no exception";
    } catch (const std::runtime_error& e) {
        EXPECT_STREQ(e.what(), "first");
    }
    EXPECT_EQ(later, 1);
    EXPECT_THROW(center.post(""), Exception);
    EXPECT_THROW(center.post("n", nullptr, Value(1)), Exception);
    EXPECT_EQ(later, 1);  // refused before anyone was called
    EXPECT_THROW(center.addObserver("n", nullptr, nullptr), Exception);
}

TEST(NotificationCenterTest, RemovalWaitsForACallInFlightOnAnotherThread) {
    NotificationCenter center;
    std::latch entered(1), release(1), removerStarted(1);
    std::atomic<bool> callbackFinished{false};
    auto token = center.addObserver("slow", nullptr, [&](const Notification&) {
        entered.count_down();
        release.wait();
        callbackFinished = true;
    });
    std::thread poster([&] { center.post("slow"); });
    entered.wait();
    std::thread remover([&] {
        removerStarted.count_down();
        EXPECT_TRUE(center.removeObserver(token));
        EXPECT_TRUE(callbackFinished.load());  // never returns while the call runs
    });
    removerStarted.wait();
    release.count_down();
    remover.join();
    poster.join();
}

}  // namespace
}  // namespace qrl
