#include "qrl/timing/MovingAverageOverTime.h"

#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "qrl/foundation/Exception.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

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
