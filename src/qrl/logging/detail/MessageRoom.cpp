#include "qrl/logging/detail/MessageRoom.h"

#include <algorithm>

namespace qrl::detail {

MessageRoom::MessageRoom(long capacity, long wakeBatch)
    : capacity_(std::max(capacity, 1L)), wakeBatch_(std::clamp(wakeBatch, 1L, capacity_)), free_(capacity_) {}

bool MessageRoom::tryTake() {
    long f = free_.load(std::memory_order_seq_cst);
    while (f > 0 && !closed_.load(std::memory_order_seq_cst)) {
        if (free_.compare_exchange_weak(f, f - 1, std::memory_order_seq_cst, std::memory_order_seq_cst)) return true;
    }
    return false;
}

void MessageRoom::open() {
    closed_.store(false, std::memory_order_seq_cst);
    opened_.notify_all();
}

void MessageRoom::take() {
    if (tryTake()) return;
    std::unique_lock lock(mutex_);
    while (!tryTake()) {
        if (!closed_.load(std::memory_order_seq_cst)) {
            if (free_.load(std::memory_order_seq_cst) > 0) continue;  // room came back meanwhile
            closed_.store(true, std::memory_order_seq_cst);
        }
        // A give() that passed the batch before it could see the gate
        // closed is seen here instead.
        if (free_.load(std::memory_order_seq_cst) >= wakeBatch_) {
            open();
            continue;
        }
        waiting_.fetch_add(1, std::memory_order_relaxed);
        opened_.wait(lock);
        waiting_.fetch_sub(1, std::memory_order_relaxed);
    }
}

void MessageRoom::give() {
    const long f = free_.fetch_add(1, std::memory_order_seq_cst) + 1;
    if (f >= wakeBatch_ && closed_.load(std::memory_order_seq_cst)) {
        std::lock_guard lock(mutex_);
        if (closed_.load(std::memory_order_seq_cst)) open();
    }
}

}  // namespace qrl::detail
