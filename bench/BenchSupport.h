// Shared main for the benchmark programs. Benchmarks are named
// "<case>/<implementation>"; after the run, every case prints the ratio of
// the "qrl" implementation's time to each peer's (the median when
// repetitions are asked for), so a figure below 1.0 means ours is faster.
// The time is CPU time of the benchmark's thread, or wall time for
// benchmarks that ask for it (UseRealTime, "/real_time" in the name), as
// those whose work runs on other threads do.
#pragma once

#include <benchmark/benchmark.h>

#include <cstdio>
#include <map>
#include <set>
#include <string>
#include <vector>

namespace qrl::bench {

class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred) continue;
            const bool median = run.run_type == Run::RT_Aggregate && run.aggregate_name == "median";
            if (run.run_type == Run::RT_Aggregate && !median) continue;
            const std::string name = run.run_name.str();
            const auto slash = name.find('/');
            if (slash == std::string::npos) continue;
            const auto end = name.find('/', slash + 1);
            const std::string impl = name.substr(slash + 1, end == std::string::npos ? end : end - slash - 1);
            const bool wall = name.find("/real_time") != std::string::npos;
            auto& impls = cases_[name.substr(0, slash)];
            // A median replaces single iterations of the same benchmark.
            if (median || !medians_.count(name))
                impls[impl] = wall ? run.GetAdjustedRealTime() : run.GetAdjustedCPUTime();
            if (median) medians_.insert(name);
        }
    }
    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-32s %-14s %14s %14s %8s\n", "case", "peer", "qrl", "peer", "qrl/peer");
        for (const auto& [name, impls] : cases_) {
            const auto ours = impls.find("qrl");
            if (ours == impls.end()) continue;
            for (const auto& [impl, time] : impls) {
                if (impl == "qrl" || time <= 0) continue;
                std::printf("%-32s %-14s %14.3f %14.3f %8.3f\n", name.c_str(), impl.c_str(), ours->second, time,
                            ours->second / time);
            }
        }
    }

private:
    std::map<std::string, std::map<std::string, double>> cases_;
    std::set<std::string> medians_;
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
