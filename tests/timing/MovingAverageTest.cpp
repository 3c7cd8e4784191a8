#include "qrl/timing/MovingAverage.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

TEST(MovingAverage, TooSmallWindowRaisesAndKeepsTheOldValues) {
    MovingAverage avg;
    avg.setWindowSize(4);
    avg.add(3.0);
    avg.add(5.0);
    try {
        avg.setWindowSize(2);
        FAIL() << "expected MovingAvg";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "MovingAvg");
        EXPECT_EQ(e.reason(), "Invalid window size, must be > 2");
    }
    EXPECT_EQ(avg.windowSize(), 4);
    EXPECT_DOUBLE_EQ(avg.average(), 4.0);
    EXPECT_THROW(avg.setWindowSize(-7), Exception);
}

// Until the window fills, the average is the mean of everything added; from
// then on the window holds the last size - 1 values and divides by size.
TEST(MovingAverage, GeneratedSequencesAverageTheLastValuesOverTheWindow) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> value(-1e6, 1e6);
    for (int size : {3, 4, 7, 20, 150}) {
        MovingAverage avg;
        avg.setWindowSize(size);
        std::vector<double> added;
        for (int i = 0; i < 5 * size + 3; ++i) {
            added.push_back(value(rng));
            avg.add(added.back());
            const bool full = static_cast<int>(added.size()) >= size;
            const size_t kept = full ? static_cast<size_t>(size - 1) : added.size();
            double sum = 0;
            for (size_t k = added.size() - kept; k < added.size(); ++k) sum += added[k];
            const double expected = sum / (full ? size : static_cast<double>(kept));
            ASSERT_NEAR(avg.average(), expected, 1e-6) << "size " << size << " after " << i + 1;
            ASSERT_EQ(avg.windowFull(), full);
        }
    }
}

TEST(MovingAverage, AddAndAverageFromSeveralThreads) {
    MovingAverage avg;
    avg.setWindowSize(8);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&avg, t] {
            for (int i = 0; i < 2000; ++i) {
                avg.add(static_cast<double>(t));
                const double a = avg.average();
                ASSERT_GE(a, 0.0);
                ASSERT_LE(a, 3.0);
                if (i % 500 == 0 && t == 0) avg.setWindowSize(8);
            }
        });
    for (auto& th : threads) th.join();
}

}  // namespace
}  // namespace qrl
