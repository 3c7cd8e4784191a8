#include "qrl/video/gl/OpenGLTexture.h"

#include <cstring>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/TextureManager.h"

namespace qrl {

std::shared_ptr<OpenGLTexture> OpenGLTexture::openGLTextureWithManager(std::shared_ptr<TextureManager> manager) {
    std::shared_ptr<OpenGLTexture> texture(new OpenGLTexture());
    texture->initTextureWithManager(std::move(manager));
    return texture;
}

void OpenGLTexture::initTextureWithManager(std::shared_ptr<TextureManager> manager) {
    initWithManager(manager);
    const auto cm = manager ? manager->contextManager() : nullptr;
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) {
        QRLAppLogError("Unable to create a new texture using manager %@",
                       manager ? manager->description() : std::string("(null)"));
        return;
    }
    GLuint name = kNoTextureName;
    context->gl().glGenTextures(1, &name);
    cm->unlockCGLContext(context);
    textureID_ = name;
}

OpenGLTexture::~OpenGLTexture() { cleanUp(); }

bool OpenGLTexture::valid() const {
    if (!AbstractTexture::valid() || textureID_.load() == kNoTextureName) return false;
    const auto cm = contextManager();
    return cm && cm->valid();
}

bool OpenGLTexture::isEqual(const Texture& other) const {
    if (!AbstractTexture::isEqual(other)) return false;
    const auto* o = dynamic_cast<const OpenGLTexture*>(&other);
    return o && o->textureID() == textureID();
}

std::string OpenGLTexture::description() const {
    return qrl::format(valid() ? "texture:%d" : "(INVALID)texture:%d", static_cast<int32_t>(textureID()));
}

TextureStorage OpenGLTexture::storage() const {
    std::lock_guard l(storageMutex_);
    return storage_;
}

CGSize OpenGLTexture::storageSize() const {
    std::lock_guard l(storageMutex_);
    return storageSize_;
}

void OpenGLTexture::setStorage(TextureStorage storage, CGSize size) {
    std::lock_guard l(storageMutex_);
    storage_ = storage;
    storageSize_ = size;
}

void OpenGLTexture::bindToTextureRectangleExt() {
    if (!valid()) return;
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    context->gl().glBindTexture(GL_TEXTURE_RECTANGLE_EXT, textureID());
    cm->unlockCGLContext(context);
}

void OpenGLTexture::bindToTexture3D() {
    if (!valid()) return;
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return;
    // A raise leaves the context locked.
    context->gl().glEnable(GL_TEXTURE_3D);
    cm->checkOpenGLError("Can't enable TEXTURE_3D, %ld", context);
    context->gl().glBindTexture(GL_TEXTURE_3D, textureID());
    cm->checkOpenGLError("Can't bind texture to GL_TEXTURE_3D, %ld", context);
    cm->unlockCGLContext(context);
}

void OpenGLTexture::bindTextureOfSize(CGSize size, const void* memory) {
    if (!memory) Exception::raise(className(), "Cannot bind a nil memory location to a texture");
    if (!(size.width > 0 && size.height > 0))
        Exception::raise(className(), "When binding memory to a texture, size must be non-empty");
    const auto cm = contextManager();
    if (!valid() || !cm || !cm->currentNSOpenGLContext()) return;
    GLContext* context = cm->lockCurrentContext();
    if (!context) return;
    try {
        bindToTextureRectangleExt();
        const int width = static_cast<int>(size.width);
        const int height = static_cast<int>(size.height);
        if (context->hasExtension("GL_APPLE_client_storage") && context->hasExtension("GL_APPLE_texture_range")) {
            context->gl().glTexParameteri(GL_TEXTURE_RECTANGLE_EXT, GL_TEXTURE_STORAGE_HINT_APPLE,
                                          GL_STORAGE_SHARED_APPLE);
            context->gl().glPixelStorei(GL_UNPACK_CLIENT_STORAGE_APPLE, 1);
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0,
                                       GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, memory);
        } else if (context->hasExtension("GL_ARB_buffer_storage")) {
            uploadThroughPixelBuffer(*context, width, height, memory);
        } else {
            // No client storage and no persistent mapping: GL copies the pixels now.
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0,
                                       GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, memory);
        }
        setStorage(TextureStorage::BGRA, NSMakeSize(width, height));
        cm->checkOpenGLError(escapeFormatText(qrl::format("Unable to bind texture %@ to memory %ld, size %@",
                                                          description(), reinterpret_cast<long>(memory),
                                                          NSStringFromSize(size))));
    } catch (...) {
        cm->unlockCGLContext(context);
        throw;
    }
    cm->unlockCGLContext(context);
}

