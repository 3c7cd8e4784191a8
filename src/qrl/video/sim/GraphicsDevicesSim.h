// GraphicsDevicesSim: scriptable graphics renderers for tests and
// simulations: renderers per display mask with accelerated flags and memory
// sizes, card names or failures, scripted GL errors; fault injection for each
// query and counters of every call and of the contexts alive.
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

namespace qrl {

struct SimRenderer {
    int32_t rendererID = 0;
    uint32_t displayMask = 1;                 // display mask bits this renderer serves
    bool accelerated = true;
    int32_t fullScreen = 1;
    int32_t videoMemory = 256 << 20;
    int32_t textureMemory = 256 << 20;
    std::optional<std::string> cardName = "Simulated Renderer";  // GL_RENDERER; nullopt answers null
    bool contextFails = false;                // createContext answers null
};

// A context of the simulated renderers. GL errors are scripted per context.
class SimGLContext final : public GLContext {
public:
    SimGLContext(SimRenderer renderer, std::shared_ptr<std::atomic<int>> alive);
    ~SimGLContext() override;

    void lock() override {
        mutex_.lock();
        ++locks_;
    }
    void unlock() override { mutex_.unlock(); }
    std::optional<std::string> getString(uint32_t name) override;
    uint32_t getError() override;
    bool makeCurrent() override;

    // The next getError answers, first in first out; GL_NO_ERROR when none is left.
    void pushError(uint32_t error);
    const SimRenderer& renderer() const { return renderer_; }
    // How many times lock() was called.
    int lockCount() const { return locks_.load(); }

private:
    SimRenderer renderer_;
    std::shared_ptr<std::atomic<int>> alive_;
    std::recursive_mutex mutex_;
    std::atomic<int> locks_{0};
    std::mutex errorsMutex_;
    std::deque<uint32_t> errors_;
};

// Thread-safe.
class GraphicsDevicesSim final : public GraphicsDevices {
public:
    GraphicsDevicesSim();

    std::string_view backendName() const override { return "sim"; }
    // Every renderer whose displayMask shares a bit with the mask, in order.
    CGLError queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) override;
    // The first accelerated renderer that serves the mask; a format is made
    // whatever kCGLPFAFullScreen says.
    CGLError choosePixelFormat(std::span<const int32_t> attributes, std::unique_ptr<GLPixelFormat>& format) override;
    std::unique_ptr<GLContext> createContext(const GLPixelFormat& format, GLContext* share) override;

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
