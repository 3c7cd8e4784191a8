// The clock port: one monotonic tick counter and its constant frequency.
// Everything that measures time reads the installed clock, so that tests and
// simulations run on simulated time.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <set>

namespace qrl {

class Clock {
public:
    virtual ~Clock() = default;
    // Monotonic ticks; never 0 (0 is a sentinel throughout the framework).
    virtual uint64_t now() const = 0;
    // Ticks per second; constant for the life of the clock.
    virtual double frequency() const = 0;

    // Whether time moves only when told to (a simulated clock). A run loop
    // with nothing else to do moves such a clock to its next timer; a thread
    // that sleeps waits until someone moves it.
    virtual bool isVirtual() const { return false; }
    // Moves a virtual clock forward by `ticks`; a real clock moves by itself
    // and ignores this.
    virtual void advance(uint64_t ticks) { (void)ticks; }
    // Moves a virtual clock to `ticks` unless it is already there or past
    // them (monotonic); a real clock ignores this.
    virtual void advanceTo(uint64_t ticks) { (void)ticks; }
    // Blocks until the clock reads `ticks` or later.
    virtual void waitUntil(uint64_t ticks);
};

// CLOCK_MONOTONIC in nanoseconds: 1,000,000,000 ticks per second.
class MonotonicClock final : public Clock {
public:
    uint64_t now() const override;
    double frequency() const override { return 1e9; }
};

// A clock that moves only when told to. Thread-safe: readers may run on any
// thread while a test advances it.
class SimulatedClock final : public Clock {
public:
    // Throws qrl::Exception("SimulatedClock", ...) for start 0 or a frequency
    // that is not a positive finite number.
    explicit SimulatedClock(double frequency = 24'000'000.0, uint64_t start = 7'777'777'777ULL);

    uint64_t now() const override { return now_.load(std::memory_order_acquire); }
    double frequency() const override { return frequency_; }

    bool isVirtual() const override { return true; }
    void advance(uint64_t ticks) override;
    void advanceTo(uint64_t ticks) override { setNow(ticks); }
    void advanceSeconds(double seconds);
    // Moves the clock to `ticks`; refuses to go backwards (monotonic).
    void setNow(uint64_t ticks);
    // Waits, without moving the clock, until another thread moves it there.
    void waitUntil(uint64_t ticks) override;
    // The earliest time a thread waits for, if one waits: what a test moves
    // the clock to, to let sleepers go on.
    std::optional<uint64_t> nextWakeUp() const;

private:
    void wakeWaiters();

    double frequency_;
    std::atomic<uint64_t> now_;
    std::atomic<int> waiters_{0};
    mutable std::mutex mutex_;
    std::condition_variable moved_;
    std::multiset<uint64_t> wakeUps_;  // guarded by mutex_
};

// The installed clock. Starts as a MonotonicClock. Installing is meant for
// start-up and tests; readers on other threads see either clock, never a torn one.
Clock& installedClock();
std::shared_ptr<Clock> installedClockShared();
void installClock(std::shared_ptr<Clock> clock);

// Blocks the calling thread for `seconds` of the installed clock's time; on
// a virtual clock, until someone has moved it that far (the sleeper never
// moves it). Nothing for 0, negative or NaN.
void sleepForTimeInterval(double seconds);

// Convenience for tests and simulations: the installed clock as a
// SimulatedClock, or null when another clock is installed. Library code asks
// the clock itself (isVirtual, advanceTo) instead.
SimulatedClock* installedSimulatedClock();

}  // namespace qrl
