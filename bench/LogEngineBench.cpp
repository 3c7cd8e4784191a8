// The log engine against spdlog's asynchronous logger, same payload and same
// line form ("yyyy-MM-dd HH:mm:ss.SSS [(null)] text", the thread formatter's
// form with the date, for statements made on no queue):
//   Caller                  time a statement holds its caller, in bursts of
//                           20 calls with a pause between, writing to a file:
//                           the mean as CPU time, percentiles of every call
//                           (hundreds of thousands) as counters
//   Null1 / Null4           throughput to a logger that drops everything,
//                           with one and four producing threads
//   File1 / File4           throughput to a file
// A throughput iteration lasts until the output has taken every message, and
// fails if any is missing. The counter allocs/msg counts operator new calls
// in the whole process per message.
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/sinks/null_sink.h>
#include <spdlog/spdlog.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <thread>
#include <vector>

#include "BenchSupport.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFormatter.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/logging/ThreadLogger.h"

// ---------------------------------------------------------------- allocation count

namespace {
std::atomic<uint64_t> gAllocations{0};
}

void* operator new(std::size_t size) {
    gAllocations.fetch_add(1, std::memory_order_relaxed);
    if (void* p = std::malloc(size == 0 ? 1 : size)) return p;
    throw std::bad_alloc();
}
void* operator new[](std::size_t size) { return ::operator new(size); }
void operator delete(void* p) noexcept { std::free(p); }
void operator delete[](void* p) noexcept { std::free(p); }
void operator delete(void* p, std::size_t) noexcept { std::free(p); }
void operator delete[](void* p, std::size_t) noexcept { std::free(p); }

