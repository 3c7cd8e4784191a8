#include "qrl/timing/TimeUtilities.h"

#include <cmath>
#include <limits>

#include "qrl/foundation/Clock.h"

namespace qrl {

std::atomic<double> QRL_USECONDS_TIMESCALE{0.0};

uint64_t qrl_useconds() {
    Clock& clock = installedClock();
    if (QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed) == 0.0)
        QRL_USECONDS_TIMESCALE.store(clock.frequency(), std::memory_order_relaxed);
    return clock.now();
}

int64_t qrl_time_difference_in_ms(uint64_t later, uint64_t earlier) {
    const double ticks = static_cast<double>(later - earlier);
    const double ms = ticks / (QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed) / 1000.0);
    // Before the scale is known the quotient is infinite or NaN; keep the
    // conversion defined rather than let it be undefined behaviour.
    if (std::isnan(ms)) return 0;
    if (ms >= 9.2233720368547758e18) return std::numeric_limits<int64_t>::max();
    return static_cast<int64_t>(ms);
}

void qrl_install_clock(std::shared_ptr<Clock> clock) {
    installClock(std::move(clock));
    QRL_USECONDS_TIMESCALE.store(0.0, std::memory_order_relaxed);
}

double calculateFramesPerSecondWithWeighting(uint64_t* last, double rate, double weighting) {
    if (last == nullptr) return 0.0;
    const uint64_t now = qrl_useconds();
    if (*last == 0) *last = now;
    const double elapsed = static_cast<double>(now - *last) / QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed);
    const double result = elapsed > 0.0 ? (1.0 - weighting) * (1.0 / elapsed) + rate * weighting : 0.0;
    *last = now;
    return result;
}

double calculateFramesPerSecond(uint64_t* last, double rate) {
    // 0.9 held in single precision and widened: 0.8999999761581421.
    return calculateFramesPerSecondWithWeighting(last, rate, static_cast<double>(0.9f));
}

}  // namespace qrl
