#include "qrl/foundation/SerialQueue.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qrl/foundation/PlatformLog.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using CapturedLog = ::qrl::test::CapturedPlatformLog;

// Returns once a sync() has run inline on the calling thread, which happens
// only when the queue is idle (its worker has put its nodes back in the pool).
void waitUntilIdle(SerialQueue& q) {
    const auto me = std::this_thread::get_id();
    while (q.sync([] { return std::this_thread::get_id(); }) != me) {
    }
}

TEST(SerialQueueTest, KeepsEachProducersOrderAndRunsOneTaskAtATime) {
    constexpr int kProducers = 6;
    constexpr int kPerProducer = 5000;
    SerialQueue q("fifo");
    std::vector<std::pair<int, int>> seen;  // touched only on the queue
    std::atomic<int> inside{0};
    std::atomic<int> overlaps{0};
    std::vector<std::thread> producers;
    for (int p = 0; p < kProducers; ++p) {
        producers.emplace_back([&, p] {
            for (int i = 0; i < kPerProducer; ++i) {
                auto body = [&, p, i] {
                    if (inside.fetch_add(1) != 0) overlaps.fetch_add(1);
                    seen.emplace_back(p, i);
                    inside.fetch_sub(1);
                };
                // Mix the three ways in: plain async, and sync from time to time.
                if (i % 97 == 0) q.sync(body);
                else q.async(body);
            }
        });
    }
    for (auto& t : producers) t.join();
    q.sync([] {});
    EXPECT_EQ(overlaps.load(), 0);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kProducers * kPerProducer));
    std::array<int, kProducers> next{};
    for (auto [p, i] : seen) {
        ASSERT_EQ(i, next[p]) << "producer " << p;
        ++next[p];
    }
}

TEST(SerialQueueTest, SyncRunsAfterEverythingBeforeItUnderTheQueuesIdentity) {
    SerialQueue q("tigostu");
    std::vector<int> order;
    std::latch release(1);
    q.async([&] { release.wait(); });
    for (int i = 0; i < 10; ++i) q.async([&, i] { order.push_back(i); });

    // The queue is held by the first task: this sync must wait its turn.
    std::thread caller([&] {
        q.sync([&] {
            EXPECT_EQ(SerialQueue::currentLabel(), "tigostu");
            EXPECT_TRUE(q.isCurrent());
            order.push_back(100);
        });
    });
    release.count_down();
    caller.join();
    q.async([&] { order.push_back(200); });

    // Idle now (or soon): the inline fast path runs here, in order, as the queue.
    waitUntilIdle(q);
    const auto me = std::this_thread::get_id();
    std::thread::id ranOn;
    q.sync([&] {
        ranOn = std::this_thread::get_id();
        EXPECT_EQ(SerialQueue::currentLabel(), "tigostu");
        order.push_back(300);
    });
    EXPECT_EQ(ranOn, me);
    EXPECT_EQ(order, (std::vector<int>{0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 100, 200, 300}));
    EXPECT_FALSE(SerialQueue::currentLabel().has_value());
    EXPECT_FALSE(q.isCurrent());
}

TEST(SerialQueueTest, SyncHandsBackResultsAndExceptionsOnBothPaths) {
    SerialQueue q("results");
    EXPECT_EQ(q.sync([] { return 42; }), 42);  // inline
    EXPECT_THROW(q.sync([]() -> int { throw std::runtime_error("inline"); }), std::runtime_error);

    std::latch release(1);
    q.async([&] { release.wait(); });
    std::thread caller([&] {
        EXPECT_EQ(q.sync([] { return std::string("worker"); }), "worker");
        EXPECT_THROW(q.sync([] { throw std::logic_error("worker"); }), std::logic_error);
    });
    release.count_down();
    caller.join();
    // The queue is still usable after the exceptions.
    EXPECT_EQ(q.sync([] { return 7; }), 7);
    // Empty callables are refused at the call, not on the worker.
    EXPECT_THROW(q.async(std::function<void()>()), Exception);
    EXPECT_THROW(q.async(static_cast<void (*)()>(nullptr)), Exception);
    EXPECT_THROW(q.sync(std::function<void()>()), Exception);
}

