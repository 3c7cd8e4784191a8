// OpenGLContextManager: owns the GL contexts the capture and compositing
// code draws with, and the texture manager, frame buffers and fragment
// shaders that live in them. Made for a renderer (one context per display it
// drives, all in one share group rooted at context 0), for a pixel format
// (one context for all displays), or around a context somebody else made.
//
// Ownership. Managers are made by the factories and held through
// std::shared_ptr. The texture manager, frame buffers and shaders hold the
// manager too (shared), so the manager lives until cleanUp() breaks those
// references, or until beginReportingLeakedResources() lets go of the texture
// manager once only the owner and it are left. Call cleanUp() when done.
//
// Linux. Contexts are off-screen (EGL): flushFirstNSOpenGLContext flushes
// instead of swapping a drawable, there is no full-screen mode (the full
// screen attribute is asked for and changes nothing, setCurrentContextFullScreen
// does nothing), no drawable to clear at teardown, and one virtual screen, 0.
//
// Threads. Selection is per manager and callers serialise
// their use of one manager; the lists are guarded by a leaf lock of their
// own so that the leak report's reads are not data races. GL work runs
// between lockCurrentContext and unlockCGLContext.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/video/ContextManager.h"
#include "qrl/video/DisplaysProvider.h"

namespace qrl {

class OpenGLContextManager final : public ContextManager, public std::enable_shared_from_this<OpenGLContextManager> {
public:
    // --- Factories. `provider` null means DisplaysProvider::defaultProvider(). ---
    // One context per active display on the renderer; raises "Grabber" when
    // the renderer drives no active display, "OpenGL" when a context cannot
    // be made. The full screen attribute is asked for unless told otherwise.
    static std::shared_ptr<OpenGLContextManager> contextManagerForRenderer(
        const Value& rendererID, std::shared_ptr<DisplaysProvider> provider = nullptr);
    static std::shared_ptr<OpenGLContextManager> contextManagerForRenderer(
        const Value& rendererID, bool fullScreen, std::shared_ptr<DisplaysProvider> provider = nullptr);
    // Around a context made elsewhere; a null one raises "NoCurrentNSOpenGLContext".
    static std::shared_ptr<OpenGLContextManager> contextManagerForNSOpenGLContext(std::shared_ptr<GLContext> context);
    // Around the calling thread's current context (which must be held by a shared_ptr).
    static std::shared_ptr<OpenGLContextManager> contextManagerForCurrentOpenGLContext();
    // One context for every display of the renderer behind the format's
    // display mask, sharing with `sharedContext` when given. Pixel format
    // objects of both kinds are one type here, so the NS forms are the same call.
    static std::shared_ptr<OpenGLContextManager> contextManagerForPixelFormat(
        const GLPixelFormat& format, GLContext* sharedContext = nullptr,
        std::shared_ptr<DisplaysProvider> provider = nullptr);
    static std::shared_ptr<OpenGLContextManager> contextManagerForNSPixelFormat(
        const GLPixelFormat& format, GLContext* sharedContext = nullptr,
        std::shared_ptr<DisplaysProvider> provider = nullptr) {
        return contextManagerForPixelFormat(format, sharedContext, std::move(provider));
    }

    // The format's attributes as labels ("Double Buffered", "Depth Size = 24"), comma-joined.
    static std::string describePixelFormat(const GLPixelFormat& format);

    ~OpenGLContextManager() override;

