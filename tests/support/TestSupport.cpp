#include "support/TestSupport.h"

#include <algorithm>
#include <cstdlib>
#include <thread>

#include "qrl/timing/TimeUtilities.h"

namespace qrl::test {

ScopedSimulatedClock::ScopedSimulatedClock(double frequency, uint64_t start)
    : clock_(std::make_shared<SimulatedClock>(frequency, start)), previous_(installedClockShared()) {
    qrl_install_clock(clock_);
}

ScopedSimulatedClock::~ScopedSimulatedClock() { qrl_install_clock(previous_); }

bool ScopedSimulatedClock::wakeSleepersUntil(const std::function<bool()>& done, std::chrono::milliseconds limit) {
    const auto deadline = std::chrono::steady_clock::now() + limit;
    while (!done()) {
        if (std::chrono::steady_clock::now() >= deadline) return false;
        if (const auto wakeUp = clock_->nextWakeUp(); wakeUp && *wakeUp > clock_->now()) {
            clock_->advanceTo(*wakeUp);
        } else {
            std::this_thread::yield();
        }
    }
    return true;
}

CapturedPlatformLog::CapturedPlatformLog() {
    previous_ = setPlatformLogWriter([this](std::string_view line) {
        std::lock_guard lock(mutex_);
        lines_.emplace_back(line);
    });
}

CapturedPlatformLog::~CapturedPlatformLog() { setPlatformLogWriter(previous_); }

std::vector<std::string> CapturedPlatformLog::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::size_t CapturedPlatformLog::count(std::string_view line) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::ranges::count(lines_, line));
}

std::size_t CapturedPlatformLog::countContaining(std::string_view part) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(
        std::ranges::count_if(lines_, [&](const std::string& l) { return l.find(part) != std::string::npos; }));
}

void CapturedPlatformLog::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
}

ScopedEnvironmentVariable::ScopedEnvironmentVariable(std::string name, std::optional<std::string> value)
    : name_(std::move(name)) {
    if (const char* old = std::getenv(name_.c_str())) previous_ = old;
    value ? ::setenv(name_.c_str(), value->c_str(), 1) : ::unsetenv(name_.c_str());
}

ScopedEnvironmentVariable::~ScopedEnvironmentVariable() {
    previous_ ? ::setenv(name_.c_str(), previous_->c_str(), 1) : ::unsetenv(name_.c_str());
}

}  // namespace qrl::test
