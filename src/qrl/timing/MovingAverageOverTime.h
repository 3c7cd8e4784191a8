// MovingAverageOverTime: a rate per second over recent time buckets of the
// installed clock. Slot 0 is the bucket now filling and is left out of the
// average; empty slots hold a quiet NaN. Not thread-safe: one thread at a time.
#pragma once

#include <cstdint>
#include <memory>

namespace qrl {

class MovingAverageOverTime {
public:
    // Five buckets of one second.
    MovingAverageOverTime();
    MovingAverageOverTime(const MovingAverageOverTime&) = delete;
    MovingAverageOverTime& operator=(const MovingAverageOverTime&) = delete;

    // Bucket count becomes max(3, present count / seconds), truncated; width
    // `seconds`; then every slot is reset. A width that is not a positive
    // number, or one that would need more than kMaxBuckets buckets, raises
    // qrl::Exception "MovingAvg" and changes nothing.
    void setTimeWidth(double seconds);
    void clearAverages();
    void zeroAverages();
    void resetAverages();
    void addValue(double value);
    double average() const;

    int32_t averagesToKeep() const { return averagesToKeep_; }
    double timeWidth() const { return timeWidth_; }  // in clock ticks

    static constexpr int32_t kMaxBuckets = 1 << 20;

private:
    int32_t averagesToKeep_ = 5;
    double timeWidth_ = 0.0;
    std::unique_ptr<double[]> totals_;
    uint64_t lastTimeBucketsShifted_ = 0;
};

}  // namespace qrl
