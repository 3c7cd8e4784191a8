#include "qrl/foundation/DispatchGroup.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <latch>
#include <memory>
#include <stdexcept>
#include <vector>

#include "support/TestSupport.h"

namespace qrl {
namespace {

using namespace std::chrono_literals;

TEST(DispatchGroupTest, WaitCoversTasksOnSeveralQueuesIncludingOnesThatThrow) {
    test::CapturedPlatformLog log;
    DispatchGroup group;
    EXPECT_TRUE(group.waitFor(0ns));  // empty: done at once
    std::vector<std::unique_ptr<SerialQueue>> queues;
    for (int i = 0; i < 4; ++i) queues.push_back(std::make_unique<SerialQueue>("worker" + std::to_string(i)));
    std::atomic<int> ran{0};
    for (int round = 0; round < 200; ++round) {
        for (auto& q : queues) {
            q->async(group, [&ran, round] {
                ran.fetch_add(1);
                if (round % 50 == 0) throw std::runtime_error("counted all the same");
            });
        }
    }
    group.wait();
    EXPECT_EQ(ran.load(), 800);
    EXPECT_EQ(group.pendingCount(), 0);
    EXPECT_EQ(log.countContaining("counted all the same"), 16u);  // each throw reported
}

TEST(DispatchGroupTest, NotifyFiresOnceWhenTheLastMemberLeavesOrAtOnceWhenEmpty) {
    auto q = std::make_shared<SerialQueue>("notify");
    DispatchGroup group;
    std::vector<std::string> events;  // touched on q only
    std::latch release(1);
    auto worker = std::make_shared<SerialQueue>("member");
    worker->async(group, [&] { release.wait(); });
    group.enter();
    group.notify(q, [&] { events.push_back("notified"); });
    q->sync([&] { events.push_back("before"); });
    release.count_down();
    q->sync([&] { events.push_back("member done"); });  // the group is still entered by hand
    group.leave();
    group.wait();
    q->sync([] {});
    // Empty group: submitted right away.
    group.notify(q, [&] { events.push_back("immediate"); });
    q->sync([] {});
    EXPECT_EQ(events, (std::vector<std::string>{"before", "member done", "notified", "immediate"}));
}

TEST(DispatchGroupTest, OutlivedByItsTasksAndNotifications) {
    auto q = std::make_shared<SerialQueue>("late");
    std::latch release(1);
    std::latch notified(1);
    {
        DispatchGroup group;
        q->async(group, [&] { release.wait(); });
        group.notify(q, [&] { notified.count_down(); });
    }
    release.count_down();
    notified.wait();
}

TEST(DispatchGroupTest, RefusesUnbalancedLeaveAndBadNotifyArguments) {
    DispatchGroup group;
    try {
        group.leave();
        FAIL() << "leave() without enter() was accepted";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "DispatchGroup");
    }
    EXPECT_EQ(group.pendingCount(), 0);
    EXPECT_TRUE(group.waitFor(0ns));
    EXPECT_THROW(group.notify(nullptr, [] {}), Exception);
    EXPECT_THROW(group.notify(std::make_shared<SerialQueue>(), std::function<void()>()), Exception);
}

}  // namespace
}  // namespace qrl
