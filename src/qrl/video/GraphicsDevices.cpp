#include "qrl/video/GraphicsDevices.h"

#include <algorithm>
#include <array>

namespace qrl {

namespace {

// Flags: their presence is the request.
constexpr std::array<int32_t, 24> kFlags{1,  3,  5,  6,  9,  10, 51, 52, 53, 54, 57, 58,
                                         59, 60, 61, 71, 72, 73, 74, 76, 80, 83, 90, 96};
// Attributes followed by a value.
constexpr std::array<int32_t, 11> kValued{7, 8, 11, 12, 13, 14, 55, 56, 70, 84, 128};

}  // namespace

bool pixelFormatAttributeTakesValue(int32_t attribute) {
    return std::find(kValued.begin(), kValued.end(), attribute) != kValued.end();
}

CGLError parsePixelFormatAttributes(std::span<const int32_t> attributes, std::map<int32_t, int32_t>& parsed) {
    parsed.clear();
    for (size_t i = 0; i < attributes.size() && attributes[i] != 0; ++i) {
        const int32_t a = attributes[i];
        if (pixelFormatAttributeTakesValue(a)) {
            if (i + 1 >= attributes.size()) return kCGLBadAttribute;
            parsed[a] = attributes[++i];
        } else if (std::find(kFlags.begin(), kFlags.end(), a) != kFlags.end()) {
            parsed[a] = 1;
        } else {
            return kCGLBadAttribute;
        }
    }
    const auto mask = parsed.find(kCGLPFADisplayMask);
    if (mask == parsed.end() || mask->second == 0) return kCGLBadDisplay;
    return kCGLNoError;
}

}  // namespace qrl
