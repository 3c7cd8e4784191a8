// Command-line options of qrl-record, parsed and checked before anything is
// written.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qrl::record {

struct RecordOptions {
    double seconds = 10.0;
    float fps = 30.0f;
    std::string out = "qrl-record-out";
    std::string platform = "sim";
    int width = 320;
    int height = 180;
    uint64_t seed = 1;
    bool realtime = false;
    bool help = false;
};

// Parses argv. On a bad option returns nullopt and writes a one-line reason
// (without the program name) to `error`.
std::optional<RecordOptions> parseRecordOptions(int argc, char** argv, std::string& error);

const char* recordUsage();

}  // namespace qrl::record