TEST(SerialQueueTest, SyncOntoAQueueTheThreadHoldsThrowsInsteadOfDeadlocking) {
    SerialQueue a("a");
    SerialQueue b("b");
    std::vector<std::string> errors;
    auto attempt = [&](SerialQueue& q) {
        try {
            q.sync([] {});
            errors.emplace_back("none");
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), "SerialQueue");
            errors.push_back(e.reason());
        }
    };
    // From a task of the queue itself, from an inline sync, and through a
    // chain a -> b -> a.
    a.async([&] { attempt(a); });
    a.sync([&] { attempt(a); });
    a.sync([&] { b.sync([&] { attempt(a); }); });

    // The chain also holds when b's worker serves the sync on behalf of a's
    // blocked task (the likely path here: b is busy when a's task gets to it).
    std::latch bBusy(1);
    std::latch release(1);
    b.async([&] {
        bBusy.count_down();
        release.wait();
    });
    bBusy.wait();
    a.async([&] { b.sync([&] { attempt(a); }); });
    release.count_down();
    a.sync([] {});
    b.sync([] {});

    ASSERT_EQ(errors.size(), 4u);
    for (const auto& e : errors) EXPECT_NE(e.find("\"a\""), std::string::npos) << e;
    // Different queues nest freely.
    EXPECT_NO_THROW(a.sync([&] { b.sync([&] { a.async([] {}); }); }));
}

TEST(SerialQueueTest, ATaskThatThrowsIsReportedAndTheQueueGoesOn) {
    CapturedLog log;
    int after = 0;
    {
        SerialQueue q("edge");
        q.async([] { throw std::runtime_error("boom"); });
        q.async([] { throw 17; });
        q.async([&] { ++after; });
        q.sync([] {});
    }
    EXPECT_EQ(after, 1);
    // One line per failure, naming the queue and the exception.
    auto lines = log.lines();
    std::sort(lines.begin(), lines.end());
    ASSERT_EQ(lines.size(), 2u);
    EXPECT_NE(lines[0].find("SerialQueue \"edge\": "), std::string::npos) << lines[0];
    EXPECT_NE(lines[0].find("(not a std::exception)"), std::string::npos);
    EXPECT_NE(lines[1].find("SerialQueue \"edge\": "), std::string::npos) << lines[1];
    EXPECT_NE(lines[1].find("boom"), std::string::npos);
}

TEST(SerialQueueTest, DestructionRunsEverythingSubmittedIncludingWorkSubmittedDuringTheDrain) {
    std::atomic<int> ran{0};
    {
        auto q = std::make_unique<SerialQueue>("drain");
        SerialQueue* raw = q.get();
        for (int i = 0; i < 1000; ++i) {
            q->async([&, raw, i] {
                ran.fetch_add(1);
                if (i % 100 == 0) raw->async([&] { ran.fetch_add(1); });
            });
        }
        q.reset();
    }
    EXPECT_EQ(ran.load(), 1010);

    // The last owner letting go from inside a task: the worker finishes the
    // queue on its own.
    std::latch go(1);
    std::latch done(1);
    auto shared = std::make_shared<SerialQueue>("self");
    shared->async([&] { go.wait(); });
    shared->async([holder = shared]() mutable { holder.reset(); });
    shared->async([&] { done.count_down(); });
    shared.reset();
    go.count_down();
    done.wait();
}

TEST(SerialQueueTest, SmallTasksCostNoAllocationOnceThePoolIsWarmAndLargeOnesAreFreed) {
    SerialQueue q("pool");
    // Warm up: hold the queue so that 256 nodes are in use at once.
    std::latch release(1);
    q.async([&] { release.wait(); });
    for (int i = 0; i < 256; ++i) q.async([] {});
    release.count_down();
    waitUntilIdle(q);

    std::atomic<int> sum{0};
    int* values = new int[128];
    for (int i = 0; i < 128; ++i) values[i] = i;
    const size_t before = test::allocationCount();
    for (int i = 0; i < 128; ++i) q.async([&sum, values, i] { sum.fetch_add(values[i]); });
    const size_t after = test::allocationCount();
    waitUntilIdle(q);
    delete[] values;
    if (test::allocationCountingAvailable()) {
        EXPECT_EQ(after - before, 0u);
    }
    EXPECT_EQ(sum.load(), 127 * 128 / 2);

    // A callable too large for a node's inline storage still runs, and what it
    // captured is released once it has run.
    auto token = std::make_shared<int>(5);
    std::array<char, 200> big{};
    big[199] = 9;
    int seen = 0;
    q.async([token, big, &seen] { seen = big[199] + *token; });
    waitUntilIdle(q);
    EXPECT_EQ(seen, 14);
    EXPECT_EQ(token.use_count(), 1);
}

}  // namespace
}  // namespace qrl