void OpenGLTexture::uploadThroughPixelBuffer(GLContext& context, int width, int height, const void* memory) {
    GLint rowLength = 0;
    context.gl().glGetIntegerv(GL_UNPACK_ROW_LENGTH, &rowLength);
    const size_t stride = static_cast<size_t>(rowLength > 0 ? rowLength : width) * 4;
    const size_t bytes = stride * static_cast<size_t>(height - 1) + static_cast<size_t>(width) * 4;
    constexpr GLbitfield kFlags = GL_MAP_WRITE_BIT | GL_MAP_PERSISTENT_BIT | GL_MAP_COHERENT_BIT;
    if (!clientMapping_ || clientBytes_ < bytes) {
        if (clientBuffer_) context.gl().glDeleteBuffers(1, &clientBuffer_);
        if (clientFence_) context.gl().glDeleteSync(clientFence_);
        clientFence_ = nullptr;
        clientBuffer_ = 0;
        clientMapping_ = nullptr;
        context.gl().glGenBuffers(1, &clientBuffer_);
        context.gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, clientBuffer_);
        context.gl().glBufferStorage(GL_PIXEL_UNPACK_BUFFER, static_cast<GLsizeiptr>(bytes), nullptr, kFlags);
        clientMapping_ = context.gl().glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, static_cast<GLsizeiptr>(bytes), kFlags);
        clientBytes_ = clientMapping_ ? bytes : 0;
    } else {
        context.gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, clientBuffer_);
    }
    if (!clientMapping_) {
        // The driver refused the mapping: GL copies from the caller's memory.
        context.gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
        context.gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0, GL_BGRA,
                                  GL_UNSIGNED_INT_8_8_8_8_REV, memory);
        return;
    }
    if (clientFence_) {
        // The previous upload must have been read before its pixels are overwritten.
        context.gl().glClientWaitSync(clientFence_, GL_SYNC_FLUSH_COMMANDS_BIT, 5'000'000'000ULL);
        context.gl().glDeleteSync(clientFence_);
        clientFence_ = nullptr;
    }
    std::memcpy(clientMapping_, memory, bytes);
    context.gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0, GL_BGRA,
                              GL_UNSIGNED_INT_8_8_8_8_REV, nullptr);
    clientFence_ = context.gl().glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    context.gl().glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
}

void OpenGLTexture::cleanupSubclassResources(GLContext* context) {
    const GLuint name = textureID_.load();
    if (name == 0) return;
    const auto cm = contextManager();
    if (!cm || !cm->valid()) platformLog("CONTEXT MANAGER NO LONGER VALID");
    if (context) {
        // A name never made (the sentinel) is not a texture, and GL ignores it.
        context->gl().glDeleteTextures(1, &name);
        if (clientFence_) context->gl().glDeleteSync(clientFence_);
        if (clientBuffer_) context->gl().glDeleteBuffers(1, &clientBuffer_);
    }
    clientFence_ = nullptr;
    clientBuffer_ = 0;
    clientMapping_ = nullptr;
    clientBytes_ = 0;
    textureID_ = kNoTextureName;
}

}  // namespace qrl
