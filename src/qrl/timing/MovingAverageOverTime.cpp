#include "qrl/timing/MovingAverageOverTime.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <string>

#include "qrl/foundation/Exception.h"
#include "qrl/timing/TimeUtilities.h"

namespace qrl {

namespace {
// The empty-slot marker: a quiet NaN with exactly this bit pattern.
const double kEmpty = std::bit_cast<double>(uint64_t{0x7ff8000000000000ULL});

double scale() { return QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed); }

// Double to unsigned ticks without undefined behaviour at the edges.
uint64_t toTicks(double v) {
    if (!(v > 0.0)) return 0;
    if (v >= 18446744073709551615.0) return UINT64_MAX;
    return static_cast<uint64_t>(v);
}
}  // namespace

MovingAverageOverTime::MovingAverageOverTime() {
    qrl_useconds();  // make the scale known
    averagesToKeep_ = 5;
    timeWidth_ = scale();
    lastTimeBucketsShifted_ = 0;
    resetAverages();
}

void MovingAverageOverTime::setTimeWidth(double seconds) {
    if (!(seconds > 0.0) || !std::isfinite(seconds))
        Exception::raise("MovingAvg", "Invalid time width " + std::to_string(seconds) + ", must be > 0 seconds");
    const double count = std::max(3.0, averagesToKeep_ / seconds);
    if (count > kMaxBuckets)
        Exception::raise("MovingAvg", "Invalid time width " + std::to_string(seconds) + ", needs more than " +
                                          std::to_string(kMaxBuckets) + " buckets");
    averagesToKeep_ = static_cast<int32_t>(count);
    timeWidth_ = seconds * scale();
    resetAverages();
}

void MovingAverageOverTime::clearAverages() { totals_.reset(); }

void MovingAverageOverTime::resetAverages() { zeroAverages(); }

void MovingAverageOverTime::zeroAverages() {
    clearAverages();
    totals_ = std::make_unique_for_overwrite<double[]>(static_cast<size_t>(averagesToKeep_));
    std::fill_n(totals_.get(), averagesToKeep_, kEmpty);
}

void MovingAverageOverTime::addValue(double value) {
    const uint64_t now = qrl_useconds();
    if (lastTimeBucketsShifted_ == 0) lastTimeBucketsShifted_ = now;
    uint64_t diff = now - lastTimeBucketsShifted_;
    if (timeWidth_ > 0.0) {
        int32_t shifted = 0;
        while (static_cast<double>(diff) / timeWidth_ >= 1.0) {
            // After a gap longer than the whole window every slot is 0.0; the
            // slots need not move again, but the start of the bucket keeps
            // advancing one width at a time, as the arithmetic below rounds.
            if (shifted < averagesToKeep_) {
                std::copy_backward(totals_.get(), totals_.get() + averagesToKeep_ - 1, totals_.get() + averagesToKeep_);
                totals_[0] = 0.0;
                ++shifted;
            }
            diff = toTicks(static_cast<double>(diff) - timeWidth_);
            lastTimeBucketsShifted_ = toTicks(static_cast<double>(lastTimeBucketsShifted_) + timeWidth_);
        }
    }
    totals_[0] += value;
}

double MovingAverageOverTime::average() const {
    if (averagesToKeep_ < 2) return 0.0;
    double sum = 0.0;
    int32_t count = 0;
    for (int32_t i = 1; i < averagesToKeep_; ++i) {
        if (std::isnan(totals_[i])) continue;
        sum += totals_[i];
        ++count;
    }
    if (count == 0) return 0.0;
    return (sum / count) * (scale() / timeWidth_);
}

}  // namespace qrl
