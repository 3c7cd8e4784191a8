#include "RecordOptions.h"

#include <cerrno>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <string_view>

namespace qrl::record {

namespace {

bool parseNumber(const std::string& text, double& out) {
    if (text.empty()) return false;
    errno = 0;
    char* end = nullptr;
    out = std::strtod(text.c_str(), &end);
    return errno == 0 && end && *end == '\0' && std::isfinite(out);
}

}  // namespace

const char* recordUsage() {
    return "usage: qrl-record [--seconds S] [--fps R] [--out DIR] [--platform sim|x11] [--gpu auto|on|off]\n"
           "                  [--size WxH] [--seed N] [--realtime] [--verbose]\n"
           "\n"
           "Records a display, places every frame on the movie's time line, and writes\n"
           "DIR/movie.y4m (constant rate) and DIR/timeline.csv (one row per arrival).\n"
           "On x11 it records the main display of the X server ($DISPLAY) in real time;\n"
           "on sim, a moving test pattern from a virtual display whose frames arrive at\n"
           "irregular times. Frames go to 4:2:0 through the GPU (EGL) where it can.\n"
           "A display that changes size or goes away ends the recording, with a\n"
           "complete movie.\n"
           "\n"
           "  --seconds S    length of the recording in seconds (default 10)\n"
           "  --fps R        movie frame rate, e.g. 15, 23.976, 29.97, 30, 60 (default 30)\n"
           "  --out DIR      output folder, made if missing (default qrl-record-out)\n"
           "  --platform P   'x11' (the X server; the default where $DISPLAY is set) or 'sim'\n"
           "  --gpu G        'auto' (default): convert on the GPU where one can be had, else\n"
           "                 on the CPU; 'on': the GPU or nothing; 'off': the CPU\n"
           "  --size WxH     sim picture size, from 16x16 to 3840x2160 (default 320x180);\n"
           "                 implies sim, as x11 records the display at its own size\n"
           "  --seed N       seed of the arrival pattern (default 1)\n"
           "  --realtime     pace the recording to the wall clock instead of running flat out\n"
           "  --verbose      before the summary, say which backend each platform service\n"
           "                 chose and why the others were refused\n";
}

std::optional<RecordOptions> parseRecordOptions(int argc, char** argv, std::string& error) {
    RecordOptions o;
    if (const char* display = std::getenv("DISPLAY"); display && *display) o.platform = "x11";
    auto fail = [&error](std::string reason) -> std::optional<RecordOptions> {
        error = std::move(reason);
        return std::nullopt;
    };
    for (int i = 1; i < argc; ++i) {
        std::string arg = argv[i];
        std::string value;
        bool hasValue = false;
        if (const auto eq = arg.find('='); arg.rfind("--", 0) == 0 && eq != std::string::npos) {
            value = arg.substr(eq + 1);
            arg = arg.substr(0, eq);
            hasValue = true;
        }
        auto needValue = [&]() -> bool {
            if (hasValue) return true;
            if (i + 1 >= argc) {
                fail(arg + " needs a value");
                return false;
            }
            value = argv[++i];
            return true;
        };
        if (arg == "--help" || arg == "-h") {
            o.help = true;
        } else if (arg == "--realtime") {
            o.realtime = true;
        } else if (arg == "--verbose" || arg == "-v") {
            o.verbose = true;
        } else if (arg == "--seconds") {
            double v = 0;
            if (!needValue()) return std::nullopt;
            if (!parseNumber(value, v)) return fail("--seconds must be a number, got '" + value + "'");
            if (v <= 0 || v > 86400) return fail("--seconds must be above 0 and at most 86400, got '" + value + "'");
            o.seconds = v;
        } else if (arg == "--fps") {
            double v = 0;
            if (!needValue()) return std::nullopt;
            if (!parseNumber(value, v)) return fail("--fps must be a number, got '" + value + "'");
            if (v <= 0) return fail("--fps must be a positive rate, got '" + value + "'");
            if (v < 0.6 || v > 1000) return fail("--fps must be between 0.6 and 1000 frames per second, got '" + value + "'");
            o.fps = static_cast<float>(v);
        } else if (arg == "--out") {
            if (!needValue()) return std::nullopt;
            if (value.empty()) return fail("--out needs a folder name");
            o.out = value;
        } else if (arg == "--platform") {
            if (!needValue()) return std::nullopt;
            if (value != "sim" && value != "x11")
                return fail("platform '" + value + "' is not available; the platforms are 'x11' and 'sim'");
            o.platform = value;
            o.platformGiven = true;
        } else if (arg == "--gpu") {
            if (!needValue()) return std::nullopt;
            if (value != "auto" && value != "on" && value != "off")
                return fail("--gpu must be 'auto', 'on' or 'off', got '" + value + "'");
            o.gpu = value;
        } else if (arg == "--size") {
            if (!needValue()) return std::nullopt;
            int w = 0, h = 0;
            char tail = 0;
            if (std::sscanf(value.c_str(), "%dx%d%c", &w, &h, &tail) != 2 || w < 16 || h < 16 || w > 3840 ||
                h > 2160)
                return fail("--size must be WxH from 16x16 to 3840x2160, got '" + value + "'");
            o.width = w;
            o.height = h;
            o.sizeGiven = true;
        } else if (arg == "--seed") {
            if (!needValue()) return std::nullopt;
            errno = 0;
            char* end = nullptr;
            const unsigned long long v = std::strtoull(value.c_str(), &end, 10);
            if (value.empty() || errno || *end || value[0] == '-') return fail("--seed must be a whole number, got '" + value + "'");
            o.seed = v;
        } else {
            return fail("unknown option '" + std::string(argv[i]) + "'");
        }
    }
    if (o.sizeGiven && !o.platformGiven) o.platform = "sim";  // only the simulated display has a chosen size
    if (o.platform == "x11" && o.sizeGiven)
        return fail("--size applies to the sim platform; x11 records the display at its own size");
    return o;
}

}  // namespace qrl::record
