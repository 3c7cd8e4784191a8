#include "qrl/timing/MovingAverage.h"

#include "qrl/foundation/Exception.h"

namespace qrl {

MovingAverage::MovingAverage() { setWindowSize(20); }

void MovingAverage::setWindowSize(int32_t windowSize) {
    if (windowSize < 3) Exception::raise("MovingAvg", "Invalid window size, must be > 2");
    auto fresh = std::make_unique<double[]>(static_cast<size_t>(windowSize));  // zeroed
    std::lock_guard guard(lock_);
    windowSize_ = windowSize;
    data_ = std::move(fresh);
    dataCount_.store(0, std::memory_order_relaxed);
    windowFull_.store(false, std::memory_order_relaxed);
}

int32_t MovingAverage::windowSize() const {
    std::lock_guard guard(lock_);
    return windowSize_;
}

void MovingAverage::add(double value) {
    std::lock_guard guard(lock_);
    int32_t count = dataCount_.load(std::memory_order_relaxed);
    if (count == windowSize_ - 1) {
        count = 0;
        windowFull_.store(true, std::memory_order_relaxed);
    }
    data_[count] = value;
    dataCount_.store(count + 1, std::memory_order_relaxed);
}

double MovingAverage::average() const {
    // The count is chosen before the lock is taken, as the readers of this
    // class expect; a concurrent setWindowSize can shrink the window in
    // between, so the sum is bounded by the window under the lock.
    const int32_t n = windowFull_.load(std::memory_order_relaxed) ? windowSize() : dataCount_.load(std::memory_order_relaxed);
    if (n <= 0) return 0.0;
    std::lock_guard guard(lock_);
    const int32_t limit = n < windowSize_ ? n : windowSize_;
    double sum = 0.0;
    for (int32_t i = 0; i < limit; ++i) sum += data_[i];
    return sum / n;
}

}  // namespace qrl
