#include "qrl/foundation/SerialQueue.h"

#include <pthread.h>

#include <condition_variable>
#include <cstring>
#include <exception>
#include <mutex>
#include <system_error>
#include <thread>

#include "qrl/foundation/DispatchGroup.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/detail/GroupState.h"

namespace qrl {

namespace {

// One entry per queue task running on this thread, innermost first. A sync()
// served by a worker links its frame to the caller's (blocked) frames, so the
// chain shows every queue that the waiting threads hold.
struct Frame {
    const SerialQueue::Impl* queue;
    const Frame* outer;
};

thread_local const Frame* tFrame = nullptr;

class FrameScope {
public:
    FrameScope(const SerialQueue::Impl* queue, const Frame* outer) : frame_{queue, outer}, saved_(tFrame) {
        tFrame = &frame_;
    }
    ~FrameScope() { tFrame = saved_; }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;

private:
    Frame frame_;
    const Frame* saved_;
};

// A sync() waiting for the worker; lives on the caller's stack.
struct SyncRequest {
    void* callable;
    void (*call)(void*);
    const Frame* callerFrame;
    std::exception_ptr error;
    bool done = false;  // guarded by the queue's mutex
};

struct Node {
    Node* next = nullptr;
    detail::Task task;                          // async work
    SyncRequest* sync = nullptr;                // or a waiting sync()
    std::shared_ptr<detail::GroupState> group;  // left after the task ran
};

// Enough for the log engine's bound of pending messages on its own queue and
// on every logger's; nodes beyond it are freed when they come back.
constexpr size_t kMaxPooledNodes = 4096;

}  // namespace

struct SerialQueue::Impl {
    explicit Impl(std::optional<std::string> l) : label(std::move(l)) {}

    ~Impl() {
        for (Node* lists : {head, pool}) {
            while (lists) {
                Node* next = lists->next;
                delete lists;
                lists = next;
            }
        }
    }

    std::string displayName() const { return label ? "\"" + *label + "\"" : std::string("(null)"); }

    Node* takeNodeLocked() {
        if (!pool) return new Node;
        Node* n = pool;
        pool = n->next;
        n->next = nullptr;
        --pooled;
        return n;
    }

    void recycleLocked(Node* n) {
        if (pooled >= kMaxPooledNodes) {
            delete n;
            return;
        }
        n->next = pool;
        pool = n;
        ++pooled;
    }

    // Links `n` at the tail; answers whether the worker must be woken.
    bool linkLocked(Node* n) {
        const bool wasEmpty = head == nullptr;
        if (tail) tail->next = n;
        else head = n;
        tail = n;
        return wasEmpty && workerSleeping && !executing;
    }

