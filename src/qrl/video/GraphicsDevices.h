// GraphicsDevices: the port through which the video subsystem asks the
// platform about graphics renderers: the renderers that can drive a display
// mask with their properties, pixel formats for a display mask, and GL
// contexts. Backends: sim/ (scriptable), egl/ (EGL device enumeration).
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <span>
#include <string_view>
#include <vector>

#include "qrl/video/GLContext.h"

namespace qrl {

// Result codes of the renderer queries: 0 is success.
using CGLError = int32_t;
inline constexpr CGLError kCGLNoError = 0;
inline constexpr CGLError kCGLBadAttribute = 10000;
inline constexpr CGLError kCGLBadPixelFormat = 10002;
inline constexpr CGLError kCGLBadContext = 10004;
inline constexpr CGLError kCGLBadDisplay = 10006;
inline constexpr CGLError kCGLBadValue = 10008;
inline constexpr CGLError kCGLBadAlloc = 10016;
inline constexpr CGLError kCGLBadConnection = 10017;

// Pixel format attributes understood by choosePixelFormat; a list ends with 0.
// Those in pixelFormatAttributeTakesValue() are followed by their value.
inline constexpr int32_t kCGLPFAAllRenderers = 1;
inline constexpr int32_t kCGLPFADoubleBuffer = 5;
inline constexpr int32_t kCGLPFAColorSize = 8;
inline constexpr int32_t kCGLPFADepthSize = 12;
inline constexpr int32_t kCGLPFAFullScreen = 54;
inline constexpr int32_t kCGLPFANoRecovery = 72;
inline constexpr int32_t kCGLPFAAccelerated = 73;
inline constexpr int32_t kCGLPFADisplayMask = 84;
inline constexpr int32_t kCGLPFAPBuffer = 90;
inline constexpr int32_t kCGLPFAVirtualScreenCount = 128;

// Whether an attribute is followed by a value in an attribute list.
bool pixelFormatAttributeTakesValue(int32_t attribute);
// A 0-terminated attribute list as attribute to value (1 for flags).
// kCGLBadAttribute for an unknown attribute or a value cut off by the end,
// kCGLBadDisplay when no non-zero kCGLPFADisplayMask is given.
CGLError parsePixelFormatAttributes(std::span<const int32_t> attributes, std::map<int32_t, int32_t>& parsed);

// The properties of one renderer, as 32-bit integers.
struct RendererDescription {
    int32_t rendererID = 0;      // stable and non-zero
    int32_t accelerated = 0;     // 1 when the renderer counts as accelerated
    int32_t fullScreen = 0;      // 1 when it can drive a display on its own
    int32_t videoMemory = 0;     // bytes, saturated at INT32_MAX; 0 when unknown
    int32_t textureMemory = 0;   // bytes, saturated at INT32_MAX; 0 when unknown
};

// Every operation may be called from any thread.
class GraphicsDevices {
public:
    virtual ~GraphicsDevices() = default;

    // "sim", "egl", "none".
    virtual std::string_view backendName() const = 0;
    // Whether contexts made here draw real pixels that can be read back (a
    // simulated renderer only records the calls).
    virtual bool drawsPixels() const { return true; }

    // The renderers that can serve `displayMask`, in the platform's order,
    // into `renderers` (replaced). Non-zero on failure.
    virtual CGLError queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) = 0;
    // A pixel format for a 0-terminated attribute list (kCGLPFAFullScreen,
    // kCGLPFADisplayMask followed by the mask). `format` is null when no
    // renderer qualifies; the result code says why, and is 0 when the only
    // reason is that nothing matched.
    virtual CGLError choosePixelFormat(std::span<const int32_t> attributes, std::unique_ptr<GLPixelFormat>& format) = 0;
    // A new context for a format from choosePixelFormat, sharing objects with
    // `share` when given; null on failure.
    virtual std::unique_ptr<GLContext> createContext(const GLPixelFormat& format, GLContext* share) = 0;
    // The value of one attribute of a format for a virtual screen (Linux has
    // one, 0). Non-zero on failure: kCGLBadValue for another virtual screen,
    // kCGLBadPixelFormat for a format of another backend.
    virtual CGLError describePixelFormat(const GLPixelFormat& format, int32_t virtualScreen, int32_t attribute,
                                         int32_t& value) {
        (void)format, (void)virtualScreen, (void)attribute;
        value = 0;
        return kCGLBadPixelFormat;
    }
};

}  // namespace qrl
