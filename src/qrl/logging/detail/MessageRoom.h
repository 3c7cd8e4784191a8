// The bound on messages waiting for the loggers: a counting semaphore that,
// once it has run dry, lets callers through again only when a batch of room
// has come back, so that a producer held at the bound and the logging thread
// do not hand the processor to each other once per message.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

namespace qrl::detail {

// take() gets one unit, waiting while there is none; give() returns one.
// When take() finds none it closes a gate: from then on nobody takes, on
// the fast path or not, until `wakeBatch` units are free; then the gate
// opens for all. Nobody waits for ever while units keep coming back, and a
// caller held at the gate is not overtaken by others. Uncontended take() and
// give() are one atomic operation each. Thread-safe.
class MessageRoom {
public:
    MessageRoom(long capacity, long wakeBatch);
    MessageRoom(const MessageRoom&) = delete;
    MessageRoom& operator=(const MessageRoom&) = delete;

    void take();
    void give();

    long capacity() const { return capacity_; }
    // Units taken plus callers waiting for one; may be stale on return.
    long pending() const {
        return capacity_ - free_.load(std::memory_order_relaxed) + waiting_.load(std::memory_order_relaxed);
    }

private:
    bool tryTake();
    void open();

    const long capacity_;
    const long wakeBatch_;
    std::atomic<long> free_;
    std::atomic<bool> closed_{false};
    std::atomic<long> waiting_{0};
    std::mutex mutex_;
    std::condition_variable opened_;
};

}  // namespace qrl::detail
