// qrl::Semaphore: a counting semaphore; wait() takes one unit, blocking while
// there is none, and signal() gives one back, waking one waiter.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace qrl {

// Uncontended wait() and signal() are one atomic operation each; only a
// waiter that must block, and the signal that wakes it, take the mutex.
// Waits are in real time (steady clock), not on the installed clock: this is
// a thread primitive. Thread-safe.
class Semaphore {
public:
    // Throws qrl::Exception("Semaphore", ...) for a negative count.
    explicit Semaphore(long initialCount = 0);
    Semaphore(const Semaphore&) = delete;
    Semaphore& operator=(const Semaphore&) = delete;

    void wait();
    // As wait(), giving up at `deadline`: false when it timed out, and then
    // nothing was taken.
    bool waitUntil(std::chrono::steady_clock::time_point deadline);
    bool waitFor(std::chrono::nanoseconds timeout);

    // Gives one unit back; true when it woke a waiting thread.
    bool signal();

    // Units available now (negative: that many threads wait); may be stale.
    long value() const { return static_cast<long>(count_.load(std::memory_order_relaxed)); }

private:
    bool waitSlow(const std::chrono::steady_clock::time_point* deadline);

    std::atomic<int64_t> count_;
    std::mutex mutex_;
    std::condition_variable cv_;
    int64_t wakeups_ = 0;  // signals handed to blocked waiters, not yet taken
};

}  // namespace qrl
