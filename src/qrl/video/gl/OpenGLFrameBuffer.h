// OpenGLFrameBuffer: one GL frame buffer object (EXT_framebuffer_object) on
// the context manager's selected context, with the bracket around
// two-dimensional drawing into a rectangle texture that puts back what it
// changed.
//
// Lock balance, kept on purpose: bindWithTextureID makes two lock calls and
// three unlock calls on the context (checkStatus releases one level of the
// caller's lock), so the opening bracket, which holds the lock around it,
// carries on with one level less and its own final unlock is refused (see
// GLContext::unlock). The GL calls after that still have the context bound:
// every call goes through GLContext::gl(), which binds it again.
#pragma once

#include <atomic>
#include <memory>
#include <mutex>
#include <string>

#include "qrl/video/gl/FrameBuffer.h"

namespace qrl {

class GLContext;

class OpenGLFrameBuffer final : public FrameBuffer, public std::enable_shared_from_this<OpenGLFrameBuffer> {
public:
    // A new frame buffer name on the selected context (0 without one).
    // Raises "OpenGLError" when GL reports an error.
    static std::shared_ptr<OpenGLFrameBuffer> initWithContextManager(std::shared_ptr<ContextManager> manager);
    ~OpenGLFrameBuffer() override;

    void use() override;
    void finish() override;
    void clear() override;
    void useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID, bool useQuartzOrtho) override;
    void bindWithTexture(const std::shared_ptr<TextureWithID>& texture, GLenum attachmentPoint) override;
    void bindWithTextureID(GLuint textureID, GLenum attachmentPoint) override;
    void bindWithTexture(const std::shared_ptr<TextureWithID>& texture) override;
    void unbindAttachmentPoint(GLenum attachmentPoint) override;
    void cleanUp() override;
    void useAndSet2dDrawingSizeTo(CGSize size, const std::shared_ptr<TextureWithID>& texture) override;
    void useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID) override;
    void drawTextureCoordsToOriginOfFBO(CGRect rect) override;
    void finish2dDrawingTo(const std::shared_ptr<Texture>& texture) override;
    void saveFBOParameters() override;
    void restoreFBOParameters() override;
    std::shared_ptr<ContextManager> contextManager() const override;
    GLuint frameBuffer() const override { return frameBuffer_.load(); }

    // Raises "FrameBufferObject" ("Unable to make FBO complete, status %ld")
    // when the bound frame buffer is not complete. Releases one level of the
    // caller's lock on the selected context before it answers.
    void checkStatus();
    // "FBO: %d".
    std::string description() const;
    // Only the same object.
    bool isEqual(const FrameBuffer& other) const { return this == &other; }

    GLint previousFBO() const { return previousFBO_; }
    GLint previousReadFBO() const { return previousReadFBO_; }
    GLint previousDrawFBO() const { return previousDrawFBO_; }

private:
    explicit OpenGLFrameBuffer(std::shared_ptr<ContextManager> manager);

    mutable std::mutex propertyMutex_;
    std::shared_ptr<ContextManager> contextManager_;
    std::atomic<GLuint> frameBuffer_{0};
    bool inCleanup_ = false;
    GLint previousFBO_ = 0;
    GLint previousReadFBO_ = 0;
    GLint previousDrawFBO_ = 0;
};

}  // namespace qrl
