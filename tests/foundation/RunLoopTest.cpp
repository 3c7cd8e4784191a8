#include "qrl/foundation/RunLoop.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <latch>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

// 24 MHz, far from zero: the clock of every simulated test here.
class SimulatedRunLoopTest : public ::testing::Test {
protected:
    test::ScopedSimulatedClock sim;
    RunLoop loop;
    uint64_t start = sim.clock().now();

    uint64_t ticks(double seconds) const { return static_cast<uint64_t>(std::llround(seconds * 24'000'000.0)); }
    // Seconds since the start of the test, exactly as ticks allow.
    double elapsed() { return static_cast<double>(sim.clock().now() - start) / 24'000'000.0; }
};

TEST_F(SimulatedRunLoopTest, TimersFireInDeadlineOrderEachAtItsOwnDeadline) {
    std::vector<std::pair<std::string, uint64_t>> fired;
    auto record = [&](std::string name) {
        return [&, name] { fired.emplace_back(name, sim.clock().now() - start); };
    };
    loop.addTimer(0.3, false, record("c"));
    loop.addTimer(0.1, false, record("a1"));
    loop.performAfterDelay(0.2, record("b"));
    loop.addTimer(0.1, false, record("a2"));  // same deadline as a1: after it
    loop.addTimer(0.5, false, record("late"));
    EXPECT_TRUE(loop.runFor(0.3));
    EXPECT_EQ(fired, (std::vector<std::pair<std::string, uint64_t>>{
                         {"a1", ticks(0.1)}, {"a2", ticks(0.1)}, {"b", ticks(0.2)}, {"c", ticks(0.3)}}));
    EXPECT_EQ(sim.clock().now() - start, ticks(0.3));  // ends on the target, not past it
    EXPECT_EQ(loop.timerCount(), 1u);
    EXPECT_EQ(loop.nextTimerDeadline(), start + ticks(0.5));
}

TEST_F(SimulatedRunLoopTest, RepeatingTimersKeepTheirCadenceAndStopWhenCancelledFromInside) {
    std::vector<uint64_t> every100ms;
    loop.addTimer(0.1, true, [&] { every100ms.push_back(sim.clock().now() - start); });
    int thirds = 0;
    RunLoop::Token self = 0;
    self = loop.addTimer(0.3, true, [&] {
        if (++thirds == 2) {
            EXPECT_TRUE(loop.cancel(self));
        }
    });
    loop.runFor(1.0);
    ASSERT_EQ(every100ms.size(), 10u);
    for (size_t i = 0; i < every100ms.size(); ++i) EXPECT_EQ(every100ms[i], ticks(0.1 * double(i + 1)));
    EXPECT_EQ(thirds, 2);
    EXPECT_FALSE(loop.cancel(self));
}

TEST_F(SimulatedRunLoopTest, CallbacksCancelAndAddTimersAndTheLoopOutlivesExceptions) {
    std::vector<std::string> fired;
    RunLoop::Token victim = loop.addTimer(0.2, false, [&] { fired.push_back("victim"); });
    loop.addTimer(0.1, false, [&] {
        fired.push_back("killer");
        EXPECT_TRUE(loop.cancel(victim));
        // A zero delay added from a callback runs in the next pass, same instant.
        loop.performAfterDelay(0, [&] { fired.push_back("follow-up@" + std::to_string(elapsed())); });
        throw std::runtime_error("timer trouble");
    });
    loop.addTimer(0.1, false, [&] { fired.push_back("sibling"); });
    test::CapturedPlatformLog log;
    loop.runFor(1.0);
    EXPECT_EQ(fired, (std::vector<std::string>{"killer", "sibling", "follow-up@" + std::to_string(0.1)}));
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_EQ(log.countContaining("timer trouble"), 1u);
}

TEST_F(SimulatedRunLoopTest, CancelAndRescheduleCoalescesABurstIntoOneCall) {
    // Each change cancels the pending call for its target and schedules a new
    // one 0.25 s later: twenty changes 10 ms apart leave one call, 0.25 s
    // after the last.
    int target = 0;
    std::vector<double> runs;
    for (int change = 0; change < 20; ++change) {
        const size_t cancelled = loop.cancelPreviousPerformRequestsWithTarget(&target);
        EXPECT_EQ(cancelled, change == 0 ? 0u : 1u);
        loop.performAfterDelay(0.25, [&] { runs.push_back(elapsed()); }, &target);
        loop.runFor(0.01);
    }
    int other = 0;
    loop.performAfterDelay(0.1, [&] { runs.push_back(-1); }, &other);  // another target stays
    EXPECT_EQ(loop.cancelPreviousPerformRequestsWithTarget(nullptr), 0u);
    loop.runFor(2.0);
    ASSERT_EQ(runs.size(), 2u);
    EXPECT_EQ(runs[0], -1);
    EXPECT_DOUBLE_EQ(runs[1], 0.19 + 0.25);
}

