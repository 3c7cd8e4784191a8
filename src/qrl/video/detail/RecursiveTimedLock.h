// RecursiveTimedLock: a recursive lock with non-blocking and time-limited
// attempts (std::recursive_timed_mutex's interface), built on a plain mutex
// and a condition variable so that every thread checker sees its waits.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <mutex>
#include <thread>

namespace qrl::detail {

class RecursiveTimedLock {
public:
    RecursiveTimedLock() = default;
    RecursiveTimedLock(const RecursiveTimedLock&) = delete;
    RecursiveTimedLock& operator=(const RecursiveTimedLock&) = delete;

    void lock() {
        std::unique_lock guard(mutex_);
        const auto self = std::this_thread::get_id();
        if (depth_ > 0 && owner_ == self) {
            ++depth_;
            return;
        }
        released_.wait(guard, [&] { return depth_ == 0; });
        owner_ = self;
        depth_ = 1;
    }

    bool try_lock() {
        std::lock_guard guard(mutex_);
        return takeLocked();
    }

    template <class Rep, class Period>
    bool try_lock_for(const std::chrono::duration<Rep, Period>& limit) {
        std::unique_lock guard(mutex_);
        const auto self = std::this_thread::get_id();
        if (depth_ > 0 && owner_ == self) {
            ++depth_;
            return true;
        }
        if (!released_.wait_for(guard, limit, [&] { return depth_ == 0; })) return false;
        owner_ = self;
        depth_ = 1;
        return true;
    }

    // Must be called by the owner, once per successful lock.
    void unlock() {
        {
            std::lock_guard guard(mutex_);
            if (depth_ == 0 || owner_ != std::this_thread::get_id()) return;  // not held here: ignored
            if (--depth_ > 0) return;
            owner_ = std::thread::id();
        }
        released_.notify_one();
    }

private:
    bool takeLocked() {
        const auto self = std::this_thread::get_id();
        if (depth_ > 0 && owner_ != self) return false;
        owner_ = self;
        ++depth_;
        return true;
    }

    std::mutex mutex_;
    std::condition_variable released_;
    std::thread::id owner_;
    std::size_t depth_ = 0;
};

}  // namespace qrl::detail
