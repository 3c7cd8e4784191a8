// JSON reading and writing throughput, in bytes per second, on three
// generated documents (many small objects with strings, deep nesting, many
// numbers), side by side with nlohmann-json and RapidJSON's DOM in the same
// binary. At the end the ratios of our speed to theirs are printed (the
// medians when run with --benchmark_repetitions; interleaving them with
// --benchmark_enable_random_interleaving evens out a busy machine).
#include <benchmark/benchmark.h>

#include <algorithm>
#include <cstdio>
#include <map>
#include <nlohmann/json.hpp>
#include <random>
#include <rapidjson/document.h>
#include <rapidjson/stringbuffer.h>
#include <rapidjson/writer.h>
#include <string>
#include <vector>

#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"

namespace {

enum Shape { kObjects = 0, kDeep = 1, kNumbers = 2 };
const char* const kShapeNames[] = {"objects", "deep", "numbers"};

// About 2 MB each.
std::string makeObjects() {
    std::mt19937 random(1);
    static const char* const words[] = {"alpha", "beta", "gamma", "delta", "epsilon", "zeta", "eta", "theta"};
    std::string s = "[";
    for (int i = 0; i < 14000; ++i) {
        if (i) s += ',';
        s += "{\"id\":" + std::to_string(i) + ",\"name\":\"user_" + std::to_string(random() % 100000) +
             "\",\"email\":\"someone" + std::to_string(i) + "@example.org\",\"active\":" +
             ((random() & 1) ? "true" : "false") + ",\"city\":\"" + words[random() % 8] + " " + words[random() % 8] +
             "\",\"tags\":[\"" + words[random() % 8] + "\",\"" + words[random() % 8] +
             "\"],\"note\":\"line one\\nline \\\"two\\\"\"}";
    }
    return s + "]";
}

std::string makeDeep() {
    std::string one;
    const int depth = 200;
    for (int d = 0; d < depth; ++d) one += (d % 2) ? "[" : "{\"level\":" + std::to_string(d) + ",\"next\":";
    one += "\"bottom\"";
    for (int d = depth - 1; d >= 0; --d) one += (d % 2) ? "]" : "}";
    std::string s = "[";
    for (int i = 0; i < 700; ++i) {
        if (i) s += ',';
        s += one;
    }
    return s + "]";
}

std::string makeNumbers() {
    std::mt19937_64 random(3);
    std::string s = "[";
    char buffer[64];
    for (int i = 0; i < 160000; ++i) {
        if (i) s += ',';
        switch (i % 4) {
            case 0:
                s += std::to_string(static_cast<int64_t>(random() % 2000000) - 1000000);
                break;
            case 1:
                s += std::to_string(static_cast<int64_t>(random()));
                break;
            case 2:
                std::snprintf(buffer, sizeof buffer, "%.3f", static_cast<double>(random() % 10000000) / 7.0);
                s += buffer;
                break;
            default:
                std::snprintf(buffer, sizeof buffer, "%.6e", static_cast<double>(random() % 1000000) * 1.37e-5);
                s += buffer;
                break;
        }
    }
    return s + "]";
}

const std::string& document(int shape) {
    static const std::string docs[] = {makeObjects(), makeDeep(), makeNumbers()};
    return docs[shape];
}

void BM_Parse_QRL(benchmark::State& state) {
    const std::string& text = document(static_cast<int>(state.range(0)));
    qrl::QRLJsonParser parser;
    for (auto _ : state) {
        qrl::Value value = parser.objectWithString(text);
        if (value.isNull()) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(kShapeNames[state.range(0)]);
}

void BM_Parse_Nlohmann(benchmark::State& state) {
    const std::string& text = document(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        nlohmann::json value = nlohmann::json::parse(text);
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(kShapeNames[state.range(0)]);
}

void BM_Parse_RapidJSON(benchmark::State& state) {
    const std::string& text = document(static_cast<int>(state.range(0)));
    for (auto _ : state) {
        rapidjson::Document value;
        value.Parse(text.c_str(), text.size());
        if (value.HasParseError()) state.SkipWithError("parse failed");
        benchmark::DoNotOptimize(value);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * text.size()));
    state.SetLabel(kShapeNames[state.range(0)]);
}

// Writing: bytes counted are those of the text each library writes.
void BM_Write_QRL(benchmark::State& state) {
    qrl::QRLJsonParser parser;
    const qrl::Value value = parser.objectWithString(document(static_cast<int>(state.range(0))));
    qrl::QRLJsonWriter writer;
    size_t bytes = 0;
    for (auto _ : state) {
        auto text = writer.stringWithObject(value);
        if (!text) state.SkipWithError("write failed");
        bytes = text->size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.SetLabel(kShapeNames[state.range(0)]);
}

void BM_Write_Nlohmann(benchmark::State& state) {
    const nlohmann::json value = nlohmann::json::parse(document(static_cast<int>(state.range(0))));
    size_t bytes = 0;
    for (auto _ : state) {
        std::string text = value.dump();
        bytes = text.size();
        benchmark::DoNotOptimize(text);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.SetLabel(kShapeNames[state.range(0)]);
}

void BM_Write_RapidJSON(benchmark::State& state) {
    const std::string& text = document(static_cast<int>(state.range(0)));
    rapidjson::Document value;
    value.Parse(text.c_str(), text.size());
    size_t bytes = 0;
    for (auto _ : state) {
        rapidjson::StringBuffer buffer;
        rapidjson::Writer<rapidjson::StringBuffer> writer(buffer);
        value.Accept(writer);
        bytes = buffer.GetSize();
        benchmark::DoNotOptimize(buffer);
    }
    state.SetBytesProcessed(static_cast<int64_t>(state.iterations() * bytes));
    state.SetLabel(kShapeNames[state.range(0)]);
}

BENCHMARK(BM_Parse_QRL)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_Nlohmann)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Parse_RapidJSON)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Write_QRL)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Write_Nlohmann)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_Write_RapidJSON)->DenseRange(0, 2)->Unit(benchmark::kMillisecond);

