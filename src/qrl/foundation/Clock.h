// The clock port: one monotonic tick counter and its constant frequency.
// Everything that measures time reads the installed clock, so that tests and
// simulations run on simulated time.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace qrl {

class Clock {
public:
    virtual ~Clock() = default;
    // Monotonic ticks; never 0 (0 is a sentinel throughout the framework).
    virtual uint64_t now() const = 0;
    // Ticks per second; constant for the life of the clock.
    virtual double frequency() const = 0;
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

    void advance(uint64_t ticks) { now_.fetch_add(ticks, std::memory_order_acq_rel); }
    void advanceSeconds(double seconds);
    // Moves the clock to `ticks`; refuses to go backwards (monotonic).
    void setNow(uint64_t ticks);

private:
    double frequency_;
    std::atomic<uint64_t> now_;
};

// The installed clock. Starts as a MonotonicClock. Installing is meant for
// start-up and tests; readers on other threads see either clock, never a torn one.
Clock& installedClock();
std::shared_ptr<Clock> installedClockShared();
void installClock(std::shared_ptr<Clock> clock);

// Convenience: the installed clock as a SimulatedClock, or null when the real
// clock is installed.
SimulatedClock* installedSimulatedClock();

}  // namespace qrl
