#include "qrl/foundation/Clock.h"

#include <time.h>

#include <algorithm>
#include <chrono>
#include <cmath>
#include <thread>
#include <string>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/InstalledPort.h"

namespace qrl {

uint64_t MonotonicClock::now() const {
    timespec ts{};
    clock_gettime(CLOCK_MONOTONIC, &ts);
    // Boot time can be a fraction of a second on a fresh VM; add one so that
    // the value is never the 0 sentinel.
    return static_cast<uint64_t>(ts.tv_sec) * 1'000'000'000ULL + static_cast<uint64_t>(ts.tv_nsec) + 1;
}

SimulatedClock::SimulatedClock(double frequency, uint64_t start) : frequency_(frequency), now_(start) {
    if (!(frequency > 0.0) || !std::isfinite(frequency))
        Exception::raise("SimulatedClock", "frequency must be a positive number of ticks per second, got " +
                                               std::to_string(frequency));
    if (start == 0) Exception::raise("SimulatedClock", "a clock must not start at 0: 0 marks unset times");
}

void Clock::waitUntil(uint64_t ticks) {
    for (uint64_t at = now(); at < ticks; at = now()) {
        std::this_thread::sleep_for(std::chrono::duration<double>(static_cast<double>(ticks - at) / frequency()));
    }
}

void SimulatedClock::advance(uint64_t ticks) {
    now_.fetch_add(ticks, std::memory_order_seq_cst);
    wakeWaiters();
}

void SimulatedClock::wakeWaiters() {
    // A waiter counts itself before it reads the time, so that either it
    // sees the new time or it is counted here.
    if (waiters_.load(std::memory_order_seq_cst) == 0) return;
    std::lock_guard lock(mutex_);
    moved_.notify_all();
}

void SimulatedClock::waitUntil(uint64_t ticks) {
    waiters_.fetch_add(1, std::memory_order_seq_cst);
    {
        std::unique_lock lock(mutex_);
        const auto wakeUp = wakeUps_.insert(ticks);
        moved_.wait(lock, [&] { return now_.load(std::memory_order_seq_cst) >= ticks; });
        wakeUps_.erase(wakeUp);
    }
    waiters_.fetch_sub(1, std::memory_order_seq_cst);
}

std::optional<uint64_t> SimulatedClock::nextWakeUp() const {
    std::lock_guard lock(mutex_);
    if (wakeUps_.empty()) return std::nullopt;
    return *wakeUps_.begin();
}

void SimulatedClock::advanceSeconds(double seconds) {
    if (seconds <= 0.0) return;
    advance(static_cast<uint64_t>(std::llround(seconds * frequency_)));
}

void SimulatedClock::setNow(uint64_t ticks) {
    uint64_t current = now_.load(std::memory_order_acquire);
    while (ticks > current && !now_.compare_exchange_weak(current, ticks, std::memory_order_seq_cst)) {
    }
    wakeWaiters();
}

namespace {

Clock& defaultClock() {
    static MonotonicClock clock;
    return clock;
}

// Until a clock is installed, readers use the default one without choosing.
InstalledPort<Clock, true>& clockSlot() {
    static auto* slot = new InstalledPort<Clock, true>(nullptr);
    return *slot;
}

}  // namespace

Clock& installedClock() {
    Clock* c = clockSlot().peek();
    return c ? *c : defaultClock();
}

std::shared_ptr<Clock> installedClockShared() { return clockSlot().current(); }

void installClock(std::shared_ptr<Clock> clock) { clockSlot().install(std::move(clock)); }

void sleepForTimeInterval(double seconds) {
    if (!(seconds > 0.0)) return;
    seconds = std::min(seconds, 1e7);
    // Held for the wait: a test may install another clock meanwhile.
    if (const auto clock = installedClockShared(); clock && clock->isVirtual()) {
        clock->waitUntil(clock->now() + static_cast<uint64_t>(std::llround(seconds * clock->frequency())));
        return;
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(seconds));
}

SimulatedClock* installedSimulatedClock() {
    Clock& c = installedClock();
    return c.isVirtual() ? dynamic_cast<SimulatedClock*>(&c) : nullptr;
}

}  // namespace qrl
