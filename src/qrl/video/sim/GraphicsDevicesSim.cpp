#include "qrl/video/sim/GraphicsDevicesSim.h"

#include <stdexcept>

namespace qrl {

namespace {

struct SimPixelFormat final : GLPixelFormat {
    explicit SimPixelFormat(SimRenderer r) : renderer(std::move(r)) {}
    SimRenderer renderer;
};

}  // namespace

SimGLContext::SimGLContext(SimRenderer renderer, std::shared_ptr<std::atomic<int>> alive)
    : renderer_(std::move(renderer)), alive_(std::move(alive)) {
    ++*alive_;
}

SimGLContext::~SimGLContext() { --*alive_; }

std::optional<std::string> SimGLContext::getString(uint32_t name) {
    switch (name) {
    case GL_RENDERER: return renderer_.cardName;
    case GL_VENDOR: return std::string("QRLShared simulation");
    case GL_VERSION: return std::string("2.1 simulated");
    default: return std::nullopt;
    }
}

uint32_t SimGLContext::getError() {
    std::lock_guard lock(errorsMutex_);
    if (errors_.empty()) return GL_NO_ERROR;
    const uint32_t e = errors_.front();
    errors_.pop_front();
    return e;
}

bool SimGLContext::makeCurrent() {
    setCurrent(this);
    return true;
}

void SimGLContext::pushError(uint32_t error) {
    std::lock_guard lock(errorsMutex_);
    errors_.push_back(error);
}

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
    uint32_t mask = 0;
    bool fullScreen = false;
    for (size_t i = 0; i < attributes.size() && attributes[i] != 0; ++i) {
        if (attributes[i] == kCGLPFAFullScreen) {
            fullScreen = true;
        } else if (attributes[i] == kCGLPFADisplayMask) {
            if (i + 1 >= attributes.size()) return kCGLBadAttribute;
            mask = static_cast<uint32_t>(attributes[++i]);
        } else {
            return kCGLBadAttribute;
        }
    }
    counters_.lastDisplayMask = mask;
    counters_.lastAskedFullScreen = fullScreen;
    if (pixelFormatError_ != 0) return pixelFormatError_;
    for (const SimRenderer& r : renderers_) {
        if (r.accelerated && (r.displayMask & mask) != 0) {
            format = std::make_unique<SimPixelFormat>(r);
            return kCGLNoError;
        }
    }
    return kCGLNoError;  // nothing matched: no format, no error
}

std::unique_ptr<GLContext> GraphicsDevicesSim::createContext(const GLPixelFormat& format, GLContext*) {
    const auto* sim = dynamic_cast<const SimPixelFormat*>(&format);
    std::lock_guard lock(mutex_);
    if (!sim || sim->renderer.contextFails) return nullptr;
    ++counters_.contextsCreated;
    return std::make_unique<SimGLContext>(sim->renderer, alive_);
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
