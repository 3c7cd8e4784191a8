// Shared main for the benchmark programs. Benchmarks are named
// "<case>/<implementation>"; after the run, every case prints the ratio of
// the "qrl" implementation's time to each peer's, so a figure below 1.0
// means ours is faster.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <string>
#include <vector>

namespace qrl::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.run_type != Run::RT_Iteration || run.error_occurred) continue;
            const std::string name = run.benchmark_name();
            const auto slash = name.find('/');
            if (slash == std::string::npos) continue;
            auto& impls = cases_[name.substr(0, slash)];
            impls[name.substr(slash + 1)] = run.GetAdjustedRealTime();
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-40s %-12s %12s %12s %8s\n", "case", "peer", "qrl", "peer", "ratio");
        for (const auto& [name, impls] : cases_) {
            const auto ours = impls.find("qrl");
            if (ours == impls.end()) continue;
            for (const auto& [impl, time] : impls) {
                if (impl == "qrl" || time <= 0) continue;
                std::printf("%-40s %-12s %12.3f %12.3f %8.3f\n", name.c_str(), impl.c_str(), ours->second, time,
                            ours->second / time);
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> cases_;
};

}  // namespace qrl::bench

#define QRL_BENCH_MAIN()                                               \
    int main(int argc, char** argv) {                                  \
        benchmark::Initialize(&argc, argv);                            \
        if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1; \
        qrl::bench::RatioReporter reporter;                            \
        benchmark::RunSpecifiedBenchmarks(&reporter);                  \
        benchmark::Shutdown();                                         \
        return 0;                                                      \
    }
