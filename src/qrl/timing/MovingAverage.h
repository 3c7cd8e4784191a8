// MovingAverage: the mean of the last values added over a fixed window.
// The write position wraps one slot early, so a full window of n holds n - 1
// values and divides their sum by n; that behaviour is relied upon.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>

namespace qrl {

class MovingAverage {
public:
    // Window of 20.
    MovingAverage();
    MovingAverage(const MovingAverage&) = delete;
    MovingAverage& operator=(const MovingAverage&) = delete;

    // Below 3 raises qrl::Exception "MovingAvg" / "Invalid window size, must be > 2"
    // and changes nothing; otherwise clears every value.
    void setWindowSize(int32_t windowSize);
    int32_t windowSize() const;

    void add(double value);
    // Sum of the first n slots / n, where n is the window size once full and
    // the count of values before; 0.0 while empty.
    double average() const;
    bool windowFull() const { return windowFull_.load(std::memory_order_relaxed); }

private:
    mutable std::mutex lock_;
    std::unique_ptr<double[]> data_;
    std::atomic<int32_t> dataCount_{0};
    int32_t windowSize_ = 0;
    std::atomic<bool> windowFull_{false};
};

}  // namespace qrl