namespace {

using Clock = std::chrono::steady_clock;

const char* const kSpdlogPattern = "%Y-%m-%d %H:%M:%S.%e [(null)] %v";

std::string filePath(const char* who) { return "/tmp/qrl-logbench-" + std::to_string(::getpid()) + "-" + who + ".log"; }

// Counts what an output has taken; the benchmark thread waits for a number
// without spinning, so that it takes no processor from the threads measured.
class Tally {
public:
    void add() {
        const uint64_t n = count_.fetch_add(1, std::memory_order_acq_rel) + 1;
        if (n == target_.load(std::memory_order_acquire)) {
            std::lock_guard lock(mutex_);
            reached_.notify_all();
        }
    }
    void reset() { count_.store(0); }
    uint64_t value() const { return count_.load(std::memory_order_acquire); }
    void waitFor(uint64_t target) {
        target_.store(target, std::memory_order_release);
        std::unique_lock lock(mutex_);
        reached_.wait(lock, [&] { return value() >= target; });
    }

private:
    std::atomic<uint64_t> count_{0};
    std::atomic<uint64_t> target_{0};
    std::mutex mutex_;
    std::condition_variable reached_;
};

// ---------------------------------------------------------------- the two outputs of ours

class CountingLogger : public qrl::QRLAbstractLogger {
public:
    using QRLAbstractLogger::QRLAbstractLogger;
    Tally count;
};

class NullLogger final : public CountingLogger {
public:
    NullLogger() : CountingLogger("bench.null") {}
    void logMessage(const qrl::QRLLogMessage&) override { count.add(); }
};

class FileLogger final : public CountingLogger {
public:
    explicit FileLogger(const std::string& path) : CountingLogger("bench.file"), file_(std::fopen(path.c_str(), "w")) {}
    ~FileLogger() override {
        if (file_) std::fclose(file_);
    }
    void logMessage(const qrl::QRLLogMessage& m) override {
        line_.clear();
        if (qrl::QRLLogFormatter* f = formatter()) {
            if (!f->appendFormattedLogMessage(m, line_)) return;
        } else {
            line_ = m.logMsg();
        }
        line_ += '\n';
        std::fwrite(line_.data(), 1, line_.size(), file_);
        count.add();
    }
    void flush() override { std::fflush(file_); }
    bool answers(Operation op) const override { return op == Operation::flush; }

private:
    std::FILE* file_;
    std::string line_;
};

std::shared_ptr<CountingLogger> attachOurs(bool toFile) {
    qrl::qrl_loggingEnabled = true;
    qrl::sharedLogLevel = qrl::kLogLevelInfo;
    std::shared_ptr<CountingLogger> logger;
    if (toFile)
        logger = std::make_shared<FileLogger>(filePath("qrl"));
    else
        logger = std::make_shared<NullLogger>();
    auto form = std::make_shared<qrl::ThreadLogger>();
    form->setIncludeDate(true);
    logger->setLogFormatter(form);
    qrl::QRLLog::addLogger(logger);
    qrl::QRLLog::flushLog();
    return logger;
}

void detachOurs(const std::shared_ptr<CountingLogger>& logger) {
    qrl::QRLLog::flushLog();
    qrl::QRLLog::removeLogger(logger);
    qrl::QRLLog::flushLog();
}

inline void ourStatement(int i) { QRLLogInfo("frame %d took %.3f ms on %s", i, i * 0.001, "display-1"); }

// ---------------------------------------------------------------- spdlog

// Counts what the wrapped sink has taken, so that a run can wait for the end.
class CountingSink final : public spdlog::sinks::sink {
public:
    explicit CountingSink(std::shared_ptr<spdlog::sinks::sink> inner) : inner_(std::move(inner)) {}
    void log(const spdlog::details::log_msg& msg) override {
        inner_->log(msg);
        count.add();
    }
    void flush() override { inner_->flush(); }
    void set_pattern(const std::string& pattern) override { inner_->set_pattern(pattern); }
    void set_formatter(std::unique_ptr<spdlog::formatter> f) override { inner_->set_formatter(std::move(f)); }
    Tally count;

private:
    std::shared_ptr<spdlog::sinks::sink> inner_;
};

struct Peer {
    std::shared_ptr<spdlog::async_logger> logger;
    std::shared_ptr<CountingSink> sink;
};

Peer makePeer(bool toFile) {
    static auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);  // spdlog's default queue
    std::shared_ptr<spdlog::sinks::sink> inner;
    if (toFile)
        inner = std::make_shared<spdlog::sinks::basic_file_sink_mt>(filePath("spdlog"), true);
    else
        inner = std::make_shared<spdlog::sinks::null_sink_mt>();
    auto sink = std::make_shared<CountingSink>(inner);
    auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool, spdlog::async_overflow_policy::block);
    logger->set_pattern(kSpdlogPattern);
    logger->set_level(spdlog::level::info);
    return {logger, sink};
}

double percentile(std::vector<double> samples, double p) {
    const size_t k = std::min(samples.size() - 1, static_cast<size_t>(p * static_cast<double>(samples.size())));
    std::nth_element(samples.begin(), samples.begin() + static_cast<long>(k), samples.end());
    return samples[k];
}

// ---------------------------------------------------------------- caller latency

constexpr uint64_t kBurst = 20;
constexpr size_t kMaxSamples = size_t{1} << 21;

// One statement per iteration, timed one by one as well; after every burst
// the clock stops while the output catches up.
template <class Statement>
void callerLatency(benchmark::State& state, Statement statement, Tally& delivered) {
    std::vector<double> samples;
    samples.reserve(kMaxSamples);
    uint64_t i = 0;
    const uint64_t allocationsBefore = gAllocations.load();
    for (auto _ : state) {
        const auto start = Clock::now();
        statement(static_cast<int>(i));
        const auto end = Clock::now();
        if (samples.size() < kMaxSamples) samples.push_back(std::chrono::duration<double>(end - start).count());
        if (++i % kBurst == 0) {
            state.PauseTiming();
            delivered.waitFor(i);
            state.ResumeTiming();
        }
    }
    delivered.waitFor(i);
    const double allocations = static_cast<double>(gAllocations.load() - allocationsBefore);
    state.counters["allocs/msg"] = allocations / static_cast<double>(std::max<uint64_t>(i, 1));
    state.counters["samples"] = static_cast<double>(samples.size());
    if (samples.empty()) return;
    state.counters["p50_ns"] = percentile(samples, 0.5) * 1e9;
    state.counters["p90_ns"] = percentile(samples, 0.9) * 1e9;
    state.counters["p99_ns"] = percentile(samples, 0.99) * 1e9;
    state.counters["p999_ns"] = percentile(samples, 0.999) * 1e9;
}