    const std::optional<std::string> label;
    std::mutex mutex;
    std::condition_variable wake;      // the worker sleeps here
    std::condition_variable syncDone;  // sync() callers wait here
    Node* head = nullptr;
    Node* tail = nullptr;
    Node* pool = nullptr;
    size_t pooled = 0;
    bool executing = false;  // the worker or an inline sync() is running a task
    bool workerSleeping = false;
    bool workerStarted = false;
    bool stopping = false;
    std::thread worker;
};

namespace {

void report(const SerialQueue::Impl& q, const char* what) noexcept {
    try {
        platformLog("SerialQueue " + q.displayName() + ": a task threw an exception: " + what);
    } catch (...) {
        // Nothing is left to report to; the queue goes on regardless.
    }
}

void nameThread(const std::optional<std::string>& label) {
    if (!label || label->empty()) return;
    // Thread names hold 15 bytes; cut before a NUL and on a UTF-8 boundary.
    std::size_t n = std::min<std::size_t>(std::strlen(label->c_str()), 15);
    if (n < label->size()) {
        while (n > 0 && (static_cast<unsigned char>((*label)[n]) & 0xC0) == 0x80) --n;
    }
    char name[16] = {};
    std::memcpy(name, label->data(), n);
    pthread_setname_np(pthread_self(), name);
}

void runNode(SerialQueue::Impl& q, Node* n) {
    if (SyncRequest* request = n->sync) {
        n->sync = nullptr;
        {
            FrameScope scope(&q, request->callerFrame);
            try {
                request->call(request->callable);
            } catch (...) {
                request->error = std::current_exception();
            }
        }
        std::lock_guard lock(q.mutex);
        request->done = true;  // the caller may return as soon as the lock is free
        q.syncDone.notify_all();
        return;
    }
    {
        FrameScope scope(&q, nullptr);
        try {
            n->task();
        } catch (const std::exception& e) {
            report(q, e.what());
        } catch (...) {
            report(q, "(not a std::exception)");
        }
    }
    n->task.reset();  // captured objects die outside the queue's lock
    if (n->group) {
        auto group = std::move(n->group);
        try {
            group->leave();
        } catch (const std::exception& e) {
            report(q, e.what());
        }
    }
}

void workerMain(std::shared_ptr<SerialQueue::Impl> impl) {
    SerialQueue::Impl& q = *impl;
    nameThread(q.label);
    std::unique_lock lock(q.mutex);
    for (;;) {
        while (q.head == nullptr || q.executing) {
            if (q.stopping && q.head == nullptr && !q.executing) return;
            q.workerSleeping = true;
            q.wake.wait(lock);
            q.workerSleeping = false;
        }
        // Take everything queued so far and run it without the lock.
        Node* batch = q.head;
        q.head = q.tail = nullptr;
        q.executing = true;
        lock.unlock();
        for (Node* n = batch; n;) {
            Node* next = n->next;
            runNode(q, n);
            n = next;
        }
        lock.lock();
        while (batch) {
            Node* next = batch->next;
            q.recycleLocked(batch);
            batch = next;
        }
        q.executing = false;
    }
}

void startWorkerLocked(const std::shared_ptr<SerialQueue::Impl>& impl) {
    if (impl->workerStarted) return;
    try {
        impl->worker = std::thread(workerMain, impl);
    } catch (const std::system_error& e) {
        Exception::raise("SerialQueue",
                         "cannot start the worker thread of queue " + impl->displayName() + ": " + e.what());
    }
    impl->workerStarted = true;
}

}  // namespace

SerialQueue::SerialQueue(std::optional<std::string> label) : impl_(std::make_shared<Impl>(std::move(label))) {}

SerialQueue::~SerialQueue() {
    Impl& q = *impl_;
    std::unique_lock lock(q.mutex);
    q.stopping = true;
    if (!q.workerStarted) return;
    if (q.workerSleeping) q.wake.notify_one();
    const bool onWorker = q.worker.get_id() == std::this_thread::get_id();
    lock.unlock();
    // From one of its own tasks the worker cannot be joined: it finishes the
    // queue after this task and exits, keeping the shared state alive.
    if (onWorker) q.worker.detach();
    else q.worker.join();
}

const std::optional<std::string>& SerialQueue::label() const { return impl_->label; }

void SerialQueue::emptyCallable(const char* operation) {
    Exception::raise("SerialQueue", std::string(operation) + "() needs a callable, got an empty one");
}

void SerialQueue::enqueue(detail::Task task, std::shared_ptr<detail::GroupState> group) {
    Impl& q = *impl_;
    bool wake;
    {
        std::lock_guard lock(q.mutex);
        startWorkerLocked(impl_);
        Node* n = q.takeNodeLocked();
        n->task = std::move(task);
        n->group = std::move(group);
        wake = q.linkLocked(n);
    }
    if (wake) q.wake.notify_one();
}

void SerialQueue::enqueueInGroup(DispatchGroup& group, detail::Task task) {
    std::shared_ptr<detail::GroupState> state = group.state_;
    state->enter();
    try {
        enqueue(std::move(task), state);
    } catch (...) {
        state->leave();
        throw;
    }
}

void SerialQueue::runSync(void* callable, void (*call)(void*)) {
    Impl& q = *impl_;
    for (const Frame* f = tFrame; f; f = f->outer) {
        if (f->queue == &q)
            Exception::raise("SerialQueue", "sync() onto queue " + q.displayName() +
                                                " from a task that this thread is running on it would deadlock");
    }
    std::unique_lock lock(q.mutex);
    if (q.head == nullptr && !q.executing) {
        // Idle: run here, under the queue's identity, holding the queue so
        // that later submissions wait for this call.
        q.executing = true;
        lock.unlock();
        struct Release {
            Impl& q;
            ~Release() {
                bool wake;
                {
                    std::lock_guard relock(q.mutex);
                    q.executing = false;
                    wake = q.head != nullptr && q.workerSleeping;
                }
                if (wake) q.wake.notify_one();
            }
        } release{q};
        FrameScope scope(&q, tFrame);
        call(callable);
        return;
    }
    SyncRequest request{callable, call, tFrame, nullptr};
    startWorkerLocked(impl_);
    Node* n = q.takeNodeLocked();
    n->sync = &request;
    if (q.linkLocked(n)) q.wake.notify_one();
    q.syncDone.wait(lock, [&] { return request.done; });
    lock.unlock();
    if (request.error) std::rethrow_exception(request.error);
}

bool SerialQueue::isCurrent() const { return tFrame && tFrame->queue == impl_.get(); }

std::optional<std::string_view> SerialQueue::currentLabel() {
    if (!tFrame || !tFrame->queue->label) return std::nullopt;
    return std::string_view(*tFrame->queue->label);
}

}  // namespace qrl
