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
    // "x11" where $DISPLAY is set, else "sim".
    std::string platform = "sim";
    bool platformGiven = false;
    // "auto": the GPU path where a GL renderer can be had; "on": only that; "off": the CPU.
    std::string gpu = "auto";
    int width = 320;
    int height = 180;
    bool sizeGiven = false;
    uint64_t seed = 1;
    bool realtime = false;
    // Print which backend each port chose, and why the others were refused.
    bool verbose = false;
    bool help = false;
};

// Parses argv. On a bad option returns nullopt and writes a one-line reason
// (without the program name) to `error`.
std::optional<RecordOptions> parseRecordOptions(int argc, char** argv, std::string& error);

const char* recordUsage();

}  // namespace qrl::record