    // --- ContextManager ---
    void beginReportingLeakedResources() override;
    int32_t getIndexOfContext(const GLContext* context) override;
    std::shared_ptr<GLContext> currentNSOpenGLContext() override;
    std::shared_ptr<GLContext> nsOpenGLContextAtIndex(int32_t index) override { return getContext(index); }
    CGLError setCurrentContext(int32_t index) override;
    CGDirectDisplayID displayIDForContextIndex(int32_t index) override;
    CGDirectDisplayID displayIDForCurrentContext() override;
    bool hasSignificantChangeInRenderer(const Value& rendererID) override;
    GLContext* lockCurrentContext() override;
    GLContext* lockContext(int32_t index) override;
    CGLError makeContextCurrent(int32_t index) override;
    void unlockContextAtIndex(int32_t index) override;
    void unlockCGLContext(GLContext* context) override;
    void flushFirstNSOpenGLContext() override;
    void makeCurrentContextCurrent() override;
    void setCurrentContextFullScreen() override;
    GLContext* saveCurrentContextAndLock(int32_t index) override;
    void restoreSavedContextAndUnlock(GLContext* context) override;
    std::shared_ptr<FrameBuffer> allocateFrameBuffer() override;
    void releaseFrameBuffer(FrameBuffer* frameBuffer) override;
    std::shared_ptr<FragmentShader> createNewFragmentShaderFromSource(std::string_view source) override;
    std::shared_ptr<FragmentShader> createNewFragmentShaderUsingResource(std::string_view name) override;
    std::shared_ptr<FragmentShader> createNewFragmentShaderUsingResource(std::string_view name,
                                                                         std::shared_ptr<const Bundle> bundle) override;
    void releaseFragmentShader(FragmentShader* shader) override;
    void checkOpenGLError(std::string_view text) override;
    void checkOpenGLError(std::string_view text, GLContext* context) override;
    std::shared_ptr<TextureManager> textureManager() override;
    std::shared_ptr<ContextManagerCleanupCallback> cleanupCallback() override;
    void setCleanupCallback(std::shared_ptr<ContextManagerCleanupCallback> callback) override;
    int32_t numberOfContexts() override;
    Value rendererID() override;
    CGSize maximumTextureSize() override;
    bool valid() override { return valid_.load(); }
    void cleanUp() override;
    // "ContextMgr with %d contexts, config: %@".
    std::string description() override;

    // --- Also ---
    // The guarded lookup: null when not valid; raises "InvalidContext" for an
    // index out of range.
    std::shared_ptr<GLContext> getContext(int32_t index);
    // The selected context's handle; null when none is selected.
    GLContext* currentContext();
    // "[%ld screen(s), 1: W x H, ...]", or the "No summary" text for a
    // manager without renderer.
    std::string configurationSummary(const std::vector<DisplayMetadata>& configuration);
    // The displays this manager serves (empty for one around a foreign context).
    std::vector<DisplayMetadata> screenConfiguration();
    int32_t numberOfFrameBuffers();
    int32_t numberOfFragmentShaders();
    // Reads the context's largest rectangle texture, capped at 4096 whatever
    // the card can do; a null context means 2048 (with an error line).
    void setMaximumCaptureTextureSize(GLContext* context);

private:
    explicit OpenGLContextManager(std::shared_ptr<DisplaysProvider> provider);
    static std::shared_ptr<OpenGLContextManager> make(std::shared_ptr<DisplaysProvider> provider);
    // Runs `init`, tearing the half-built manager down when it raises.
    template <class F>
    static std::shared_ptr<OpenGLContextManager> build(std::shared_ptr<OpenGLContextManager> manager, F&& init);

    void initWithRenderer(const Value& rendererID, bool fullScreen);
    void initWithCGLPixelFormat(const GLPixelFormat& format, GLContext* sharedContext);
    void initWithNSOpenGLContext(std::shared_ptr<GLContext> context);
    void requireProvider();
    void storeConfiguration(std::vector<DisplayMetadata> displays);
    void addContext(const std::shared_ptr<GLContext>& context, bool enableRectangleTextures);
    void makeTextureManager();
    static void leakedResourceReporting(std::weak_ptr<OpenGLContextManager> weak);
    static void leakedResourceReportingExpectingRetainCount(const std::weak_ptr<OpenGLContextManager>& weak,
                                                            long expected, std::string_view stage);

    std::shared_ptr<DisplaysProvider> provider_;

    mutable std::mutex listsMutex_;  // leaf lock: the lists and the properties below
    std::vector<std::shared_ptr<GLContext>> nsOpenGLContextObjs_;
    std::vector<std::shared_ptr<FrameBuffer>> frameBuffers_;
    std::vector<std::shared_ptr<FragmentShader>> fragmentShaders_;
    std::optional<std::vector<DisplayMetadata>> screenConfiguration_;
    Value rendererID_;
    CGSize maximumTextureSize_;
    std::shared_ptr<GLContext> currentlySelectedContext_;
    std::shared_ptr<TextureManager> textureManager_;
    std::shared_ptr<ContextManagerCleanupCallback> cleanupCallback_;

    GLContext* previousSavedContext_ = nullptr;
    std::atomic<bool> valid_{false};
};

}  // namespace qrl
