// libFuzzer entry for the JSON reader: each input goes through the shared
// check, and anything insane aborts with the reason.
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

#include "JsonFuzzCheck.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string problem =
        qrl::fuzzcheck::checkJsonInput(std::string_view(reinterpret_cast<const char*>(data), size));
    if (!problem.empty()) {
        std::fprintf(stderr, "JSON fuzz check failed: %s\n", problem.c_str());
        std::abort();
    }
    return 0;
}
