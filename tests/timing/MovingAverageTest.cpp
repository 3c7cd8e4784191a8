#include "qrl/timing/MovingAverage.h"

#include <gtest/gtest.h>

#include <random>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

// The averaging rule written out plainly: wrap one slot early, divide a full
// window by its size.
struct ReferenceAverage {
    std::vector<double> data;
    int count = 0;
    bool full = false;
    explicit ReferenceAverage(int size) : data(static_cast<size_t>(size), 0.0) {}
    void add(double v) {
        if (count == static_cast<int>(data.size()) - 1) {
            count = 0;
            full = true;
        }
        data[static_cast<size_t>(count++)] = v;
    }
    double average() const {
        const int n = full ? static_cast<int>(data.size()) : count;
        double s = 0;
        for (int i = 0; i < n; ++i) s += data[static_cast<size_t>(i)];
        return n > 0 ? s / n : 0.0;
    }
};

TEST(MovingAverage, NewAverageIsZeroWithAWindowOfTwenty) {
    MovingAverage avg;
    EXPECT_EQ(avg.average(), 0.0);
    EXPECT_EQ(avg.windowSize(), 20);
    EXPECT_FALSE(avg.windowFull());
}

TEST(MovingAverage, FullWindowHoldsOneValueLessButDividesByItsSize) {
    MovingAverage avg;
    for (int i = 0; i < 20; ++i) avg.add(10.0);
    EXPECT_TRUE(avg.windowFull());
    EXPECT_DOUBLE_EQ(avg.average(), 9.5);  // 0.95 v
}

TEST(MovingAverage, WindowOfThreeWritesOnlyTheFirstTwoSlots) {
    MovingAverage avg;
    avg.setWindowSize(3);
    avg.add(1.0);
    avg.add(2.0);
    EXPECT_DOUBLE_EQ(avg.average(), 1.5);
    avg.add(4.0);  // wraps onto slot 0
    EXPECT_TRUE(avg.windowFull());
    EXPECT_DOUBLE_EQ(avg.average(), (4.0 + 2.0 + 0.0) / 3.0);
    avg.add(8.0);
    EXPECT_DOUBLE_EQ(avg.average(), (4.0 + 8.0 + 0.0) / 3.0);
}

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

TEST(MovingAverage, ResizingDropsEveryEarlierValue) {
    MovingAverage avg;
    for (int i = 0; i < 30; ++i) avg.add(1.0);
    avg.setWindowSize(5);
    EXPECT_FALSE(avg.windowFull());
    EXPECT_EQ(avg.average(), 0.0);
}

TEST(MovingAverage, MatchesTheReferenceOnGeneratedSequences) {
    std::mt19937 rng(42);
    std::uniform_real_distribution<double> value(-1e6, 1e6);
    for (int size : {3, 4, 7, 20, 150}) {
        MovingAverage avg;
        avg.setWindowSize(size);
        ReferenceAverage ref(size);
        for (int i = 0; i < 5 * size + 3; ++i) {
            const double v = value(rng);
            avg.add(v);
            ref.add(v);
            ASSERT_DOUBLE_EQ(avg.average(), ref.average()) << "size " << size << " after " << i + 1;
            ASSERT_EQ(avg.windowFull(), ref.full);
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
