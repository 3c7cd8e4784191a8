// Bookkeeping of calls in flight into observers, so that removing an observer
// can promise that it is not called once the removal has returned: removal
// waits for calls running on other threads, never for those on its own
// thread (a callback that removes itself, or a removal from inside a nested
// notification).
#pragma once

#include <condition_variable>
#include <mutex>

namespace qrl::detail {

// Per observer; guarded by the ObserverCalls that owns it.
struct ObserverGate {
    int active = 0;  // calls in flight, on any thread
    bool closed = false;
};

class ObserverCalls {
public:
    // Starts a call; false when the observer is already removed.
    bool enter(ObserverGate& gate) {
        std::lock_guard lock(mutex_);
        if (gate.closed) return false;
        ++gate.active;
        return true;
    }

    void leave(ObserverGate& gate) {
        std::lock_guard lock(mutex_);
        --gate.active;
        if (waiters_ > 0) done_.notify_all();
    }

    // Marks the observer removed and waits until the only calls in flight are
    // the calling thread's own (`ownCalls` of them).
    void close(ObserverGate& gate, int ownCalls) {
        std::unique_lock lock(mutex_);
        gate.closed = true;
        ++waiters_;
        done_.wait(lock, [&] { return gate.active <= ownCalls; });
        --waiters_;
    }

private:
    std::mutex mutex_;
    std::condition_variable done_;
    int waiters_ = 0;
};

// The calls into observers running on this thread, innermost first, so that
// a removal knows how many of an observer's calls are its own.
struct ObserverCallFrame {
    const ObserverGate* gate;
    const ObserverCallFrame* outer;
};

inline thread_local const ObserverCallFrame* tObserverCalls = nullptr;

inline int callsOnThisThread(const ObserverGate& gate) {
    int n = 0;
    for (const ObserverCallFrame* f = tObserverCalls; f; f = f->outer) n += f->gate == &gate;
    return n;
}

// Enters the gate for the lifetime of the scope; `entered()` says whether the
// call may go ahead.
class ObserverCallScope {
public:
    ObserverCallScope(ObserverCalls& calls, ObserverGate& gate)
        : calls_(calls), gate_(gate), entered_(calls.enter(gate)), frame_{&gate, tObserverCalls} {
        if (entered_) tObserverCalls = &frame_;
    }
    ~ObserverCallScope() {
        if (!entered_) return;
        tObserverCalls = frame_.outer;
        calls_.leave(gate_);
    }
    ObserverCallScope(const ObserverCallScope&) = delete;
    ObserverCallScope& operator=(const ObserverCallScope&) = delete;

    bool entered() const { return entered_; }

private:
    ObserverCalls& calls_;
    ObserverGate& gate_;
    bool entered_;
    ObserverCallFrame frame_;
};

}  // namespace qrl::detail
