#include "qrl/video/gl/NSOpenGLPBufferTexture.h"

#include <array>

#include "qrl/logging/LogLevels.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/TextureManager.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

namespace {

// The pixel buffer context's attributes; the mask entry is filled per use.
constexpr int32_t kNSOpenGLPFAPixelBuffer = 90;
constexpr int32_t kNSOpenGLPFAFullScreen = 54;
constexpr int32_t kNSOpenGLPFANoRecovery = 72;
constexpr int32_t kNSOpenGLPFAScreenMask = 84;

}  // namespace

std::shared_ptr<NSOpenGLPixelBuffer> NSOpenGLPixelBuffer::create(GLContext& shareContext,
                                                                 std::shared_ptr<GLContext> context, int width,
                                                                 int height) {
    std::shared_ptr<NSOpenGLPixelBuffer> buffer(new NSOpenGLPixelBuffer());
    buffer->context_ = std::move(context);
    buffer->width_ = width;
    buffer->height_ = height;
    // The texture, in the share group, made on the selected context.
    shareContext.lock();
    shareContext.gl().glGenTextures(1, &buffer->texture_);
    shareContext.gl().glBindTexture(GL_TEXTURE_RECTANGLE_EXT, buffer->texture_);
    shareContext.gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0,
                                   GL_BGRA, GL_UNSIGNED_BYTE, nullptr);
    shareContext.gl().glBindTexture(GL_TEXTURE_RECTANGLE_EXT, 0);
    shareContext.gl().glFlush();
    shareContext.unlock();
    // The frame buffer, in the pixel buffer's own context, bound for good.
    GLContext& own = *buffer->context_;
    own.lock();
    own.gl().glGenFramebuffersEXT(1, &buffer->frameBuffer_);
    own.gl().glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, buffer->frameBuffer_);
    own.gl().glFramebufferTexture2DEXT(GL_FRAMEBUFFER_EXT, GL_COLOR_ATTACHMENT0_EXT, GL_TEXTURE_RECTANGLE_EXT,
                                       buffer->texture_, 0);
    own.gl().glDrawBuffer(GL_COLOR_ATTACHMENT0_EXT);
    own.gl().glReadBuffer(GL_COLOR_ATTACHMENT0_EXT);
    own.gl().glViewport(0, 0, width, height);
    own.gl().glEnable(GL_TEXTURE_RECTANGLE_EXT);
    const GLenum status = own.gl().glCheckFramebufferStatusEXT(GL_FRAMEBUFFER_EXT);
    own.unlock();
    if (status != GL_FRAMEBUFFER_COMPLETE_EXT) {
        QRLAppLogError("Pixel buffer of %d x %d is incomplete, status %ld", width, height, static_cast<long>(status));
        return nullptr;
    }
    return buffer;
}

NSOpenGLPixelBuffer::~NSOpenGLPixelBuffer() {
    if (!context_) return;
    context_->lock();
    if (frameBuffer_) context_->gl().glDeleteFramebuffersEXT(1, &frameBuffer_);
    if (texture_) context_->gl().glDeleteTextures(1, &texture_);
    context_->unlock();
}

