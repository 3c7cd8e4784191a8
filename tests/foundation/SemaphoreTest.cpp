#include "qrl/foundation/Semaphore.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

TEST(SemaphoreTest, NeverAdmitsMoreThanTheCountUnderContentionWithTimeouts) {
    constexpr int kCount = 2;
    Semaphore s(kCount);
    std::atomic<int> inside{0};
    std::atomic<int> worst{0};
    std::atomic<long> admitted{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < 2000; ++i) {
                // Odd threads give up quickly, which exercises the race between
                // a time-out and a signal that already counted the waiter.
                const bool got = (t % 2) ? s.waitFor(std::chrono::microseconds(i % 3)) : (s.wait(), true);
                if (!got) continue;
                const int now = inside.fetch_add(1) + 1;
                int w = worst.load();
                while (now > w && !worst.compare_exchange_weak(w, now)) {
                }
                admitted.fetch_add(1);
                inside.fetch_sub(1);
                s.signal();
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_LE(worst.load(), kCount);
    EXPECT_GE(admitted.load(), 3 * 2000);  // every blocking waiter got through
    EXPECT_EQ(s.value(), kCount);          // no unit lost or made up
}

TEST(SemaphoreTest, RefusesANegativeCount) {
    try {
        Semaphore s(-1);
        FAIL() << "a negative count was accepted";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "Semaphore");
    }
}

}  // namespace
}  // namespace qrl
