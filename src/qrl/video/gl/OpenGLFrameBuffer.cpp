#include "qrl/video/gl/OpenGLFrameBuffer.h"

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/OpenGLGraphics.h"
#include "qrl/video/gl/Texture.h"

namespace qrl {

OpenGLFrameBuffer::OpenGLFrameBuffer(std::shared_ptr<ContextManager> manager) : contextManager_(std::move(manager)) {}

std::shared_ptr<OpenGLFrameBuffer> OpenGLFrameBuffer::initWithContextManager(std::shared_ptr<ContextManager> manager) {
    std::shared_ptr<OpenGLFrameBuffer> fb(new OpenGLFrameBuffer(manager));
    if (!manager) return fb;
    GLContext* context = manager->lockCurrentContext();
    if (context) {
        try {
            GLuint name = 0;
            context->gl().glGenFramebuffersEXT(1, &name);
            fb->frameBuffer_ = name;
            manager->checkOpenGLError("Unable to allocate new frameBuffer object", context);
        } catch (...) {
            manager->unlockCGLContext(context);
            throw;
        }
        manager->unlockCGLContext(context);
    }
    manager->checkOpenGLError("Couldn't create the frame buffer object", context);
    return fb;
}

OpenGLFrameBuffer::~OpenGLFrameBuffer() { cleanUp(); }

std::shared_ptr<ContextManager> OpenGLFrameBuffer::contextManager() const {
    std::lock_guard l(propertyMutex_);
    return contextManager_;
}

std::string OpenGLFrameBuffer::description() const { return qrl::format("FBO: %d", static_cast<int>(frameBuffer())); }

void OpenGLFrameBuffer::saveFBOParameters() {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        c.gl().glGetIntegerv(GL_FRAMEBUFFER_BINDING_EXT, &previousFBO_);
        c.gl().glGetIntegerv(GL_READ_FRAMEBUFFER_BINDING_EXT, &previousReadFBO_);
        c.gl().glGetIntegerv(GL_DRAW_FRAMEBUFFER_BINDING_EXT, &previousDrawFBO_);
        cm->checkOpenGLError("Couldn't save FBO parameters", &c);
    });
}

void OpenGLFrameBuffer::restoreFBOParameters() {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        c.gl().glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, static_cast<GLuint>(previousFBO_));
        c.gl().glBindFramebufferEXT(GL_READ_FRAMEBUFFER_EXT, static_cast<GLuint>(previousReadFBO_));
        c.gl().glBindFramebufferEXT(GL_DRAW_FRAMEBUFFER_EXT, static_cast<GLuint>(previousDrawFBO_));
        cm->checkOpenGLError("Couldn't restore FBO parameters", &c);
    });
}

void OpenGLFrameBuffer::use() {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        saveFBOParameters();
        c.gl().glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, frameBuffer());
        cm->checkOpenGLError("Unable to bind frameBuffer object", &c);
    });
}

void OpenGLFrameBuffer::finish() {
    const auto cm = contextManager();
    withCurrentContextLocked(cm.get(), [&](GLContext& c) {
        c.gl().glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, 0);
        restoreFBOParameters();
    });
}

void OpenGLFrameBuffer::clear() {
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glClearColor(0, 0, 0, 0);
        c.gl().glClear(GL_COLOR_BUFFER_BIT);
    });
}

void OpenGLFrameBuffer::checkStatus() {
    const auto cm = contextManager();
    if (!cm) return;
    GLContext* context = cm->currentNSOpenGLContext().get();
    if (!context) return;
    const GLenum status = context->gl().glCheckFramebufferStatusEXT(GL_FRAMEBUFFER_EXT);
    cm->unlockCGLContext(context);
    if (status != GL_FRAMEBUFFER_COMPLETE_EXT) {
        Exception::raise("FrameBufferObject",
                         qrl::format("Unable to make FBO complete, status %ld", static_cast<long>(status)));
    }
}

void OpenGLFrameBuffer::bindWithTextureID(GLuint textureID, GLenum attachmentPoint) {
    const auto cm = contextManager();
    if (!cm) return;
    // First section: attach and test; checkStatus releases its lock.
    GLContext* context = cm->lockCurrentContext();
    if (!context) return;
    try {
        context->gl().glFramebufferTexture2DEXT(GL_FRAMEBUFFER_EXT, attachmentPoint, GL_TEXTURE_RECTANGLE_EXT,
                                                textureID, 0);
        cm->checkOpenGLError("Cannot bind texture to frame buffer", context);
    } catch (...) {
        cm->unlockCGLContext(context);
        throw;
    }
    checkStatus();
    // Second section: one lock, unlocked in the normal path and once more on the way out.
    context = cm->lockCurrentContext();
    try {
        context->gl().glDrawBuffer(attachmentPoint);
        cm->checkOpenGLError("Unable to setup drawing for color attachment 0", context);
        cm->unlockCGLContext(context);
    } catch (...) {
        cm->unlockCGLContext(context);
        throw;
    }
    cm->unlockCGLContext(context);
}

void OpenGLFrameBuffer::bindWithTexture(const std::shared_ptr<TextureWithID>& texture, GLenum attachmentPoint) {
    bindWithTextureID(texture ? texture->textureID() : 0, attachmentPoint);
}

void OpenGLFrameBuffer::bindWithTexture(const std::shared_ptr<TextureWithID>& texture) {
    bindWithTexture(texture, GL_COLOR_ATTACHMENT0_EXT);
}

