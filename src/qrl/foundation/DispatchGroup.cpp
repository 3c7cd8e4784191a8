#include "qrl/foundation/DispatchGroup.h"

#include <exception>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/detail/GroupState.h"

namespace qrl {

namespace detail {

void GroupState::enter() {
    std::lock_guard lock(mutex);
    ++count;
}

void GroupState::leave() {
    // The last leave() submits the notifications before the group counts as
    // empty, so that a waiter that wakes finds them already queued.
    std::vector<std::pair<std::shared_ptr<SerialQueue>, Task>> ready;
    for (;;) {
        {
            std::lock_guard lock(mutex);
            if (count == 0) Exception::raise("DispatchGroup", "leave() without a matching enter()");
            if (count > 1 || notifications.empty()) {
                if (--count == 0) {
                    ++generation;
                    emptied.notify_all();
                }
                return;
            }
            ready.swap(notifications);  // count stays at 1 meanwhile
        }
        submit(ready);
        ready.clear();
    }
}

void GroupState::submit(std::vector<std::pair<std::shared_ptr<SerialQueue>, Task>>& notifications) {
    for (auto& [queue, task] : notifications) {
        try {
            queue->enqueue(std::move(task), nullptr);
        } catch (const std::exception& e) {
            // Called from leave(), often on a worker: the caller cannot act
            // on it, so it is reported and the other notifications go out.
            try {
                platformLog(std::string("DispatchGroup: a notification could not be submitted: ") + e.what());
            } catch (...) {
            }
        }
    }
}

}  // namespace detail

DispatchGroup::DispatchGroup() : state_(std::make_shared<detail::GroupState>()) {}

DispatchGroup::~DispatchGroup() = default;

void DispatchGroup::enter() { state_->enter(); }

void DispatchGroup::leave() { state_->leave(); }

void DispatchGroup::wait() {
    detail::GroupState& s = *state_;
    std::unique_lock lock(s.mutex);
    if (s.count == 0) return;
    const uint64_t generation = s.generation;
    s.emptied.wait(lock, [&] { return s.generation != generation; });
}

bool DispatchGroup::waitUntil(std::chrono::steady_clock::time_point deadline) {
    detail::GroupState& s = *state_;
    std::unique_lock lock(s.mutex);
    if (s.count == 0) return true;
    const uint64_t generation = s.generation;
    return s.emptied.wait_until(lock, deadline, [&] { return s.generation != generation; });
}

bool DispatchGroup::waitFor(std::chrono::nanoseconds timeout) {
    return waitUntil(std::chrono::steady_clock::now() + timeout);
}

long DispatchGroup::pendingCount() const {
    std::lock_guard lock(state_->mutex);
    return static_cast<long>(state_->count);
}

void DispatchGroup::notifyRefused(const char* what) {
    Exception::raise("DispatchGroup", std::string("notify() needs a queue and a callable, got ") + what);
}

void DispatchGroup::notifyTask(std::shared_ptr<SerialQueue> queue, detail::Task task) {
    if (!queue) notifyRefused("a null queue");
    {
        std::lock_guard lock(state_->mutex);
        if (state_->count != 0) {
            state_->notifications.emplace_back(std::move(queue), std::move(task));
            return;
        }
    }
    queue->enqueue(std::move(task), nullptr);
}

}  // namespace qrl
