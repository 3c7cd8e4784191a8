// Nanoseconds per receiveFrame in both regimes, and heap allocations per
// call (counted by this program's operator new), against one read of
// CLOCK_MONOTONIC, the cheapest thing a capture thread does per frame.
#include <time.h>

#include <atomic>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

#include "BenchSupport.h"
#include "qrl/foundation/Clock.h"
#include "qrl/timing/FrameTimeOrganizer.h"
#include "qrl/timing/TimeUtilities.h"

namespace {
std::atomic<uint64_t> gAllocations{0};
}

void* operator new(std::size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size ? size : 1)) return p;
    throw std::bad_alloc();
}
void operator delete(void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }

namespace {

struct Frame {
    uint64_t stamp, capture;
    uint64_t timeStamp() const { return stamp; }
    uint64_t captureTime() const { return capture; }
};

// Arrivals at 30 fps on a 1 GHz clock with jitter, bursts and stalls, days
// into the clock's life.
std::vector<Frame> makeFrames() {
    std::vector<Frame> frames;
    uint64_t t = 3ULL * 24 * 3600 * 1'000'000'000ULL;
    uint64_t x = 88172645463325252ULL;
    for (int i = 0; i < 4096; ++i) {
        x ^= x << 13, x ^= x >> 7, x ^= x << 17;
        const uint64_t roll = x % 100;
        t += roll < 3 ? 100'000 : roll < 5 ? 150'000'000 : 23'000'000 + x % 20'000'000;
        frames.push_back({t, i % 2 ? t - 4'000'000 : 0});
    }
    return frames;
}

void receive(benchmark::State& state, bool quantizing) {
    qrl::qrl_install_clock(std::make_shared<qrl::SimulatedClock>(1e9, 1'000'000));
    const auto frames = makeFrames();
    auto organizer = std::make_unique<qrl::FrameTimeOrganizer>(30.0f);
    organizer->setQuantizingEnabled(quantizing);
    std::string_view reason;
    size_t i = 0;
    uint64_t calls = 0;
    uint64_t allocations = 0;
    for (auto _ : state) {
        if (i == frames.size()) {
            // Start a new time line once the trace is used up.
            state.PauseTiming();
            organizer = std::make_unique<qrl::FrameTimeOrganizer>(30.0f);
            organizer->setQuantizingEnabled(quantizing);
            i = 0;
            state.ResumeTiming();
        }
        const uint64_t mark = gAllocations.load(std::memory_order_relaxed);
        benchmark::DoNotOptimize(organizer->receiveFrame(&frames[i++], &reason));
        allocations += gAllocations.load(std::memory_order_relaxed) - mark;
        ++calls;
    }
    state.counters["allocs_per_call"] = calls ? static_cast<double>(allocations) / static_cast<double>(calls) : 0.0;
}

void Quantizing(benchmark::State& state) { receive(state, true); }
void Relaxed(benchmark::State& state) { receive(state, false); }
void ClockRead(benchmark::State& state) {
    for (auto _ : state) {
        timespec ts;
        clock_gettime(CLOCK_MONOTONIC, &ts);
        benchmark::DoNotOptimize(ts);
    }
}

}  // namespace

BENCHMARK(Quantizing)->Name("ReceiveFrameQuantizing/qrl");
BENCHMARK(ClockRead)->Name("ReceiveFrameQuantizing/clock_gettime");
BENCHMARK(Relaxed)->Name("ReceiveFrameRelaxed/qrl");
BENCHMARK(ClockRead)->Name("ReceiveFrameRelaxed/clock_gettime");

QRL_BENCH_MAIN()
