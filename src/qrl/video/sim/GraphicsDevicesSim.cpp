#include "qrl/video/sim/GraphicsDevicesSim.h"

#include <stdexcept>

namespace qrl {

namespace {

struct SimPixelFormat final : GLPixelFormat {
    SimPixelFormat(SimRenderer r, std::map<int32_t, int32_t> a) : renderer(std::move(r)), attributes(std::move(a)) {}
    SimRenderer renderer;
    std::map<int32_t, int32_t> attributes;
};

}  // namespace

GraphicsDevicesSim::GraphicsDevicesSim() : alive_(std::make_shared<std::atomic<int>>(0)) {}

CGLError GraphicsDevicesSim::queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) {
    std::lock_guard lock(mutex_);
    ++counters_.rendererQueries;
    renderers.clear();
    if (queryThrows_) throw std::runtime_error("simulated renderer query fault");
    if (queryError_ != 0) return queryError_;
    for (const SimRenderer& r : renderers_) {
        if ((r.displayMask & displayMask) == 0) continue;
        renderers.push_back({r.rendererID, r.accelerated ? 1 : 0, r.fullScreen, r.videoMemory, r.textureMemory});
    }
    if (renderers.empty()) return kCGLBadDisplay;
    return kCGLNoError;
}

CGLError GraphicsDevicesSim::choosePixelFormat(std::span<const int32_t> attributes,
                                               std::unique_ptr<GLPixelFormat>& format) {
    std::lock_guard lock(mutex_);
    ++counters_.pixelFormatRequests;
    format.reset();
    std::map<int32_t, int32_t> parsed;
    const CGLError parseError = parsePixelFormatAttributes(attributes, parsed);
    if (parseError == kCGLBadAttribute) return parseError;
    const uint32_t mask = static_cast<uint32_t>(parsed.count(kCGLPFADisplayMask) ? parsed[kCGLPFADisplayMask] : 0);
    counters_.lastDisplayMask = mask;
    counters_.lastAskedFullScreen = parsed.count(kCGLPFAFullScreen) != 0;
    if (pixelFormatError_ != 0) return pixelFormatError_;
    if (parseError != kCGLNoError) return parseError;
    for (const SimRenderer& r : renderers_) {
        if (r.accelerated && (r.displayMask & mask) != 0) {
            format = std::make_unique<SimPixelFormat>(r, std::move(parsed));
            return kCGLNoError;
        }
    }
    return kCGLNoError;  // nothing matched: no format, no error
}

std::unique_ptr<GLContext> GraphicsDevicesSim::createContext(const GLPixelFormat& format, GLContext* share) {
    const auto* sim = dynamic_cast<const SimPixelFormat*>(&format);
    std::lock_guard lock(mutex_);
    if (!sim || sim->renderer.contextFails) return nullptr;
    std::shared_ptr<SimGLShareGroup> group;
    if (share) {
        auto* other = dynamic_cast<SimGLContext*>(share);
        if (!other || other->renderer().rendererID != sim->renderer.rendererID) {
            ++counters_.contextsRefusedSharing;  // objects cannot be shared across renderers
            return nullptr;
        }
        group = other->shareGroupHandle();
    }
    ++counters_.contextsCreated;
    return std::make_unique<SimGLContext>(sim->renderer, alive_, std::move(group));
}

CGLError GraphicsDevicesSim::describePixelFormat(const GLPixelFormat& format, int32_t virtualScreen, int32_t attribute,
                                                 int32_t& value) {
    value = 0;
    const auto* sim = dynamic_cast<const SimPixelFormat*>(&format);
    if (!sim) return kCGLBadPixelFormat;
    if (virtualScreen != 0) return kCGLBadValue;
    if (attribute == kCGLPFAVirtualScreenCount) {
        value = 1;
    } else if (attribute == kCGLPFAAccelerated) {
        value = sim->renderer.accelerated ? 1 : 0;
    } else if (const auto it = sim->attributes.find(attribute); it != sim->attributes.end()) {
        value = it->second;
    }
    return kCGLNoError;
}

std::unique_ptr<GLPixelFormat> GraphicsDevicesSim::pixelFormatForRenderer(int32_t rendererID,
                                                                         std::span<const int32_t> attributes) {
    std::lock_guard lock(mutex_);
    std::map<int32_t, int32_t> parsed;
    if (parsePixelFormatAttributes(attributes, parsed) == kCGLBadAttribute) return nullptr;
    for (const SimRenderer& r : renderers_) {
        if (r.rendererID == rendererID) return std::make_unique<SimPixelFormat>(r, std::move(parsed));
    }
    return nullptr;
}

void GraphicsDevicesSim::setRenderers(std::vector<SimRenderer> renderers) {
    std::lock_guard lock(mutex_);
    renderers_ = std::move(renderers);
}

std::vector<SimRenderer> GraphicsDevicesSim::renderers() const {
    std::lock_guard lock(mutex_);
    return renderers_;
}

void GraphicsDevicesSim::failQueryRendererInfo(CGLError error) {
    std::lock_guard lock(mutex_);
    queryError_ = error;
}

void GraphicsDevicesSim::failChoosePixelFormat(CGLError error) {
    std::lock_guard lock(mutex_);
    pixelFormatError_ = error;
}

void GraphicsDevicesSim::throwFromQueryRendererInfo(bool enabled) {
    std::lock_guard lock(mutex_);
    queryThrows_ = enabled;
}

GraphicsDevicesSim::Counters GraphicsDevicesSim::counters() const {
    std::lock_guard lock(mutex_);
    Counters c = counters_;
    c.contextsAlive = alive_->load();
    return c;
}

}  // namespace qrl
