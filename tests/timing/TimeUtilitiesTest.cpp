#include "qrl/timing/TimeUtilities.h"

#include <gtest/gtest.h>

#include <cstdint>

#include "support/TestSupport.h"

namespace qrl {
namespace {

TEST(TimeUtilities, ClockScaleComesFromTheInstalledClockOnFirstRead) {
    test::ScopedSimulatedClock sim(3'579'545.0, 123'456'789);
    EXPECT_EQ(QRL_USECONDS_TIMESCALE.load(), 0.0);  // installing clears it
    EXPECT_EQ(qrl_useconds(), 123'456'789u);
    EXPECT_EQ(QRL_USECONDS_TIMESCALE.load(), 3'579'545.0);
    sim.clock().advance(10);
    EXPECT_EQ(qrl_useconds(), 123'456'799u);
}

TEST(TimeUtilities, MillisecondDifferencesTruncateAndWrapUnsigned) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    qrl_useconds();
    EXPECT_EQ(qrl_time_difference_in_ms(24'000'000 + 5, 5), 1000);
    EXPECT_EQ(qrl_time_difference_in_ms(23'999 + 100, 100), 0);  // 0.99996 ms truncates
    EXPECT_EQ(qrl_time_difference_in_ms(24'000 * 7 + 23'999, 0), 7);
    // Arguments swapped: the unsigned difference is huge, never negative.
    EXPECT_GT(qrl_time_difference_in_ms(100, 24'000'100), int64_t{700'000'000'000'000});
}

TEST(TimeUtilities, MillisecondDifferenceBeforeTheScaleIsKnownStaysDefined) {
    test::ScopedSimulatedClock sim;  // scale cleared, not read yet
    EXPECT_EQ(qrl_time_difference_in_ms(0, 0), 0);
    EXPECT_EQ(qrl_time_difference_in_ms(5, 0), INT64_MAX);
}

TEST(TimeUtilities, FramesPerSecondFirstCallAndNullPointer) {
    test::ScopedSimulatedClock sim;
    EXPECT_EQ(calculateFramesPerSecond(nullptr, 12.0), 0.0);
    uint64_t last = 0;
    EXPECT_EQ(calculateFramesPerSecond(&last, 12.0), 0.0);
    EXPECT_EQ(last, sim.clock().now());
    // Two calls within one tick: 0.0 again, not the last rate.
    EXPECT_EQ(calculateFramesPerSecond(&last, 12.0), 0.0);
}

TEST(TimeUtilities, FramesPerSecondWeighsEachInstantRateByOneMinusWeighting) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    uint64_t last = 0;
    calculateFramesPerSecond(&last, 0.0);
    sim.clock().advance(800'000);  // 1/30 s
    const double w = 0.8999999761581421;
    EXPECT_DOUBLE_EQ(calculateFramesPerSecond(&last, 0.0), (1.0 - w) * 30.0);
    EXPECT_EQ(static_cast<double>(0.9f), w);
}

}  // namespace
}  // namespace qrl
