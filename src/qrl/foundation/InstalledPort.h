// The process's one instance of a port: chosen on first use through the
// port's backend list, replaced by install() (programs, tests, simulations)
// and put back by ScopedPort. Every port with a process-wide instance (the
// clock, the display server, the renderers, system facts, the cross-process
// notification centre, the log-file archive mark) keeps it in one of these.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <utility>

namespace qrl {

// `LockFreeReads`: peek() answers the installed instance without a lock, for
// ports read on every call of a hot path (the clock). An instance replaced
// then stays alive until the next replacement, so that a reader that loaded
// it just before a swap never reads freed memory. Without it, a replaced
// instance is released by whoever replaced it, outside the lock (a backend's
// teardown may join threads).
//
// Slots are meant to live for the whole process (make them with `new` and
// never delete them): ports are still used by static destructors at exit.
template <class Port, bool LockFreeReads = false>
class InstalledPort {
public:
    using Chooser = std::shared_ptr<Port> (*)();

    // `choose` makes the automatic choice; it runs under the slot's lock and
    // must not read this slot.
    explicit InstalledPort(Chooser choose) : choose_(choose) {}
    InstalledPort(const InstalledPort&) = delete;
    InstalledPort& operator=(const InstalledPort&) = delete;

    // The installed instance, chosen now if there is none.
    std::shared_ptr<Port> get() {
        std::lock_guard lock(mutex_);
        if (!current_) store(choose_ ? choose_() : nullptr);
        return current_;
    }

    // The installed instance without a lock, or null before any; only with
    // LockFreeReads.
    Port* peek() const noexcept
        requires LockFreeReads
    {
        return fast_.load(std::memory_order_acquire);
    }

    // The installed instance, or null, without making a choice.
    std::shared_ptr<Port> current() const {
        std::lock_guard lock(mutex_);
        return current_;
    }

    // Installs `next` (null: the automatic choice on next use) and answers
    // the instance it replaces, for the caller to release outside the lock.
    [[nodiscard]] std::shared_ptr<Port> exchange(std::shared_ptr<Port> next) {
        std::lock_guard lock(mutex_);
        std::shared_ptr<Port> previous = current_;
        store(std::move(next));
        return previous;
    }

    void install(std::shared_ptr<Port> next) { auto leaving = exchange(std::move(next)); }

private:
    void store(std::shared_ptr<Port> next) {
        if constexpr (LockFreeReads) {
            fast_.store(next.get(), std::memory_order_release);
            retired_ = current_;
        }
        current_ = std::move(next);
    }

    Chooser choose_;
    mutable std::mutex mutex_;
    std::shared_ptr<Port> current_;  // guarded by mutex_
    std::shared_ptr<Port> retired_;  // guarded by mutex_; LockFreeReads only
    std::atomic<Port*> fast_{nullptr};
};

// Installs an instance for the lifetime of the object and puts the previous
// one back (tests, simulations). `slot` must outlive the object.
template <class Port, bool LockFreeReads = false>
class ScopedPort {
public:
    ScopedPort(InstalledPort<Port, LockFreeReads>& slot, std::shared_ptr<Port> instance)
        : slot_(slot), previous_(slot.exchange(std::move(instance))) {}
    ~ScopedPort() { auto leaving = slot_.exchange(std::move(previous_)); }
    ScopedPort(const ScopedPort&) = delete;
    ScopedPort& operator=(const ScopedPort&) = delete;

private:
    InstalledPort<Port, LockFreeReads>& slot_;
    std::shared_ptr<Port> previous_;
};

}  // namespace qrl
