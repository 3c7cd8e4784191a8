// qrl::DispatchGroup: counts work in flight, so that a thread can wait for a
// set of tasks, or have a callable submitted to a queue when they are done.
#pragma once

#include <chrono>
#include <memory>
#include <utility>

#include "qrl/foundation/SerialQueue.h"
#include "qrl/foundation/detail/Task.h"

namespace qrl {

// enter() and leave() count by hand; SerialQueue::async(group, fn) enters
// before submitting and leaves after the task has run. The group is empty
// when every enter() has had its leave(). Waits are in real time (steady
// clock), not on the installed clock: this is a thread primitive.
//
// Thread-safe. Tasks counted in the group share its bookkeeping, so the
// group object may be destroyed while they are pending; notifications still
// go out when the last one leaves.
class DispatchGroup {
public:
    DispatchGroup();
    ~DispatchGroup();
    DispatchGroup(const DispatchGroup&) = delete;
    DispatchGroup& operator=(const DispatchGroup&) = delete;

    void enter();
    // Throws qrl::Exception("DispatchGroup", ...) for a leave() without an
    // enter() that it balances; the count stays at 0.
    void leave();

    // Blocks until the group is empty; returns at once when it already is.
    // A group that empties and fills again before the waiter wakes still
    // counts as having emptied.
    void wait();
    // As wait(), giving up at `deadline`; true when the group emptied.
    bool waitUntil(std::chrono::steady_clock::time_point deadline);
    bool waitFor(std::chrono::nanoseconds timeout);

    // Submits `fn` to `queue` once the group is empty: now, when it already
    // is, or else when the last pending leave() comes. The queue is retained
    // until then. The group counts as empty only once its notifications are
    // submitted, so a wait() that returns finds them queued. Throws qrl::Exception("DispatchGroup", ...) for a null
    // queue or an empty callable.
    template <class F>
    void notify(std::shared_ptr<SerialQueue> queue, F&& fn) {
        if (detail::isEmptyCallable(fn)) notifyRefused("an empty callable");
        notifyTask(std::move(queue), detail::Task(std::forward<F>(fn)));
    }

    // Work entered and not left, for diagnostics; may be stale on return.
    long pendingCount() const;

private:
    friend class SerialQueue;
    [[noreturn]] static void notifyRefused(const char* what);
    void notifyTask(std::shared_ptr<SerialQueue> queue, detail::Task task);

    std::shared_ptr<detail::GroupState> state_;
};

}  // namespace qrl
