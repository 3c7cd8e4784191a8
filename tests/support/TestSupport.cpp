#include "support/TestSupport.h"

#include "qrl/timing/TimeUtilities.h"

namespace qrl::test {

ScopedSimulatedClock::ScopedSimulatedClock(double frequency, uint64_t start)
    : clock_(std::make_shared<SimulatedClock>(frequency, start)), previous_(installedClockShared()) {
    qrl_install_clock(clock_);
}

ScopedSimulatedClock::~ScopedSimulatedClock() { qrl_install_clock(previous_); }

}  // namespace qrl::test
