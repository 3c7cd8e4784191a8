// Cost of a log statement whose guard fails, in both guard forms, against
// spdlog's call below its level. With a costly argument spdlog still
// evaluates it; our guards evaluate nothing.
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>

#include <cstdint>
#include <memory>

#include "BenchSupport.h"
#include "qrl/logging/LogLevels.h"

namespace {

[[gnu::noinline]] uint64_t costly(uint64_t seed) {
    // A few hundred nanoseconds of work, as building a description can be.
    uint64_t h = 1469598103934665603ULL ^ seed;
    for (int i = 0; i < 256; ++i) h = (h ^ static_cast<uint64_t>(i)) * 1099511628211ULL;
    return h;
}

std::shared_ptr<spdlog::logger> quietLogger() {
    static auto logger = [] {
        auto l = std::make_shared<spdlog::logger>("bench", std::make_shared<spdlog::sinks::null_sink_mt>());
        l->set_level(spdlog::level::warn);  // debug calls are disabled
        return l;
    }();
    return logger;
}

void disableOurs() {
    qrl::qrl_loggingEnabled = true;
    qrl::sharedLogLevel = qrl::kLogLevelWarning;  // verbose statements are disabled
    qrl::additionalApplicationLogLevel = qrl::kLoggingVideo;  // the audio domain is off
}

void PlainCheap(benchmark::State& state) {
    disableOurs();
    uint64_t i = 0;
    for (auto _ : state) {
        QRLLogVerbose("frame %llu", static_cast<unsigned long long>(i));
        benchmark::DoNotOptimize(++i);
    }
}
void DomainCheap(benchmark::State& state) {
    disableOurs();
    uint64_t i = 0;
    for (auto _ : state) {
        QRLDomainLogVerbose(qrl::kLoggingAudio, "frame %llu", static_cast<unsigned long long>(i));
        benchmark::DoNotOptimize(++i);
    }
}
void SpdlogCheap(benchmark::State& state) {
    auto logger = quietLogger();
    uint64_t i = 0;
    for (auto _ : state) {
        logger->debug("frame {}", i);
        benchmark::DoNotOptimize(++i);
    }
}
void PlainCostly(benchmark::State& state) {
    disableOurs();
    uint64_t i = 0;
    for (auto _ : state) {
        QRLLogVerbose("hash %llu", static_cast<unsigned long long>(costly(i)));
        benchmark::DoNotOptimize(++i);
    }
}
void DomainCostly(benchmark::State& state) {
    disableOurs();
    uint64_t i = 0;
    for (auto _ : state) {
        QRLDomainLogVerbose(qrl::kLoggingAudio, "hash %llu", static_cast<unsigned long long>(costly(i)));
        benchmark::DoNotOptimize(++i);
    }
}
void SpdlogCostly(benchmark::State& state) {
    auto logger = quietLogger();
    uint64_t i = 0;
    for (auto _ : state) {
        logger->debug("hash {}", costly(i));
        benchmark::DoNotOptimize(++i);
    }
}

}  // namespace

BENCHMARK(PlainCheap)->Name("DisabledPlainCheap/qrl");
BENCHMARK(SpdlogCheap)->Name("DisabledPlainCheap/spdlog");
BENCHMARK(DomainCheap)->Name("DisabledDomainCheap/qrl");
BENCHMARK(SpdlogCheap)->Name("DisabledDomainCheap/spdlog");
BENCHMARK(PlainCostly)->Name("DisabledPlainCostly/qrl");
BENCHMARK(SpdlogCostly)->Name("DisabledPlainCostly/spdlog");
BENCHMARK(DomainCostly)->Name("DisabledDomainCostly/qrl");
BENCHMARK(SpdlogCostly)->Name("DisabledDomainCostly/spdlog");

QRL_BENCH_MAIN()
