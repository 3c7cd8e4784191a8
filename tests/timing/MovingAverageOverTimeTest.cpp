#include "qrl/timing/MovingAverageOverTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <random>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/timing/TimeUtilities.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

// The bucket rule written out step by step, one shift per elapsed bucket.
struct ReferenceRate {
    int keep;
    double width;
    std::vector<double> totals;
    uint64_t last = 0;
    ReferenceRate(int k, double w) : keep(k), width(w), totals(static_cast<size_t>(k), std::nan("")) {}
    void add(uint64_t now, double v) {
        if (last == 0) last = now;
        uint64_t diff = now - last;
        while (static_cast<uint64_t>(static_cast<double>(diff) / width) >= 1) {
            for (int i = keep - 1; i >= 1; --i) totals[static_cast<size_t>(i)] = totals[static_cast<size_t>(i - 1)];
            totals[0] = 0.0;
            diff = static_cast<uint64_t>(static_cast<double>(diff) - width);
            last = static_cast<uint64_t>(static_cast<double>(last) + width);
        }
        totals[0] += v;
    }
    double average(double scale) const {
        double sum = 0;
        int n = 0;
        for (int i = 1; i < keep; ++i)
            if (!std::isnan(totals[static_cast<size_t>(i)])) {
                sum += totals[static_cast<size_t>(i)];
                ++n;
            }
        return n ? (sum / n) * (scale / width) : 0.0;
    }
};

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

TEST(MovingAverageOverTime, MatchesTheStepByStepRuleOnGeneratedTraces) {
    for (double freq : {24'000'000.0, 1e9, 3'579'545.0}) {
        test::ScopedSimulatedClock sim(freq, 987'654'321'123ULL);
        std::mt19937_64 rng(static_cast<uint64_t>(freq));
        for (double width : {1.0, 0.1, 0.25, 3.0}) {
            MovingAverageOverTime rate;
            rate.setTimeWidth(width);
            ReferenceRate ref(rate.averagesToKeep(), rate.timeWidth());
            for (int i = 0; i < 3000; ++i) {
                const uint64_t r = rng() % 100;
                // Mostly short steps, some gaps of many buckets.
                const double seconds = r < 90 ? 0.001 * static_cast<double>(rng() % 200)
                                              : static_cast<double>(rng() % 40) * width;
                sim.clock().advanceSeconds(seconds);
                const double v = static_cast<double>(rng() % 10);
                rate.addValue(v);
                ref.add(sim.clock().now(), v);
                ASSERT_DOUBLE_EQ(rate.average(), ref.average(freq)) << "freq " << freq << " width " << width << " i " << i;
            }
        }
    }
}

}  // namespace
}  // namespace qrl