std::shared_ptr<NSOpenGLPBufferTexture> NSOpenGLPBufferTexture::nsOpenGLTextureWithManager(
    std::shared_ptr<TextureManager> manager, CGSize size) {
    const auto cm = manager ? manager->contextManager() : nullptr;
    if (!cm) return nullptr;
    cm->makeCurrentContextCurrent();
    const std::shared_ptr<GLContext> selected = cm->currentNSOpenGLContext();
    if (!selected) {
        QRLAppLogError("No OpenGL context - can't allocate a pixel buffer");
        return nullptr;
    }
    const int width = static_cast<int>(size.width);
    const int height = static_cast<int>(size.height);
    if (width <= 0 || height <= 0) return nullptr;

    const CGDirectDisplayID display = cm->displayIDForContextIndex(cm->getIndexOfContext(selected.get()));
    const uint32_t mask = VideoPlatform::displayServer()->displayIDToOpenGLDisplayMask(display);
    const std::array<int32_t, 6> attributes{kNSOpenGLPFAPixelBuffer, kNSOpenGLPFAFullScreen, kNSOpenGLPFANoRecovery,
                                            kNSOpenGLPFAScreenMask, static_cast<int32_t>(mask), 0};
    const auto devices = VideoPlatform::graphicsDevices();
    std::unique_ptr<GLPixelFormat> format;
    devices->choosePixelFormat(attributes, format);
    std::shared_ptr<GLContext> context;
    if (format) context = devices->createContext(*format, selected.get());
    if (!context) {
        QRLAppLogError("Unable to create the context of a pixel buffer of %d x %d", width, height);
        return nullptr;
    }
    auto pixelBuffer = NSOpenGLPixelBuffer::create(*selected, context, width, height);
    if (!pixelBuffer) return nullptr;

    std::shared_ptr<NSOpenGLPBufferTexture> texture(new NSOpenGLPBufferTexture());
    texture->initTextureWithManager(std::move(manager));
    texture->bindToTextureRectangleExt();
    texture->linearAndClampToEdge();
    std::lock_guard l(texture->pixelBufferMutex_);
    texture->pixelBuffer_ = std::move(pixelBuffer);
    texture->pixelBufferContext_ = std::move(context);
    return texture;
}

NSOpenGLPBufferTexture::~NSOpenGLPBufferTexture() { cleanUp(); }

std::shared_ptr<NSOpenGLPixelBuffer> NSOpenGLPBufferTexture::pixelBuffer() const {
    std::lock_guard l(pixelBufferMutex_);
    return pixelBuffer_;
}

std::shared_ptr<GLContext> NSOpenGLPBufferTexture::pixelBufferContext() const {
    std::lock_guard l(pixelBufferMutex_);
    return pixelBufferContext_;
}

void NSOpenGLPBufferTexture::cleanupSubclassResources() {
    std::lock_guard l(pixelBufferMutex_);
    pixelBuffer_.reset();
    pixelBufferContext_.reset();
}

bool NSOpenGLPBufferTexture::valid() const { return OpenGLTexture::valid() && pixelBuffer() != nullptr; }

bool NSOpenGLPBufferTexture::isEqual(const Texture& other) const {
    if (!OpenGLTexture::isEqual(other)) return false;
    const auto* o = dynamic_cast<const NSOpenGLPBufferTexture*>(&other);
    return o && o->pixelBuffer() == pixelBuffer();
}

void NSOpenGLPBufferTexture::makePixelBufferContextCurrent() {
    if (const auto c = pixelBufferContext()) c->makeCurrent();
}

void NSOpenGLPBufferTexture::copyCurrentPBufferContentToContext(GLContext* context, GLenum buffer) {
    (void)buffer;
    const auto source = pixelBuffer();
    if (!context || !source) return;
    // What the pixel buffer's context drew must be done before another context reads it.
    source->context()->lock();
    source->context()->gl().glFinish();
    source->context()->unlock();
    context->lock();
    GLint bound = 0;
    context->gl().glGetIntegerv(GL_TEXTURE_BINDING_RECTANGLE_EXT, &bound);
    if (bound != 0) {
        GLint width = 0, height = 0;
        context->gl().glGetTexLevelParameteriv(GL_TEXTURE_RECTANGLE_EXT, 0, GL_TEXTURE_WIDTH, &width);
        context->gl().glGetTexLevelParameteriv(GL_TEXTURE_RECTANGLE_EXT, 0, GL_TEXTURE_HEIGHT, &height);
        if (width != source->width() || height != source->height()) {
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), source->width(),
                                       source->height(), 0, GL_BGRA, GL_UNSIGNED_BYTE, nullptr);
        }
        context->gl().glCopyImageSubData(source->texture(), GL_TEXTURE_RECTANGLE_EXT, 0, 0, 0, 0,
                                         static_cast<GLuint>(bound), GL_TEXTURE_RECTANGLE_EXT, 0, 0, 0, 0,
                                         source->width(), source->height(), 1);
    }
    context->unlock();
}

}  // namespace qrl