TEST_F(SimulatedRunLoopTest, ASleeperWaitsForTheSimulatedClockAndNeverMovesIt) {
    std::atomic<bool> woke{false};
    std::thread sleeper([&] {
        sleepForTimeInterval(3.0);
        woke = true;
    });
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!sim.clock().nextWakeUp() && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    EXPECT_EQ(sim.clock().nextWakeUp(), start + ticks(3.0));
    sim.clock().advanceSeconds(2.5);
    EXPECT_FALSE(woke.load());
    sim.clock().advanceSeconds(0.5);
    sleeper.join();
    EXPECT_TRUE(woke.load());
    EXPECT_EQ(elapsed(), 3.0);  // what this thread moved it by, and nothing more
}

TEST(RunLoopTest, FdSourcesReportReadinessAndInvalidDescriptorsAreDropped) {
    RunLoop loop;
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    std::vector<std::string> seen;
    auto token = loop.addFdSource(fds[0], POLLIN, [&](int fd, short revents) {
        char c = 0;
        if (revents & POLLIN) {
            ASSERT_EQ(::read(fd, &c, 1), 1);
            seen.push_back(std::string("read ") + c);
        }
        if (revents & POLLNVAL) seen.push_back("invalid");
    });
    EXPECT_FALSE(loop.runOnce(0));
    ASSERT_EQ(::write(fds[1], "x", 1), 1);
    auto ignored = loop.addFdSource(fds[0], POLLIN, [&](int, short) { seen.push_back("removed"); });
    EXPECT_TRUE(loop.removeFdSource(ignored));
    EXPECT_TRUE(loop.runOnce(10.0));
    EXPECT_EQ(seen, (std::vector<std::string>{"read x"}));

    test::CapturedPlatformLog log;
    ::close(fds[0]);
    EXPECT_TRUE(loop.runOnce(10.0));
    EXPECT_FALSE(loop.removeFdSource(token));  // already dropped
    EXPECT_EQ(seen.back(), "invalid");
    EXPECT_EQ(log.lines().size(), 1u);
    ::close(fds[1]);
}

TEST(RunLoopTest, APostFromAnotherThreadWakesABlockedLoop) {
    RunLoop loop;  // real clock
    std::thread::id ranOn;
    std::latch threadStarted(1);
    std::thread poster([&] {
        threadStarted.count_down();
        loop.post([&] { ranOn = std::this_thread::get_id(); });
    });
    threadStarted.wait();
    const auto before = std::chrono::steady_clock::now();
    // Nothing else can end this wait early: no timers, no descriptors.
    EXPECT_TRUE(loop.runOnce(120.0));
    EXPECT_LT(std::chrono::steady_clock::now() - before, std::chrono::seconds(60));
    EXPECT_EQ(ranOn, std::this_thread::get_id());
    poster.join();

    // stop() from another thread ends run().
    std::thread stopper([&] { loop.post([&] { loop.stop(); }); });
    loop.run();
    stopper.join();
}

TEST(RunLoopTest, ALoopRunsOnlyOnItsOwnThread) {
    EXPECT_TRUE(RunLoop::isMainThread());  // tests run on the process's initial thread
    EXPECT_TRUE(RunLoop::main().isCurrent());
    EXPECT_EQ(&RunLoop::current(), &RunLoop::main());
    RunLoop loop;
    EXPECT_FALSE(loop.isCurrent());
    loop.runOnce(0);  // binds it to this thread
    EXPECT_TRUE(loop.isCurrent());
    std::thread other([&] {
        EXPECT_FALSE(RunLoop::isMainThread());
        EXPECT_NE(&RunLoop::current(), &RunLoop::main());
        EXPECT_TRUE(RunLoop::current().isCurrent());
        EXPECT_THROW(RunLoop::main().runOnce(0), Exception);
        EXPECT_THROW(loop.runOnce(0), Exception);
        // Posting across threads is what the main loop is for.
        RunLoop::main().post([] {});
    });
    other.join();
    EXPECT_TRUE(RunLoop::main().runOnce(0));
}

TEST(RunLoopTest, RefusesBadArguments) {
    RunLoop loop;
    const double nan = std::nan("");
    EXPECT_THROW(loop.addTimer(nan, false, [] {}), Exception);
    EXPECT_THROW(loop.addTimer(0, true, [] {}), Exception);  // would spin
    EXPECT_THROW(loop.performAfterDelay(INFINITY, [] {}), Exception);
    EXPECT_THROW(loop.post(nullptr), Exception);
    EXPECT_THROW(loop.addFdSource(-1, POLLIN, [](int, short) {}), Exception);
    EXPECT_THROW(loop.runOnce(nan), Exception);
    EXPECT_EQ(loop.timerCount(), 0u);
    // A negative delay counts as none; a huge one saturates instead of wrapping.
    int calls = 0;
    loop.performAfterDelay(-5, [&] { ++calls; });
    loop.performAfterDelay(1e300, [&] { ++calls; });
    loop.runOnce(0);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(loop.nextTimerDeadline(), UINT64_MAX);
}

}  // namespace
}  // namespace qrl
