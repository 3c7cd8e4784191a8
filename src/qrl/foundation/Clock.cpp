#include "qrl/foundation/Clock.h"

#include <time.h>

#include <cmath>
#include <mutex>
#include <string>

#include "qrl/foundation/Exception.h"

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

void SimulatedClock::advanceSeconds(double seconds) {
    if (seconds <= 0.0) return;
    advance(static_cast<uint64_t>(std::llround(seconds * frequency_)));
}

void SimulatedClock::setNow(uint64_t ticks) {
    uint64_t current = now_.load(std::memory_order_acquire);
    while (ticks > current && !now_.compare_exchange_weak(current, ticks, std::memory_order_acq_rel)) {
    }
}

namespace {
std::mutex gClockMutex;
std::shared_ptr<Clock> gClockOwner;          // keeps the installed clock alive
std::atomic<Clock*> gClock{nullptr};         // read on the hot path without a lock
std::atomic<SimulatedClock*> gSimulated{nullptr};

Clock& defaultClock() {
    static MonotonicClock clock;
    return clock;
}
}  // namespace

Clock& installedClock() {
    Clock* c = gClock.load(std::memory_order_acquire);
    return c ? *c : defaultClock();
}

std::shared_ptr<Clock> installedClockShared() {
    std::lock_guard lock(gClockMutex);
    return gClockOwner;
}

void installClock(std::shared_ptr<Clock> clock) {
    std::lock_guard lock(gClockMutex);
    gClock.store(clock.get(), std::memory_order_release);
    gSimulated.store(dynamic_cast<SimulatedClock*>(clock.get()), std::memory_order_release);
    // The old clock is kept alive until the next install so that a reader
    // that loaded its pointer just before the swap never reads freed memory.
    static std::shared_ptr<Clock> retired;
    retired = std::move(gClockOwner);
    gClockOwner = std::move(clock);
}

SimulatedClock* installedSimulatedClock() { return gSimulated.load(std::memory_order_acquire); }

}  // namespace qrl
