// Helpers shared by the test programs: a simulated clock installed for the
// length of a test, the platform log's lines captured for the length of a
// test, an environment variable set for a scope, and a count of heap
// allocations.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/Clock.h"
#include "qrl/foundation/PlatformLog.h"

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
    // Moves the clock to each sleeping thread's wake-up time, and nowhere
    // else, until done() holds; false if it does not within `limit` of real
    // time.
    bool wakeSleepersUntil(const std::function<bool()>& done,
                           std::chrono::milliseconds limit = std::chrono::seconds(20));

private:
    std::shared_ptr<SimulatedClock> clock_;
    std::shared_ptr<Clock> previous_;
};

// Collects the platform log's lines, from any thread, for the lifetime of
// the object, and puts the previous writer back.
class CapturedPlatformLog {
public:
    CapturedPlatformLog();
    ~CapturedPlatformLog();
    CapturedPlatformLog(const CapturedPlatformLog&) = delete;
    CapturedPlatformLog& operator=(const CapturedPlatformLog&) = delete;

    std::vector<std::string> lines() const;
    std::size_t count(std::string_view line) const;            // lines equal to `line`
    std::size_t countContaining(std::string_view part) const;  // lines holding `part`
    void clear();

private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    PlatformLogWriter previous_;
};

// Sets an environment variable (unsets it for nullopt) for the lifetime of
// the object, and puts the previous value back.
class ScopedEnvironmentVariable {
public:
    ScopedEnvironmentVariable(std::string name, std::optional<std::string> value);
    ~ScopedEnvironmentVariable();
    ScopedEnvironmentVariable(const ScopedEnvironmentVariable&) = delete;
    ScopedEnvironmentVariable& operator=(const ScopedEnvironmentVariable&) = delete;

private:
    std::string name_;
    std::optional<std::string> previous_;
};

// Number of global operator new calls made on this thread since the program
// started. Only counts in programs that link the counting allocator
// (tests/support/CountingNew.cpp); elsewhere it stays 0.
std::size_t allocationCount();
bool allocationCountingAvailable();

}  // namespace qrl::test
