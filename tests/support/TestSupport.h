// Helpers shared by the test programs: a simulated clock installed for the
// length of a test, and a scoped guard that counts heap allocations.
#pragma once

#include <cstddef>
#include <memory>

#include "qrl/foundation/Clock.h"

namespace qrl::test {

// Installs a SimulatedClock (24 MHz, starting far from zero unless told
// otherwise) for the lifetime of the object, and puts the previous clock back.
class ScopedSimulatedClock {
public:
    explicit ScopedSimulatedClock(double frequency = 24'000'000.0, uint64_t start = 7'777'777'777ULL);
    ~ScopedSimulatedClock();
    ScopedSimulatedClock(const ScopedSimulatedClock&) = delete;
    ScopedSimulatedClock& operator=(const ScopedSimulatedClock&) = delete;

    SimulatedClock& clock() { return *clock_; }
    std::shared_ptr<SimulatedClock> shared() const { return clock_; }

private:
    std::shared_ptr<SimulatedClock> clock_;
    std::shared_ptr<Clock> previous_;
};

// Number of global operator new calls made on this thread since the program
// started. Only counts in programs that link the counting allocator
// (tests/support/CountingNew.cpp); elsewhere it stays 0.
std::size_t allocationCount();
bool allocationCountingAvailable();

}  // namespace qrl::test
