#include "qrl/video/OpenGLContextManager.h"

#include <algorithm>
#include <array>
#include <thread>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/system/Utils.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/foundation/RectFunctions.h"
#include "qrl/video/TextureManagerImpl.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/gl/OpenGLFragmentShader.h"
#include "qrl/video/gl/OpenGLFrameBuffer.h"

namespace qrl {

namespace {

// The platform's pixel format attributes of the contexts made here.
constexpr int32_t kNSOpenGLPFAScreenMask = 84;
constexpr int32_t kNSOpenGLPFAFullScreen = 54;
constexpr int32_t kNSOpenGLPFANoRecovery = 72;
constexpr int32_t kNSOpenGLPFAAccelerated = 73;

// The display whose OpenGL mask is the given one (the first that shares a
// bit when none matches exactly); 0 when none does.
CGDirectDisplayID displayForOpenGLMask(DisplayServer& displays, uint32_t mask) {
    std::vector<CGDirectDisplayID> list;
    if (displays.getActiveDisplayList(64, list) != kCGErrorSuccess) return 0;
    for (const CGDirectDisplayID d : list)
        if (displays.displayIDToOpenGLDisplayMask(d) == mask) return d;
    for (const CGDirectDisplayID d : list)
        if (displays.displayIDToOpenGLDisplayMask(d) & mask) return d;
    return 0;
}

CGDirectDisplayID displayIDOf(const DisplayMetadata& map) {
    std::lock_guard lock(DisplaysProvider::mapMonitor(map.get()));
    return static_cast<CGDirectDisplayID>(map->get(kDPDisplayID).integerValue());
}

struct PixelFormatLabel {
    int32_t attribute;
    const char* label;
};

constexpr std::array<PixelFormatLabel, 30> kPixelFormatLabels{{
    {1, "All Renderers"},     {3, "Tripple Buffered"},   {5, "Double Buffered"},     {6, "Stereo Buffered"},
    {7, "Aux Buffers"},       {8, "Colour Depth"},       {11, "Alpha Depth"},        {12, "Depth Size"},
    {13, "Stencil Size"},     {14, "Accum Size"},        {51, "Min Policy"},         {52, "Max Policy"},
    {53, "Off Screen"},       {54, "Full Screen"},       {55, "Sample Buffers"},     {56, "Samples"},
    {57, "Aux Depth Stencil"}, {58, "Colours are Floats"}, {59, "Multisampling"},    {60, "Supersampling"},
    {61, "Alpha Filtering"},  {71, "Single Renderer"},   {72, "No Recovery"},        {73, "Accelerated"},
    {74, "Closest Policy"},   {76, "Backing Store"},     {80, "Can Window"},         {83, "OpenGL Compliant"},
    {84, "Display Mask"},     {128, "Virt. Screens"},
}};

// pixelBufferAttributesWithValues: the attributes shown with their value.
bool shownWithValue(int32_t attribute) {
    static constexpr std::array<int32_t, 10> kValued{7, 8, 11, 12, 13, 14, 55, 56, 84, 128};
    return std::find(kValued.begin(), kValued.end(), attribute) != kValued.end();
}

void maybeAppend(const GLPixelFormat& format, std::string& out, int32_t attribute, const char* label) {
    GraphicsDevices& devices = *VideoPlatform::graphicsDevices();
    int32_t screens = 0;
    if (devices.describePixelFormat(format, 0, kCGLPFAVirtualScreenCount, screens) != kCGLNoError) {
        QRLAppLogError("Can't get hold of the number of virtual screens.");
        return;
    }
    int32_t value = 0;
    if (devices.describePixelFormat(format, 0, attribute, value) != kCGLNoError || value < 1) return;
    if (!out.empty()) out += ", ";
    if (shownWithValue(attribute)) appendFormat(out, "%@ = %d", label, value);
    else out += label;
}

}  // namespace

std::string escapeFormatText(std::string_view text) {
    std::string out;
    out.reserve(text.size());
    for (const char c : text) {
        out.push_back(c);
        if (c == '%') out.push_back('%');
    }
    return out;
}

// --- Construction ---

OpenGLContextManager::OpenGLContextManager(std::shared_ptr<DisplaysProvider> provider)
    : provider_(std::move(provider)) {}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::make(std::shared_ptr<DisplaysProvider> provider) {
    return std::shared_ptr<OpenGLContextManager>(new OpenGLContextManager(std::move(provider)));
}

template <class F>
std::shared_ptr<OpenGLContextManager> OpenGLContextManager::build(std::shared_ptr<OpenGLContextManager> manager,
                                                                  F&& init) {
    try {
        init(*manager);
    } catch (...) {
        // The texture manager, if made, holds the manager: let go of everything.
        manager->cleanUp();
        throw;
    }
    return manager;
}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::contextManagerForRenderer(
    const Value& rendererID, std::shared_ptr<DisplaysProvider> provider) {
    return contextManagerForRenderer(rendererID, true, std::move(provider));
}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::contextManagerForRenderer(
    const Value& rendererID, bool fullScreen, std::shared_ptr<DisplaysProvider> provider) {
    if (!provider) provider = DisplaysProvider::defaultProvider();
    return build(make(std::move(provider)), [&](OpenGLContextManager& m) { m.initWithRenderer(rendererID, fullScreen); });
}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::contextManagerForNSOpenGLContext(
    std::shared_ptr<GLContext> context) {
    return build(make(nullptr), [&](OpenGLContextManager& m) { m.initWithNSOpenGLContext(std::move(context)); });
}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::contextManagerForCurrentOpenGLContext() {
    GLContext* current = GLContext::current();
    return contextManagerForNSOpenGLContext(current ? current->weak_from_this().lock() : nullptr);
}

std::shared_ptr<OpenGLContextManager> OpenGLContextManager::contextManagerForPixelFormat(
    const GLPixelFormat& format, GLContext* sharedContext, std::shared_ptr<DisplaysProvider> provider) {
    if (!provider) provider = DisplaysProvider::defaultProvider();
    return build(make(std::move(provider)),
                 [&](OpenGLContextManager& m) { m.initWithCGLPixelFormat(format, sharedContext); });
}

void OpenGLContextManager::requireProvider() {
    if (!provider_) Exception::raise("Grabber", "Unable to setup OpenGL Contexts, there's no default provider");
}

void OpenGLContextManager::storeConfiguration(std::vector<DisplayMetadata> displays) {
    {
        std::lock_guard l(listsMutex_);
        screenConfiguration_ = std::move(displays);
    }
    QRLAppDomainLogInfo(kLoggingOpenGL, "Using configuration %@", configurationSummary(screenConfiguration()));
}

void OpenGLContextManager::addContext(const std::shared_ptr<GLContext>& context, bool enableRectangleTextures) {
    {
        std::lock_guard l(listsMutex_);
        nsOpenGLContextObjs_.push_back(context);
    }
    if (!enableRectangleTextures) return;
    context->lock();
    context->gl().glEnable(GL_TEXTURE_RECTANGLE_EXT);
    context->unlock();
}

void OpenGLContextManager::makeTextureManager() {
    auto made = TextureManagerImpl::initWithManager(shared_from_this());
    std::lock_guard l(listsMutex_);
    textureManager_ = std::move(made);
}

void OpenGLContextManager::initWithRenderer(const Value& rendererID, bool fullScreen) {
    rendererID_ = rendererID;
    requireProvider();
    std::vector<DisplayMetadata> displays = provider_->activeDisplaysOnRenderer(rendererID);
    if (displays.empty()) {
        Exception::raise("Grabber", qrl::format("Unable to initialize, no active displays on renderer %@", rendererID));
    }
    storeConfiguration(displays);
    const auto server = VideoPlatform::displayServer();
    const auto devices = VideoPlatform::graphicsDevices();
    for (size_t i = 0; i < displays.size(); ++i) {
        const DisplayMetadata& display = displays[i];
        const uint32_t mask = server->displayIDToOpenGLDisplayMask(displayIDOf(display));
        std::vector<int32_t> attributes;
        if (fullScreen) {
            attributes = {kNSOpenGLPFAScreenMask, static_cast<int32_t>(mask), kNSOpenGLPFAFullScreen,
                          kNSOpenGLPFANoRecovery, kNSOpenGLPFAAccelerated, 0};
        } else {
            attributes = {kNSOpenGLPFAScreenMask, static_cast<int32_t>(mask), kNSOpenGLPFANoRecovery,
                          kNSOpenGLPFAAccelerated, 0};
        }
        std::unique_ptr<GLPixelFormat> format;
        devices->choosePixelFormat(attributes, format);
        std::shared_ptr<GLContext> root;  // context 0 is the root of the share group
        if (i > 0) {
            std::lock_guard l(listsMutex_);
            root = nsOpenGLContextObjs_.front();
        }
        std::shared_ptr<GLContext> context;
        if (format) context = devices->createContext(*format, root.get());
        if (!context) {
            Exception::raise("OpenGL", qrl::format("Unable to create a GL context for display %@", Value(display)));
        }
        addContext(context, true);
        QRLAppDomainLogInfo(kLoggingOpenGL, "Created NSGL context for display %@ with object %@", Value(display),
                            context->description());
        if (i == 0) {
            setMaximumCaptureTextureSize(context.get());
            makeTextureManager();
        }
        std::lock_guard lock(DisplaysProvider::mapMonitor(display.get()));
        display->set(std::string(kSGAssociatedOpenGLContext), Value(static_cast<int32_t>(i)));
    }
    valid_ = true;
}

void OpenGLContextManager::initWithCGLPixelFormat(const GLPixelFormat& format, GLContext* sharedContext) {
    requireProvider();
    const auto devices = VideoPlatform::graphicsDevices();
    int32_t screens = 0, mask = 0;
    devices->describePixelFormat(format, 0, kCGLPFAVirtualScreenCount, screens);
    devices->describePixelFormat(format, 0, kCGLPFADisplayMask, mask);
    const CGDirectDisplayID displayID = displayForOpenGLMask(*VideoPlatform::displayServer(), static_cast<uint32_t>(mask));
    const Value rendererID = provider_->rendererForDisplayID(displayID);  // raises "NoState" when not cached
    rendererID_ = rendererID;
    std::vector<DisplayMetadata> displays = provider_->activeDisplaysOnRenderer(rendererID);
    if (displays.empty()) {
        Exception::raise("Grabber", qrl::format("Unable to initialize, no active displays on renderer %@", rendererID));
    }
    storeConfiguration(displays);
    std::shared_ptr<GLContext> context = devices->createContext(format, sharedContext);
    if (!context) {
        Exception::raise("OpenGL", qrl::format("Unable to create a GL context for display %@",
                                               Value(DisplaysProvider::detailFor(displayID))));
    }
    addContext(context, true);
    QRLAppDomainLogInfo(kLoggingOpenGL, "Created NSGL context from CGLPixelFormatObj for display with ID %@",
                        Value(static_cast<int64_t>(displayID)));
    setMaximumCaptureTextureSize(context.get());
    makeTextureManager();
    // The one context serves every display through the format's virtual screens.
    for (const DisplayMetadata& display : displays) {
        std::lock_guard lock(DisplaysProvider::mapMonitor(display.get()));
        display->set(std::string(kSGAssociatedOpenGLContext), Value(0));
    }
    valid_ = true;
}

void OpenGLContextManager::initWithNSOpenGLContext(std::shared_ptr<GLContext> context) {
    if (!context) {
        Exception::raise("NoCurrentNSOpenGLContext", "To use this method, you must have a current NSOpenGLContext");
    }
    addContext(context, false);
    setMaximumCaptureTextureSize(context.get());
    makeTextureManager();
    valid_ = true;
}

void OpenGLContextManager::setMaximumCaptureTextureSize(GLContext* context) {
    if (!context) {
        QRLAppLogError("** Context was nil. Will assume a maximum texture size of 2048x2048");
        std::lock_guard l(listsMutex_);
        maximumTextureSize_ = NSMakeSize(2048, 2048);
        return;
    }
    GLint reported = 0;
    context->lock();
    context->gl().glGetIntegerv(GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT, &reported);
    context->unlock();
    QRLAppDomainLogInfo(kLoggingOpenGL, "OpenGL reports GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT as %d", reported);
    // A fixed cap, whatever the card can do.
    const GLint side = reported >= 4097 ? 4096 : reported;
    const Value renderer = rendererID();
    if (!renderer.isNull() && provider_) {
        NSRect area = provider_->allScreensFrameForRenderer(renderer);
        area.origin = NSZeroPoint;
        // Only told: the size does not shrink to the desktop.
        QRLAppDomainLogInfo(kLoggingOpenGL, "Maximum capturable area is %@", NSStringFromRect(area));
    }
    // The intersection of a square of that side at the origin with itself: the square.
    const NSSize size = NSMakeSize(side, side);
    {
        std::lock_guard l(listsMutex_);
        maximumTextureSize_ = size;
    }
    QRLAppDomainLogInfo(kLoggingOpenGL, "Maximum texture size set to %@", NSStringFromSize(size));
}

// --- Teardown ---

OpenGLContextManager::~OpenGLContextManager() {
    QRLAppDomainLogInfo(kLoggingOpenGL, "Deallocating the Context Manager %@", description());
    cleanUp();
    valid_ = false;
    std::shared_ptr<ContextManagerCleanupCallback> callback;
    {
        std::lock_guard l(listsMutex_);
        callback = std::move(cleanupCallback_);
    }
    if (callback) callback->contextManagerHasCleanedUp(this);
}

void OpenGLContextManager::cleanUp() {
    bool haveContexts = false;
    {
        std::lock_guard l(listsMutex_);
        haveContexts = !nsOpenGLContextObjs_.empty();
    }
    if (haveContexts) {
        const CGLError error = makeContextCurrent(0);
        if (error != kCGLNoError && textureManager()) {
            QRLAppLogError("Couldn't select an OpenGL context. Error %d, teardown may not happen correctly.", error);
        }
    }
    std::vector<std::shared_ptr<FragmentShader>> shaders;
    std::vector<std::shared_ptr<FrameBuffer>> frameBuffers;
    {
        std::lock_guard l(listsMutex_);
        shaders = fragmentShaders_;
        frameBuffers = frameBuffers_;
    }
    for (const auto& shader : shaders) shader->cleanUp();
    {
        std::lock_guard l(listsMutex_);
        fragmentShaders_.clear();
    }
    for (const auto& frameBuffer : frameBuffers) frameBuffer->cleanUp();
    {
        std::lock_guard l(listsMutex_);
        frameBuffers_.clear();
    }
    if (const auto textures = textureManager()) {
        textures->cleanUp();
        std::lock_guard l(listsMutex_);
        textureManager_.reset();
    }
    makeContextCurrent(0);
    // From the last context to the first. Off-screen contexts have no
    // drawable to detach; each goes when its last holder lets go.
    for (;;) {
        std::shared_ptr<GLContext> last;
        {
            std::lock_guard l(listsMutex_);
            if (nsOpenGLContextObjs_.empty()) break;
            last = std::move(nsOpenGLContextObjs_.back());
            nsOpenGLContextObjs_.pop_back();
            if (currentlySelectedContext_ == last) currentlySelectedContext_.reset();
        }
        if (GLContext::current() == last.get()) GLContext::clearCurrent();
    }
    GLContext::clearCurrent();
    valid_ = false;
    std::lock_guard l(listsMutex_);
    nsOpenGLContextObjs_.clear();
    currentlySelectedContext_.reset();
    screenConfiguration_.reset();
    rendererID_ = Value();
}

// --- Selection and locking ---

std::shared_ptr<GLContext> OpenGLContextManager::getContext(int32_t index) {
    if (!valid_) return nullptr;
    std::lock_guard l(listsMutex_);
    const auto count = static_cast<int32_t>(nsOpenGLContextObjs_.size());
    if (index < 0 || index >= count) {
        Exception::raise("InvalidContext",
                         qrl::format("Cannot get context at index %d. Index not in range 0-%d", index, count - 1));
    }
    if (nsOpenGLContextObjs_.empty()) {
        Exception::raise("NoContexts", "No context can be return. Nothing has been allocated (glContextObjs is nil)");
    }
    return nsOpenGLContextObjs_[static_cast<size_t>(index)];
}

int32_t OpenGLContextManager::getIndexOfContext(const GLContext* context) {
    std::lock_guard l(listsMutex_);
    for (size_t i = 0; i < nsOpenGLContextObjs_.size(); ++i)
        if (nsOpenGLContextObjs_[i].get() == context && context) return static_cast<int32_t>(i);
    return -1;
}

std::shared_ptr<GLContext> OpenGLContextManager::currentNSOpenGLContext() {
    std::lock_guard l(listsMutex_);
    return currentlySelectedContext_;
}

GLContext* OpenGLContextManager::currentContext() {
    std::lock_guard l(listsMutex_);
    return currentlySelectedContext_.get();
}

CGLError OpenGLContextManager::setCurrentContext(int32_t index) {
    if (!valid_) return kCGLBadDisplay;
    const std::shared_ptr<GLContext> context = getContext(index);
    {
        std::lock_guard l(listsMutex_);
        currentlySelectedContext_ = context;
    }
    if (GLContext::current() != context.get()) context->makeCurrent();
    return kCGLNoError;
}

CGLError OpenGLContextManager::makeContextCurrent(int32_t index) {
    if (!valid_) return kCGLBadDisplay;
    if (index < 0 || index >= numberOfContexts()) {
        std::lock_guard l(listsMutex_);
        currentlySelectedContext_.reset();
        return kCGLBadDisplay;
    }
    return setCurrentContext(index);
}

GLContext* OpenGLContextManager::lockCurrentContext() {
    GLContext* context = currentContext();
    if (context) context->lock();
    return context;
}

GLContext* OpenGLContextManager::lockContext(int32_t index) {
    std::shared_ptr<GLContext> context;
    {
        std::lock_guard l(listsMutex_);
        const auto count = static_cast<int32_t>(nsOpenGLContextObjs_.size());
        if (index < 0 || index >= count) {
            Exception::raise("InvalidContext",
                             qrl::format("Cannot lock context at index %d. Index not in range 0-%d", index, count - 1));
        }
        context = nsOpenGLContextObjs_[static_cast<size_t>(index)];
    }
    context->lock();
    return context.get();
}

void OpenGLContextManager::unlockContextAtIndex(int32_t index) {
    std::shared_ptr<GLContext> context;
    {
        std::lock_guard l(listsMutex_);
        const auto count = static_cast<int32_t>(nsOpenGLContextObjs_.size());
        if (index < 0 || index >= count) {
            Exception::raise("InvalidContext", qrl::format("Cannot unlock context at index %d. Index not in range [0 - %d]",
                                                           index, count - 1));
        }
        context = nsOpenGLContextObjs_[static_cast<size_t>(index)];
    }
    if (!context) {
        platformLog("Oh oh");
        return;
    }
    context->unlock();
}

void OpenGLContextManager::unlockCGLContext(GLContext* context) {
    if (context) context->unlock();
}

void OpenGLContextManager::flushFirstNSOpenGLContext() {
    // Off-screen contexts have no buffer to swap: flushing is all that is left.
    std::shared_ptr<GLContext> first;
    {
        std::lock_guard l(listsMutex_);
        if (nsOpenGLContextObjs_.empty()) return;
        first = nsOpenGLContextObjs_.front();
    }
    first->lock();
    first->gl().glFlush();
    first->unlock();
}

void OpenGLContextManager::makeCurrentContextCurrent() {
    if (GLContext* context = currentContext()) context->makeCurrent();
}

void OpenGLContextManager::setCurrentContextFullScreen() {
    // Linux has no full-screen GL contexts: full screen is a state of a
    // window, and these contexts draw off-screen. Nothing to do.
}

GLContext* OpenGLContextManager::saveCurrentContextAndLock(int32_t index) {
    previousSavedContext_ = GLContext::current();
    const CGLError error = makeContextCurrent(index);
    if (error != kCGLNoError) {
        Exception::raise("CantSwitch", qrl::format("Cannot switch to context %d. Error %d", index, error));
    }
    return lockCurrentContext();
}

void OpenGLContextManager::restoreSavedContextAndUnlock(GLContext* context) {
    unlockCGLContext(context);
    GLContext::setCurrent(previousSavedContext_);
    previousSavedContext_ = nullptr;
}

// --- Displays ---

CGDirectDisplayID OpenGLContextManager::displayIDForContextIndex(int32_t index) {
    const std::vector<DisplayMetadata> configuration = screenConfiguration();
    if (index >= 0 && static_cast<size_t>(index) < configuration.size()) return displayIDOf(configuration[static_cast<size_t>(index)]);
    return VideoPlatform::displayServer()->mainDisplayID();
}

CGDirectDisplayID OpenGLContextManager::displayIDForCurrentContext() {
    GLContext* context = currentContext();
    if (!context) return VideoPlatform::displayServer()->mainDisplayID();
    return displayIDForContextIndex(getIndexOfContext(context));
}

std::vector<DisplayMetadata> OpenGLContextManager::screenConfiguration() {
    std::lock_guard l(listsMutex_);
    return screenConfiguration_ ? *screenConfiguration_ : std::vector<DisplayMetadata>{};
}

std::string OpenGLContextManager::configurationSummary(const std::vector<DisplayMetadata>& configuration) {
    {
        std::lock_guard l(listsMutex_);
        if (!screenConfiguration_ || rendererID_.isNull()) return "No summary - not initialized with a rendererID";
    }
    std::string out = qrl::format("[%ld screen(s)", static_cast<long>(configuration.size()));
    int index = 1;
    for (const DisplayMetadata& map : configuration) {
        std::optional<NSRect> frame;
        {
            std::lock_guard lock(DisplaysProvider::mapMonitor(map.get()));
            frame = rectValue(map->get(kDPFrame));
        }
        if (frame) {
            appendFormat(out, ", %d: %ld x %ld", index, static_cast<long>(frame->size.width),
                         static_cast<long>(frame->size.height));
        }
        ++index;
    }
    out += "]";
    return out;
}

bool OpenGLContextManager::hasSignificantChangeInRenderer(const Value& rendererID) {
    if (this->rendererID().isNull() || !provider_) return false;
    return configurationSummary(screenConfiguration()) !=
           configurationSummary(provider_->activeDisplaysOnRenderer(rendererID));
}

// --- Frame buffers and shaders ---

std::shared_ptr<FrameBuffer> OpenGLContextManager::allocateFrameBuffer() {
    auto frameBuffer = OpenGLFrameBuffer::initWithContextManager(shared_from_this());
    std::lock_guard l(listsMutex_);
    frameBuffers_.push_back(frameBuffer);
    return frameBuffer;
}

void OpenGLContextManager::releaseFrameBuffer(FrameBuffer* frameBuffer) {
    if (!frameBuffer) return;
    std::shared_ptr<FrameBuffer> keep;  // holds it until its cleanUp has returned
    {
        std::lock_guard l(listsMutex_);
        const auto it = std::find_if(frameBuffers_.begin(), frameBuffers_.end(),
                                     [&](const auto& f) { return f.get() == frameBuffer; });
        if (it != frameBuffers_.end()) keep = *it;
    }
    frameBuffer->cleanUp();
    std::lock_guard l(listsMutex_);
    const auto it = std::find_if(frameBuffers_.begin(), frameBuffers_.end(),
                                 [&](const auto& f) { return f.get() == frameBuffer; });
    if (it != frameBuffers_.end()) frameBuffers_.erase(it);
}

std::shared_ptr<FragmentShader> OpenGLContextManager::createNewFragmentShaderFromSource(std::string_view source) {
    auto shader = OpenGLFragmentShader::initWithContextManager(shared_from_this());
    shader->loadProgram(source);
    std::lock_guard l(listsMutex_);
    fragmentShaders_.push_back(shader);
    return shader;
}

std::shared_ptr<FragmentShader> OpenGLContextManager::createNewFragmentShaderUsingResource(std::string_view name) {
    return createNewFragmentShaderUsingResource(name, Bundle::main());
}

std::shared_ptr<FragmentShader> OpenGLContextManager::createNewFragmentShaderUsingResource(
    std::string_view name, std::shared_ptr<const Bundle> bundle) {
    auto shader = OpenGLFragmentShader::initWithContextManager(shared_from_this());
    shader->loadProgramFromBundleResource(name, bundle);
    std::lock_guard l(listsMutex_);
    fragmentShaders_.push_back(shader);
    return shader;
}

void OpenGLContextManager::releaseFragmentShader(FragmentShader* shader) {
    if (!shader) return;
    std::shared_ptr<FragmentShader> keep;
    {
        std::lock_guard l(listsMutex_);
        const auto it = std::find_if(fragmentShaders_.begin(), fragmentShaders_.end(),
                                     [&](const auto& s) { return s.get() == shader; });
        if (it != fragmentShaders_.end()) keep = *it;
    }
    shader->cleanUp();
    std::lock_guard l(listsMutex_);
    const auto it = std::find_if(fragmentShaders_.begin(), fragmentShaders_.end(),
                                 [&](const auto& s) { return s.get() == shader; });
    if (it != fragmentShaders_.end()) fragmentShaders_.erase(it);
}

// --- Errors ---

void OpenGLContextManager::checkOpenGLError(std::string_view text) { checkOpenGLError(text, currentContext()); }

void OpenGLContextManager::checkOpenGLError(std::string_view text, GLContext* context) {
    if (!context) return;
    // One read, no loop over further errors. A GL call needs the context
    // bound on this thread, and the binding follows the lock: a caller that
    // does not hold the lock gets it for the read.
    const bool held = context->heldByCallingThread();
    if (!held) context->lock();
    const GLenum error = context->gl().glGetError();
    if (!held) context->unlock();
    if (error == GL_NO_ERROR) return;
    const std::string caller = qrl::format(text, static_cast<long>(error));
    Exception::raise("OpenGLError", qrl::format("%@, OpenGL Error: %d", caller, static_cast<int>(error)));
}

// --- Accessors ---

std::shared_ptr<TextureManager> OpenGLContextManager::textureManager() {
    std::lock_guard l(listsMutex_);
    return textureManager_;
}

std::shared_ptr<ContextManagerCleanupCallback> OpenGLContextManager::cleanupCallback() {
    std::lock_guard l(listsMutex_);
    return cleanupCallback_;
}

void OpenGLContextManager::setCleanupCallback(std::shared_ptr<ContextManagerCleanupCallback> callback) {
    std::lock_guard l(listsMutex_);
    cleanupCallback_ = std::move(callback);
}

int32_t OpenGLContextManager::numberOfContexts() {
    std::lock_guard l(listsMutex_);
    return static_cast<int32_t>(nsOpenGLContextObjs_.size());
}

int32_t OpenGLContextManager::numberOfFrameBuffers() {
    std::lock_guard l(listsMutex_);
    return static_cast<int32_t>(frameBuffers_.size());
}

int32_t OpenGLContextManager::numberOfFragmentShaders() {
    std::lock_guard l(listsMutex_);
    return static_cast<int32_t>(fragmentShaders_.size());
}

Value OpenGLContextManager::rendererID() {
    std::lock_guard l(listsMutex_);
    return rendererID_;
}

CGSize OpenGLContextManager::maximumTextureSize() {
    std::lock_guard l(listsMutex_);
    return maximumTextureSize_;
}

std::string OpenGLContextManager::description() {
    return qrl::format("ContextMgr with %d contexts, config: %@", numberOfContexts(),
                       configurationSummary(screenConfiguration()));
}

std::string OpenGLContextManager::describePixelFormat(const GLPixelFormat& format) {
    std::string out;
    for (const PixelFormatLabel& l : kPixelFormatLabels) maybeAppend(format, out, l.attribute, l.label);
    return out;
}

// --- Leak report ---

void OpenGLContextManager::beginReportingLeakedResources() {
    std::thread([weak = weak_from_this()] { leakedResourceReporting(weak); }).detach();
}

void OpenGLContextManager::leakedResourceReportingExpectingRetainCount(const std::weak_ptr<OpenGLContextManager>& weak,
                                                                       long expected, std::string_view stage) {
    for (;;) {
        try {
            const long count = weak.use_count();  // the holders other than this report
            if (count <= expected) return;
            const auto manager = weak.lock();
            if (!manager) return;
            const auto textures = manager->textureManager();
            QRLAppDomainLogInfo(kLoggingOpenGL, "Stage: %@, %@ has a retain count of %d. %d textures, %d FBOs", stage,
                                manager->description(), static_cast<int>(count),
                                textures ? textures->numberOfTexturesAllocated() : 0, manager->numberOfFrameBuffers());
        } catch (const std::exception& e) {
            QRLAppLogError("Error reporting leaks, %@", e.what());
        }
        Utils::sleepForTimeInterval(3.0);
    }
}

void OpenGLContextManager::leakedResourceReporting(std::weak_ptr<OpenGLContextManager> weak) {
    try {
        leakedResourceReportingExpectingRetainCount(weak, 2, "Owner+TexMgr");
        {
            const auto manager = weak.lock();
            if (!manager) return;
            std::shared_ptr<TextureManager> textures;
            {
                std::lock_guard l(manager->listsMutex_);
                textures = std::move(manager->textureManager_);
            }
            if (!textures) platformLog("This is very bad and breaks all my assumptions");
        }
        leakedResourceReportingExpectingRetainCount(weak, 1, "Owner");
        if (const auto manager = weak.lock()) {
            manager->valid_ = false;
            QRLAppDomainLogInfo(kLoggingOpenGL, "Neat. %@ is done", manager->description());
        }
    } catch (const std::exception& e) {
        QRLAppLogError("Error reporting leaks, %@", e.what());
    }
}

}  // namespace qrl
