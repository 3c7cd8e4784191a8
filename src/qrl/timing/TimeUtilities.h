// The framework's one monotonic clock in host ticks, millisecond differences
// and the frames-per-second estimates.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>

namespace qrl {

class Clock;

// Ticks per second of the clock read by qrl_useconds; 0.0 until the first
// call. Despite the name the unit is one host tick, not a microsecond.
extern std::atomic<double> QRL_USECONDS_TIMESCALE;

// Current ticks of the installed clock (see foundation/Clock.h); sets
// QRL_USECONDS_TIMESCALE on first use.
uint64_t qrl_useconds();

// Milliseconds from `earlier` to `later`, truncated. Unsigned subtraction: an
// earlier value passed first gives a huge number, never a negative one.
// Does not initialise the scale; call qrl_useconds first.
int64_t qrl_time_difference_in_ms(uint64_t later, uint64_t earlier);

// Installs `clock` (foundation installClock) and clears QRL_USECONDS_TIMESCALE
// so that the next qrl_useconds reads the new frequency.
void qrl_install_clock(std::shared_ptr<Clock> clock);

// Exponentially weighted frame rate: each call's instant rate counts for
// 1 - weighting. Returns 0.0 on the first call and within one tick.
double calculateFramesPerSecondWithWeighting(uint64_t* last, double rate, double weighting);
// The above with the weighting 0.9 held in single precision (0.8999999761581421).
double calculateFramesPerSecond(uint64_t* last, double rate);

}  // namespace qrl