void CallerOurs(benchmark::State& state) {
    auto logger = attachOurs(true);
    callerLatency(state, ourStatement, logger->count);
    detachOurs(logger);
}

void CallerPeer(benchmark::State& state) {
    Peer peer = makePeer(true);
    callerLatency(
        state, [&](int i) { peer.logger->info("frame {} took {:.3f} ms on {}", i, i * 0.001, "display-1"); },
        peer.sink->count);
}

// ---------------------------------------------------------------- throughput

constexpr int kPerProducer = 50'000;

template <class Statement>
void produce(int producers, Statement statement) {
    std::vector<std::thread> threads;
    for (int p = 0; p < producers; ++p)
        threads.emplace_back([&statement] {
            for (int i = 0; i < kPerProducer; ++i) statement(i);
        });
    for (auto& t : threads) t.join();
}

void finishThroughput(benchmark::State& state, int producers, uint64_t allocations) {
    const double messages = static_cast<double>(state.iterations()) * producers * kPerProducer;
    state.SetItemsProcessed(static_cast<int64_t>(messages));
    state.counters["allocs/msg"] = static_cast<double>(allocations) / messages;
}

void ThroughputOurs(benchmark::State& state, int producers, bool toFile) {
    auto logger = attachOurs(toFile);
    uint64_t allocations = 0;
    for (auto _ : state) {
        logger->count.reset();
        const uint64_t before = gAllocations.load();
        produce(producers, ourStatement);
        logger->count.waitFor(static_cast<uint64_t>(producers) * kPerProducer);
        allocations += gAllocations.load() - before;
        if (logger->count.value() != static_cast<uint64_t>(producers) * kPerProducer)
            state.SkipWithError("lost messages");
    }
    finishThroughput(state, producers, allocations);
    detachOurs(logger);
}

void ThroughputPeer(benchmark::State& state, int producers, bool toFile) {
    Peer peer = makePeer(toFile);
    uint64_t allocations = 0;
    for (auto _ : state) {
        peer.sink->count.reset();
        const uint64_t before = gAllocations.load();
        produce(producers,
                [&](int i) { peer.logger->info("frame {} took {:.3f} ms on {}", i, i * 0.001, "display-1"); });
        peer.sink->count.waitFor(static_cast<uint64_t>(producers) * kPerProducer);
        allocations += gAllocations.load() - before;
        if (peer.sink->count.value() != static_cast<uint64_t>(producers) * kPerProducer)
            state.SkipWithError("lost messages");
    }
    finishThroughput(state, producers, allocations);
}

void CleanUp() {
    std::remove(filePath("qrl").c_str());
    std::remove(filePath("spdlog").c_str());
}

}  // namespace

// Caller cost is CPU time of the calling thread; throughput is wall time,
// since a producer held back by a full queue spends none.
BENCHMARK(CallerOurs)->Name("Caller/qrl");
BENCHMARK(CallerPeer)->Name("Caller/spdlog");
BENCHMARK_CAPTURE(ThroughputOurs, Null1, 1, false)->Name("Null1/qrl")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputPeer, Null1, 1, false)->Name("Null1/spdlog")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputOurs, Null4, 4, false)->Name("Null4/qrl")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputPeer, Null4, 4, false)->Name("Null4/spdlog")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputOurs, File1, 1, true)->Name("File1/qrl")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputPeer, File1, 1, true)->Name("File1/spdlog")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputOurs, File4, 4, true)->Name("File4/qrl")->UseRealTime();
BENCHMARK_CAPTURE(ThroughputPeer, File4, 4, true)->Name("File4/spdlog")->UseRealTime();

[[maybe_unused]] const int gCleanUp = std::atexit(CleanUp);

QRL_BENCH_MAIN()
