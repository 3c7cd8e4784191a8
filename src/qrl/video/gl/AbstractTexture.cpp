#include "qrl/video/gl/AbstractTexture.h"

#include <typeinfo>

#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/OpenGLGraphics.h"
#include "qrl/video/TextureManager.h"

namespace qrl {

std::shared_ptr<AbstractTexture> AbstractTexture::textureWithManager(std::shared_ptr<TextureManager> manager) {
    std::shared_ptr<AbstractTexture> texture(new AbstractTexture());
    texture->initWithManager(std::move(manager));
    return texture;
}

AbstractTexture::~AbstractTexture() { AbstractTexture::cleanUp(); }

void AbstractTexture::initWithManager(std::shared_ptr<TextureManager> manager) {
    std::shared_ptr<GLContext> owning;
    if (manager) {
        if (const auto cm = manager->contextManager()) owning = cm->currentNSOpenGLContext();
    }
    std::lock_guard l(propertyMutex_);
    manager_ = std::move(manager);
    owningContext_ = std::move(owning);
}

std::shared_ptr<GLContext> AbstractTexture::owningContext() const {
    std::lock_guard l(propertyMutex_);
    return owningContext_;
}

std::shared_ptr<TextureManager> AbstractTexture::manager() const {
    std::lock_guard l(propertyMutex_);
    return manager_;
}

std::shared_ptr<ContextManager> AbstractTexture::contextManager() const {
    const auto m = manager();
    return m ? m->contextManager() : nullptr;
}

bool AbstractTexture::valid() const {
    std::lock_guard l(propertyMutex_);
    return owningContext_ && manager_;
}

bool AbstractTexture::isEqual(const Texture& other) const {
    if (typeid(*this) != typeid(other)) return false;
    return owningContext().get() == other.owningContext().get();
}

std::string AbstractTexture::description() const { return valid() ? "texture" : "(INVALID)texture"; }

void AbstractTexture::cleanUp() {
    const auto m = manager();
    const auto context = owningContext();
    if (m && context) {
        context->lock();
        try {
            cleanupSubclassResources(context.get());
        } catch (...) {
            context->unlock();
            std::lock_guard l(propertyMutex_);
            manager_.reset();
            throw;
        }
        context->unlock();
    }
    std::lock_guard l(propertyMutex_);
    manager_.reset();
}

void AbstractTexture::deleteTexture() {
    const auto self = shared_from_this();  // stays alive while the manager lets go of it
    if (const auto m = manager()) m->returnTexture(std::static_pointer_cast<AbstractTexture>(self));
    std::lock_guard l(propertyMutex_);
    manager_.reset();
    owningContext_.reset();
}

void AbstractTexture::saveCurrentTextureParameters() {
    if (!valid()) return;
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glGetIntegerv(GL_TEXTURE_BINDING_RECTANGLE_EXT, &previousTextureName_);
        c.gl().glGetIntegerv(GL_PACK_ROW_LENGTH, &previousRowLength_);
    });
}

void AbstractTexture::restoreSavedTextureParamters() {
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glBindTexture(GL_TEXTURE_RECTANGLE_EXT, static_cast<GLuint>(previousTextureName_));
    });
    // One saved value serves both directions.
    setPackAndUnpackRowLength(previousRowLength_);
}

void AbstractTexture::linearAndClampToEdge() {
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_WRAP_S, GL_CLAMP_TO_EDGE);
        c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_WRAP_T, GL_CLAMP_TO_EDGE);
    });
}

void AbstractTexture::trilinearInterpolationFor3DLUT() {
    // GL_CLAMP here, GL_CLAMP_TO_EDGE for rectangles: the two differ on purpose.
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_MIN_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_MAG_FILTER, GL_LINEAR);
        c.gl().glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_WRAP_S, GL_CLAMP);
        c.gl().glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_WRAP_T, GL_CLAMP);
        c.gl().glTexParameteri(GL_TEXTURE_3D, GL_TEXTURE_WRAP_R, GL_CLAMP);
    });
}

void AbstractTexture::setTextureStorageHintApple(GLint storageHint, GLint unpackClientStorage) {
    if (!valid()) return;
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        if (c.hasExtension("GL_APPLE_texture_range"))
            c.gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_STORAGE_HINT_APPLE, storageHint);
        if (c.hasExtension("GL_APPLE_client_storage"))
            c.gl().glPixelStorei(GL_UNPACK_CLIENT_STORAGE_APPLE, unpackClientStorage);
    });
}

void AbstractTexture::setPackRowLength(GLint rowLength) {
    if (!valid()) return;
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glPixelStorei(GL_PACK_ROW_LENGTH, rowLength);
        // Checked on the calling thread's current context, not the one locked here.
        OpenGLGraphics::raiseForGlError("Unable to set the pack row length, %ld");
    });
}

void AbstractTexture::setUnpackRowLength(GLint rowLength) {
    if (!valid()) return;
    withCurrentContextLocked(contextManager().get(), [&](GLContext& c) {
        c.gl().glPixelStorei(GL_UNPACK_ROW_LENGTH, rowLength);
        OpenGLGraphics::raiseForGlError("Unable to set the unpack row length, %ld");
    });
}

void AbstractTexture::setPackAndUnpackRowLength(GLint rowLength) {
    setPackRowLength(rowLength);
    setUnpackRowLength(rowLength);
}

}  // namespace qrl
