// qrl::SerialQueue: a labelled first-in-first-out work queue whose tasks run
// one at a time, in submission order, with the queue's label readable from
// inside them.
#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/detail/Task.h"

namespace qrl {

class DispatchGroup;
namespace detail {
struct GroupState;
}

// Tasks submitted with async() run on a worker thread of the queue's own,
// started on the first submission, named after the label (cut to 15 bytes)
// and parked while the queue is empty. The worker is woken only when the
// queue goes from empty to non-empty; tasks are kept in pooled nodes with
// inline storage, so a small callable costs no allocation once the pool is
// warm.
//
// sync() returns after its callable has run, after everything submitted
// before it. On an idle queue it runs the callable right away on the calling
// thread, under the queue's identity (currentLabel() and isCurrent() answer
// for this queue inside it); otherwise it waits for the worker to reach it.
// A sync() onto a queue that the calling thread is already running a task of
// (directly, or through a chain of sync() calls) would never return: it
// throws qrl::Exception("SerialQueue", ...) instead.
//
// A task that throws is caught at the queue's edge; one line naming the queue
// and the exception goes to the platform log (standard error) and the queue
// carries on. An exception thrown by a sync() callable is handed back to the
// caller of sync().
//
// Destroying the queue runs every task submitted so far (including tasks that
// those tasks submit) and joins the worker. When the last owner drops the
// queue from one of its own tasks, the worker finishes the remaining tasks
// and then exits on its own.
//
// Thread-safe: every member may be called from any thread.
class SerialQueue {
public:
    // A queue without a label: currentLabel() answers nullopt inside it, and
    // texts that show the label print "(null)".
    explicit SerialQueue(std::optional<std::string> label = std::nullopt);
    ~SerialQueue();
    SerialQueue(const SerialQueue&) = delete;
    SerialQueue& operator=(const SerialQueue&) = delete;

    const std::optional<std::string>& label() const;

    // Submits `fn` to run after everything submitted before. Throws
    // qrl::Exception("SerialQueue", ...) for an empty callable or when no
    // worker thread can be started; nothing is queued then.
    template <class F>
    void async(F&& fn) {
        if (detail::isEmptyCallable(fn)) emptyCallable("async");
        enqueue(detail::Task(std::forward<F>(fn)), nullptr);
    }

    // As async(fn), with the task counted in `group` from now until it has
    // run (whether it returned or threw). The group's bookkeeping is shared
    // with the task, so the group object itself may go away first.
    template <class F>
    void async(DispatchGroup& group, F&& fn) {
        if (detail::isEmptyCallable(fn)) emptyCallable("async");
        enqueueInGroup(group, detail::Task(std::forward<F>(fn)));
    }

    // Runs `fn` on this queue and returns its result (or rethrows its
    // exception) once it has run. See the class comment for the fast path
    // and deadlock detection.
    template <class F>
    std::invoke_result_t<F&> sync(F&& fn) {
        using R = std::invoke_result_t<F&>;
        static_assert(!std::is_reference_v<R>, "sync() returns results by value");
        if (detail::isEmptyCallable(fn)) emptyCallable("sync");
        if constexpr (std::is_void_v<R>) {
            auto call = [&fn] { std::invoke(fn); };
            runSync(&call, [](void* c) { (*static_cast<decltype(call)*>(c))(); });
        } else {
            std::optional<R> result;
            auto call = [&fn, &result] { result.emplace(std::invoke(fn)); };
            runSync(&call, [](void* c) { (*static_cast<decltype(call)*>(c))(); });
            return std::move(*result);
        }
    }

    // Whether the calling thread is running a task of this queue right now
    // (the innermost one, when sync() calls are nested).
    bool isCurrent() const;

    // The label of the queue whose task runs on the calling thread (the
    // innermost one); nullopt on a thread that runs no queue's task, on the
    // main thread outside any queue, and inside an unlabelled queue. The view
    // stays valid while the current task runs.
    static std::optional<std::string_view> currentLabel();

    struct Impl;  // shared with the worker thread

private:
    friend class DispatchGroup;
    friend struct detail::GroupState;

    [[noreturn]] static void emptyCallable(const char* operation);
    void enqueue(detail::Task task, std::shared_ptr<detail::GroupState> group);
    void enqueueInGroup(DispatchGroup& group, detail::Task task);
    void runSync(void* callable, void (*call)(void*));

    std::shared_ptr<Impl> impl_;
};

}  // namespace qrl
