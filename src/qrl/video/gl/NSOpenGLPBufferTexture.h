// NSOpenGLPBufferTexture: a texture backed by a pixel buffer that a context
// of its own draws into.
//
// Linux has no pixel buffers bound to textures (EGL pbuffers cannot be bound
// to a desktop GL texture). The pixel buffer here is a rectangle texture in
// the selected context's share group, with a frame buffer object in a second
// context of that share group, bound there once, so that whatever the
// pixel buffer's context draws lands in the texture. Copying the content to
// another context copies that texture into the texture bound to the other
// context's rectangle target. There is no full screen and one virtual
// screen, 0.
#pragma once

#include <memory>

#include "qrl/video/gl/OpenGLTexture.h"

namespace qrl {

// The pixel buffer: its texture, its context and the frame buffer that
// routes the context's drawing into the texture. Destroying it releases all
// three.
class NSOpenGLPixelBuffer {
public:
    // Null when the texture or the frame buffer cannot be made complete.
    static std::shared_ptr<NSOpenGLPixelBuffer> create(GLContext& shareContext, std::shared_ptr<GLContext> context,
                                                       int width, int height);
    ~NSOpenGLPixelBuffer();
    NSOpenGLPixelBuffer(const NSOpenGLPixelBuffer&) = delete;
    NSOpenGLPixelBuffer& operator=(const NSOpenGLPixelBuffer&) = delete;

    GLuint texture() const { return texture_; }
    GLuint frameBuffer() const { return frameBuffer_; }
    int width() const { return width_; }
    int height() const { return height_; }
    const std::shared_ptr<GLContext>& context() const { return context_; }

private:
    NSOpenGLPixelBuffer() = default;
    std::shared_ptr<GLContext> context_;
    GLuint texture_ = 0;
    GLuint frameBuffer_ = 0;
    int width_ = 0;
    int height_ = 0;
};

class NSOpenGLPBufferTexture final : public OpenGLTexture, public virtual PBufferTexture {
public:
    // The texture on the manager's selected context and its pixel buffer;
    // null when the pixel buffer or its context cannot be made.
    static std::shared_ptr<NSOpenGLPBufferTexture> nsOpenGLTextureWithManager(std::shared_ptr<TextureManager> manager,
                                                                              CGSize size);
    ~NSOpenGLPBufferTexture() override;

    void setFullScreen() override {}  // no full-screen contexts on Linux
    int32_t currentVirtualScreenForPBufferContext() override { return 0; }
    void makePixelBufferContextCurrent() override;
    // The pixel buffer's content into the texture bound to the rectangle
    // target of `context` (resized to fit); `buffer` names a colour buffer of
    // the pixel buffer, which here has one.
    void copyCurrentPBufferContentToContext(GLContext* context, GLenum buffer) override;

    // Also: a pixel buffer.
    bool valid() const override;
    // Also: the same pixel buffer.
    bool isEqual(const Texture& other) const override;

    std::shared_ptr<NSOpenGLPixelBuffer> pixelBuffer() const;
    std::shared_ptr<GLContext> pixelBufferContext() const;
    // Drops the pixel buffer and its context. Teardown does not call it: the
    // pixel buffer stays with the object until the object goes.
    void cleanupSubclassResources();

protected:
    using OpenGLTexture::cleanupSubclassResources;
    const char* className() const override { return "NSOpenGLPBufferTexture"; }

private:
    NSOpenGLPBufferTexture() = default;

    mutable std::mutex pixelBufferMutex_;
    std::shared_ptr<NSOpenGLPixelBuffer> pixelBuffer_;
    std::shared_ptr<GLContext> pixelBufferContext_;
};

}  // namespace qrl
