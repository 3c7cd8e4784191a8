#include "qrl/timing/MovingAverageOverTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/timing/TimeUtilities.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

TEST(MovingAverageOverTime, FirstBucketNeverShowsAndSteadyRateIsExact) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    MovingAverageOverTime rate;
    EXPECT_EQ(rate.averagesToKeep(), 5);
    EXPECT_EQ(rate.timeWidth(), 24'000'000.0);
    // 30 values of 1.0 a second, at exact thirtieths of a second.
    for (int i = 0; i < 30; ++i) {
        rate.addValue(1.0);
        sim.clock().advance(800'000);
    }
    // The first second went into slot 0, still NaN: nothing shows yet.
    rate.addValue(1.0);
    EXPECT_EQ(rate.average(), 0.0);
    for (int i = 1; i < 30; ++i) {
        sim.clock().advance(800'000);
        rate.addValue(1.0);
    }
    sim.clock().advance(800'000);
    rate.addValue(1.0);  // second bucket moves into slot 1
    EXPECT_DOUBLE_EQ(rate.average(), 30.0);
    for (int i = 0; i < 200; ++i) {
        sim.clock().advance(800'000);
        rate.addValue(1.0);
    }
    EXPECT_DOUBLE_EQ(rate.average(), 30.0);
}

TEST(MovingAverageOverTime, SilencePullsTheRateToZero) {
    test::ScopedSimulatedClock sim(1e9);
    MovingAverageOverTime rate;
    for (int i = 0; i < 100; ++i) {
        rate.addValue(2.0);
        sim.clock().advance(100'000'000);
    }
    EXPECT_DOUBLE_EQ(rate.average(), 20.0);
    sim.clock().advanceSeconds(2.0);
    rate.addValue(0.0);
    EXPECT_GT(rate.average(), 0.0);
    EXPECT_LT(rate.average(), 20.0);
    sim.clock().advanceSeconds(3600.0 * 24);  // a day: one shift per bucket, all zeros
    rate.addValue(0.0);
    EXPECT_EQ(rate.average(), 0.0);
}

TEST(MovingAverageOverTime, TimeWidthSetsTheBucketCountFromThePresentOne) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    MovingAverageOverTime a;
    a.setTimeWidth(0.1);
    EXPECT_EQ(a.averagesToKeep(), 50);
    EXPECT_DOUBLE_EQ(a.timeWidth(), 2'400'000.0);
    a.setTimeWidth(0.5);  // compounds: 50 / 0.5
    EXPECT_EQ(a.averagesToKeep(), 100);

    MovingAverageOverTime b;
    b.setTimeWidth(10.0);
    EXPECT_EQ(b.averagesToKeep(), 3);  // 5 / 10 is below the bound

    for (double bad : {0.0, -1.0, std::nan(""), double(INFINITY), 1e-9}) {
        MovingAverageOverTime c;
        EXPECT_THROW(c.setTimeWidth(bad), Exception) << bad;
        EXPECT_EQ(c.averagesToKeep(), 5);
    }
}

TEST(MovingAverageOverTime, ZeroingKeepsTheBucketStart) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    MovingAverageOverTime rate;
    for (int i = 0; i < 90; ++i) {
        rate.addValue(1.0);
        sim.clock().advance(800'000);
    }
    EXPECT_GT(rate.average(), 0.0);
    rate.zeroAverages();
    EXPECT_EQ(rate.average(), 0.0);
}

// Buckets start at the first value and follow each other a width apart, gaps
// included; the rate is the mean of the last averagesToKeep - 1 finished
// buckets after the first (which never shows), scaled to one second.
TEST(MovingAverageOverTime, GeneratedTracesAverageTheFinishedBuckets) {
    for (double freq : {24'000'000.0, 1e9, 3'579'545.0}) {
        test::ScopedSimulatedClock sim(freq, 987'654'321'123ULL);
        std::mt19937_64 rng(static_cast<uint64_t>(freq));
        for (double width : {1.0, 0.2, 4.0}) {
            MovingAverageOverTime rate;
            rate.setTimeWidth(width);
            const int keep = rate.averagesToKeep();
            const uint64_t ticks = static_cast<uint64_t>(rate.timeWidth());
            ASSERT_EQ(static_cast<double>(ticks), rate.timeWidth());
            const uint64_t start = sim.clock().now();
            rate.addValue(0.0);
            std::map<uint64_t, double> totals;  // by bucket number
            for (int i = 0; i < 2000; ++i) {
                // Mostly short steps, some gaps of many buckets.
                sim.clock().advance(rng() % 100 < 90 ? rng() % (ticks / 8) : (rng() % 40) * ticks);
                const double v = static_cast<double>(rng() % 10);
                rate.addValue(v);
                const uint64_t bucket = (sim.clock().now() - start) / ticks;
                totals[bucket] += v;
                double sum = 0;
                int finished = 0;
                for (uint64_t b = bucket; b-- > 1 && finished < keep - 1; ++finished) {
                    auto it = totals.find(b);
                    sum += it == totals.end() ? 0.0 : it->second;
                }
                const double expected = finished ? sum / finished * freq / rate.timeWidth() : 0.0;
                ASSERT_NEAR(rate.average(), expected, 1e-9 * (1 + expected)) << freq << " " << width << " " << i;
            }
        }
    }
}

}  // namespace
}  // namespace qrl