// Console output as usual, then our throughput over each peer's, by shape.
class RatioReporter : public benchmark::ConsoleReporter {
public:
    void ReportRuns(const std::vector<Run>& runs) override {
        ConsoleReporter::ReportRuns(runs);
        for (const Run& run : runs) {
            if (run.error_occurred || run.run_type != Run::RT_Iteration) continue;
            const auto it = run.counters.find("bytes_per_second");
            if (it == run.counters.end()) continue;
            // "BM_Parse_QRL/1" -> ("Parse", "QRL", 1)
            const std::string name = run.run_name.function_name;
            const size_t split = name.find('_', 3);
            const std::string action = name.substr(3, split - 3);
            const std::string library = name.substr(split + 1);
            const int shape = std::stoi(run.run_name.args);
            speeds_[{action, shape}][library].push_back(it->second.value);
        }
    }

    void Finalize() override {
        ConsoleReporter::Finalize();
        std::printf("\n%-6s %-8s %12s %14s %14s\n", "", "shape", "ours MB/s", "vs nlohmann", "vs RapidJSON");
        for (const auto& [key, speeds] : speeds_) {
            const auto ours = speeds.find("QRL");
            if (ours == speeds.end()) continue;
            auto ratio = [&](const char* peer) {
                const auto it = speeds.find(peer);
                return it == speeds.end() ? 0.0 : median(ours->second) / median(it->second);
            };
            std::printf("%-6s %-8s %12.1f %13.2fx %13.2fx\n", key.first.c_str(), kShapeNames[key.second],
                        median(ours->second) / 1e6, ratio("Nlohmann"), ratio("RapidJSON"));
        }
        std::printf("Goals: parse >= 2x nlohmann and >= 0.5x RapidJSON; write >= 1x nlohmann.\n");
    }

private:
    // With --benchmark_repetitions each run is kept, and the median compared.
    static double median(std::vector<double> values) {
        std::sort(values.begin(), values.end());
        return values[values.size() / 2];
    }

    std::map<std::pair<std::string, int>, std::map<std::string, std::vector<double>>> speeds_;
};

}  // namespace

int main(int argc, char** argv) {
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
    RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    benchmark::Shutdown();
    return 0;
}
