#include "qrl/foundation/Semaphore.h"

#include <string>

#include "qrl/foundation/Exception.h"

namespace qrl {

Semaphore::Semaphore(long initialCount) : count_(initialCount) {
    if (initialCount < 0)
        Exception::raise("Semaphore", "the initial count must not be negative, got " + std::to_string(initialCount));
}

void Semaphore::wait() {
    if (count_.fetch_sub(1, std::memory_order_acquire) > 0) return;
    waitSlow(nullptr);
}

bool Semaphore::waitUntil(std::chrono::steady_clock::time_point deadline) {
    if (count_.fetch_sub(1, std::memory_order_acquire) > 0) return true;
    return waitSlow(&deadline);
}

bool Semaphore::waitFor(std::chrono::nanoseconds timeout) {
    return waitUntil(std::chrono::steady_clock::now() + timeout);
}

// The count went negative: this thread is registered as a waiter and must
// either take a wakeup or, on time-out, take its registration back.
bool Semaphore::waitSlow(const std::chrono::steady_clock::time_point* deadline) {
    std::unique_lock lock(mutex_);
    if (deadline) {
        if (!cv_.wait_until(lock, *deadline, [&] { return wakeups_ > 0; })) {
            int64_t c = count_.load(std::memory_order_relaxed);
            while (c < 0) {
                if (count_.compare_exchange_weak(c, c + 1, std::memory_order_relaxed)) return false;
            }
            // A signal has already counted this waiter and its wakeup is on
            // the way (it needs this mutex): take it.
        }
    }
    cv_.wait(lock, [&] { return wakeups_ > 0; });
    --wakeups_;
    return true;
}

bool Semaphore::signal() {
    if (count_.fetch_add(1, std::memory_order_release) >= 0) return false;
    // Notified under the mutex: the woken thread may destroy the semaphore as
    // soon as it returns.
    std::lock_guard lock(mutex_);
    ++wakeups_;
    cv_.notify_one();
    return true;
}

}  // namespace qrl