void OpenGLFrameBuffer::unbindAttachmentPoint(GLenum attachmentPoint) {
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glFramebufferTexture2DEXT(GL_FRAMEBUFFER_EXT, attachmentPoint, GL_TEXTURE_RECTANGLE_EXT, 0, 0);
    });
}

void OpenGLFrameBuffer::useAndSet2dDrawingSizeTo(CGSize size, const std::shared_ptr<TextureWithID>& texture) {
    useAndSet2dDrawingSizeTo(size, texture ? texture->textureID() : 0, false);
}

void OpenGLFrameBuffer::useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID) {
    useAndSet2dDrawingSizeTo(size, textureID, false);
}

void OpenGLFrameBuffer::useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID, bool useQuartzOrtho) {
    const auto cm = contextManager();
    if (!cm) return;
    GLContext* context = cm->lockCurrentContext();
    if (!context) return;
    // Each call asks the context for its table: after bindWithTextureID the
    // lock is one level short, and gl() binds the context again.
    GLContext& c = *context;
    try {
        c.gl().glPushAttrib(GL_ALL_ATTRIB_BITS);
        c.gl().glEnable(GL_TEXTURE_RECTANGLE_EXT);
        use();
        bindWithTextureID(textureID, GL_COLOR_ATTACHMENT0_EXT);
        const auto width = static_cast<GLsizei>(size.width);
        const auto height = static_cast<GLsizei>(size.height);
        c.gl().glViewport(0, 0, width, height);
        c.gl().glMatrixMode(GL_PROJECTION);
        c.gl().glPushMatrix();
        c.gl().glLoadIdentity();
        if (useQuartzOrtho) c.gl().glOrtho(-1, 1, -1, 1, -1, 1);
        else c.gl().glOrtho(0, size.width, 0, size.height, -1, 1);
        c.gl().glMatrixMode(GL_MODELVIEW);
        c.gl().glPushMatrix();
        c.gl().glLoadIdentity();
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
        c.gl().glPixelStorei(GL_PACK_ROW_LENGTH, width);
        OpenGLGraphics::raiseForGlError("Unable to set the pack row length, %ld");
        c.gl().glPixelStorei(GL_UNPACK_ROW_LENGTH, width);
        OpenGLGraphics::raiseForGlError("Unable to set the unpack row length, %ld");
        clear();
        c.gl().glEnable(GL_BLEND);
        c.gl().glBlendFunc(GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA);
        c.gl().glColor4f(1, 1, 1, 1);
    } catch (...) {
        cm->unlockCGLContext(context);
        throw;
    }
    cm->unlockCGLContext(context);
}

void OpenGLFrameBuffer::drawTextureCoordsToOriginOfFBO(CGRect r) {
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        const auto w = static_cast<GLint>(r.size.width);
        const auto h = static_cast<GLint>(r.size.height);
        const auto x0 = static_cast<GLfloat>(r.origin.x);
        const auto y0 = static_cast<GLfloat>(r.origin.y);
        const auto x1 = static_cast<GLfloat>(r.origin.x + r.size.width);
        const auto y1 = static_cast<GLfloat>(r.origin.y + r.size.height);
        const GLFunctions& gl = c.gl();
        gl.glBegin(GL_QUADS);
        gl.glTexCoord2f(x0, y0);
        gl.glVertex2i(0, 0);
        gl.glTexCoord2f(x1, y0);
        gl.glVertex2i(w, 0);
        gl.glTexCoord2f(x1, y1);
        gl.glVertex2i(w, h);
        gl.glTexCoord2f(x0, y1);
        gl.glVertex2i(0, h);
        gl.glEnd();
    });
}

void OpenGLFrameBuffer::finish2dDrawingTo(const std::shared_ptr<Texture>& texture) {
    const auto cm = contextManager();
    if (!cm) return;
    GLContext* context = cm->lockCurrentContext();
    if (!context) return;
    GLContext& c = *context;
    c.gl().glDisable(GL_BLEND);
    c.gl().glMatrixMode(GL_MODELVIEW);
    c.gl().glPopMatrix();
    c.gl().glMatrixMode(GL_PROJECTION);
    c.gl().glPopMatrix();
    c.gl().glMatrixMode(GL_MODELVIEW);
    finish();
    // No protection from here on: a raise leaves the attribute stack and the lock as they are.
    OpenGLGraphics::raiseForGlError("Unable to finish render");
    if (texture) texture->restoreSavedTextureParamters();
    c.gl().glPopAttrib();
    cm->unlockCGLContext(context);
}

void OpenGLFrameBuffer::cleanUp() {
    {
        std::lock_guard l(propertyMutex_);
        if (inCleanup_) return;
        inCleanup_ = true;
    }
    const auto self = weak_from_this().lock();  // stays alive while the manager lets go of it
    const auto cm = contextManager();
    if (cm) cm->releaseFrameBuffer(this);
    const GLuint name = frameBuffer();
    if (name != 0 && cm) {
        if (GLContext* context = cm->lockCurrentContext()) {
            GLContext* const noted = GLContext::current();
            GLContext::setCurrent(context);
            context->gl().glDeleteFramebuffersEXT(1, &name);
            frameBuffer_ = 0;
            GLContext::setCurrent(noted);
            cm->unlockCGLContext(context);
        }
    }
    std::lock_guard l(propertyMutex_);
    contextManager_.reset();
}

}  // namespace qrl
