// GraphicsDevicesSim: scriptable graphics renderers for tests and
// simulations: renderers per display mask with accelerated flags and memory
// sizes, card names or failures, contexts with a fake GL (SimGLContext);
// fault injection for each query and counters of every call and of the
// contexts alive.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/sim/SimGLContext.h"

namespace qrl {

// Thread-safe.
class GraphicsDevicesSim final : public GraphicsDevices {
public:
    GraphicsDevicesSim();

    std::string_view backendName() const override { return "sim"; }

    bool drawsPixels() const override { return false; }
    // Every renderer whose displayMask shares a bit with the mask, in order.
    CGLError queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) override;
    // The first accelerated renderer that serves the mask; a format is made
    // whatever kCGLPFAFullScreen says.
    CGLError choosePixelFormat(std::span<const int32_t> attributes, std::unique_ptr<GLPixelFormat>& format) override;
    // A context with the fake GL; with `share` (a context of the same
    // renderer) it joins that context's share group.
    std::unique_ptr<GLContext> createContext(const GLPixelFormat& format, GLContext* share) override;
    // The attributes asked for (flags as 1), the display mask, one virtual
    // screen (128 answers 1), and kCGLPFAAccelerated of the renderer.
    CGLError describePixelFormat(const GLPixelFormat& format, int32_t virtualScreen, int32_t attribute,
                                 int32_t& value) override;
    // A format for the renderer as if chosen with these attributes (tests of
    // pixel-format managers); null for an unknown renderer ID.
    std::unique_ptr<GLPixelFormat> pixelFormatForRenderer(int32_t rendererID, std::span<const int32_t> attributes);

    void setRenderers(std::vector<SimRenderer> renderers);
    std::vector<SimRenderer> renderers() const;
    // Faults: a non-zero code makes the query fail with it until cleared (0).
    void failQueryRendererInfo(CGLError error);
    void failChoosePixelFormat(CGLError error);
    // Makes queryRendererInfo throw std::runtime_error (a backend fault that
    // is not the framework's exception) until cleared.
    void throwFromQueryRendererInfo(bool enabled);

    struct Counters {
        int rendererQueries = 0;
        int pixelFormatRequests = 0;
        int contextsCreated = 0;
        int contextsAlive = 0;
        int contextsRefusedSharing = 0;    // a share context of another renderer
        uint32_t lastDisplayMask = 0;      // of the last pixel format request
        bool lastAskedFullScreen = false;  // of the last pixel format request
    };
    Counters counters() const;

private:
    mutable std::mutex mutex_;
    std::vector<SimRenderer> renderers_;
    CGLError queryError_ = 0;
    CGLError pixelFormatError_ = 0;
    bool queryThrows_ = false;
    Counters counters_;
    std::shared_ptr<std::atomic<int>> alive_;
};

}  // namespace qrl
