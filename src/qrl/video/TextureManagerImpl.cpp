#include "qrl/video/TextureManagerImpl.h"

#include <algorithm>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/gl/NSOpenGLPBufferTexture.h"
#include "qrl/video/gl/OpenGLTexture.h"

namespace qrl {

const char* const kPackedYCbCrToRGBShaderSource = R"(#extension GL_ARB_texture_rectangle : enable
uniform sampler2DRect picture;
void main() {
    vec2 p = floor(gl_TexCoord[0].st);
    vec4 g = texture2DRect(picture, vec2(floor(p.x / 2.0) + 0.5, p.y + 0.5));
    float luma = mod(p.x, 2.0) < 1.0 ? g.g : g.a;
    float y = (luma * 255.0 - 16.0) / 219.0;
    float cb = (g.r * 255.0 - 128.0) / 224.0;
    float cr = (g.b * 255.0 - 128.0) / 224.0;
    gl_FragColor = vec4(y + 1.402 * cr, y - 0.344136 * cb - 0.714136 * cr, y + 1.772 * cb, 1.0);
}
)";

std::shared_ptr<TextureManagerImpl> TextureManagerImpl::initWithManager(std::shared_ptr<ContextManager> manager) {
    if (!manager) Exception::raise("NoManager", "Cannot initialize a texture manager with a nil context manager");
    return std::shared_ptr<TextureManagerImpl>(new TextureManagerImpl(std::move(manager)));
}

TextureManagerImpl::TextureManagerImpl(std::shared_ptr<ContextManager> manager)
    : contextManager_(std::move(manager)), maxTextureSize_(contextManager_->maximumTextureSize()) {}

TextureManagerImpl::~TextureManagerImpl() {
    QRLAppDomainLogInfo(kLoggingDebug, "Deallocating the Texture Manager %@", description());
    cleanUp();
}

std::shared_ptr<ContextManager> TextureManagerImpl::contextManager() {
    std::lock_guard l(propertyMutex_);
    return contextManager_;
}

std::string TextureManagerImpl::description() {
    return qrl::format("<TextureManagerImpl %p: %d textures>", this, numberOfTexturesAllocated());
}

void TextureManagerImpl::add(std::shared_ptr<Texture> texture) {
    std::lock_guard l(arrayLock_);
    if (textures_) textures_->push_back(std::move(texture));
}

std::shared_ptr<TextureWithID> TextureManagerImpl::allocateNewTexture() {
    {
        std::lock_guard l(arrayLock_);
        if (!textures_) return nullptr;  // cleaned up
    }
    auto texture = OpenGLTexture::openGLTextureWithManager(shared_from_this());
    add(texture);
    return texture;
}

std::shared_ptr<TextureWithID> TextureManagerImpl::allocateNewVRAMTexture(CGSize size, GLenum glType) {
    (void)glType;  // ignored: always BGRA
    return allocateNewVRAMTexture(size, false);
}

std::shared_ptr<TextureWithID> TextureManagerImpl::allocateNewVRAMTexture(CGSize size, bool yuv) {
    if (size.width == 0 && size.height == 0)
        Exception::raise("InvalidSize", "Must specify a non-zero size for the texture");
    auto texture = allocateNewTexture();
    if (!texture) return texture;
    texture->bindToTextureRectangleExt();
    const auto cm = contextManager();
    GLContext* context = cm ? cm->lockCurrentContext() : nullptr;
    if (!context) return texture;
    try {
        const int width = static_cast<int>(size.width);
        const int height = static_cast<int>(size.height);
        auto* gl = dynamic_cast<OpenGLTexture*>(texture.get());
        if (!yuv) {
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA), width, height, 0,
                                       GL_BGRA, GL_UNSIGNED_BYTE, nullptr);
            if (gl) gl->setStorage(TextureStorage::BGRA, NSMakeSize(width, height));
        } else if (context->hasExtension("GL_APPLE_ycbcr_422")) {
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGB), width, height, 0,
                                       GL_YCBCR_422_APPLE, GL_UNSIGNED_SHORT_8_8_APPLE, nullptr);
            if (gl) gl->setStorage(TextureStorage::YCbCrNative, NSMakeSize(width, height));
        } else if (context->hasExtension("GL_MESA_ycbcr_texture")) {
            // Mesa's Y'CbCr texture: the internal format must be its own enum.
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_YCBCR_MESA), width, height,
                                       0, GL_YCBCR_MESA, GL_UNSIGNED_SHORT_8_8_MESA, nullptr);
            if (gl) gl->setStorage(TextureStorage::YCbCrNative, NSMakeSize(width, height));
        } else {
            // No Y'CbCr format: RGBA8 at half width, converted in a fragment shader.
            const int packedWidth = (width + 1) / 2;
            context->gl().glTexImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, static_cast<GLint>(GL_RGBA8), packedWidth, height,
                                       0, GL_RGBA, GL_UNSIGNED_BYTE, nullptr);
            if (gl) gl->setStorage(TextureStorage::YCbCrPackedRGBA, NSMakeSize(packedWidth, height));
        }
        cm->checkOpenGLError("Unable to create a on-GPU texture, %ld", context);
    } catch (...) {
        cm->unlockCGLContext(context);
        throw;
    }
    cm->unlockCGLContext(context);
    return texture;
}

std::shared_ptr<NSOpenGLPBufferTexture> TextureManagerImpl::allocateNewNSPBuffer(CGSize size) {
    std::lock_guard l(arrayLock_);
    auto texture = NSOpenGLPBufferTexture::nsOpenGLTextureWithManager(shared_from_this(), size);
    if (texture && textures_) textures_->push_back(texture);
    return texture;
}

std::shared_ptr<TextureWithID> TextureManagerImpl::allocateNew3DLUTWithSize(int32_t size, int32_t sizeOfEachUnit,
                                                                           int32_t numberOfInputs,
                                                                           std::span<const uint8_t> data) {
    GLContext* const noted = GLContext::current();
    const auto cm = contextManager();
    if (!cm) return nullptr;
    cm->makeContextCurrent(0);
    GLContext* context = cm->lockCurrentContext();
    std::shared_ptr<TextureWithID> result;
    try {
        if (!context) {
            QRLAppLogError("No OpenGL context - can't allocate 3D LUT");
        } else if (auto texture = allocateNewTexture()) {
            texture->bindToTexture3D();
            if (numberOfInputs != 3) {
                Exception::raise("Unknown format",
                                 qrl::format("Expected 3 inputs, got %d. Don't know how to support anything other than "
                                             "a 3D lookup table right now.",
                                             numberOfInputs));
            }
            // The product in 32 bits (wrapping as the platform's arithmetic
            // does, without undefined behaviour), then widened as a signed value.
            const uint32_t product = static_cast<uint32_t>(size) * static_cast<uint32_t>(size) *
                                     static_cast<uint32_t>(size) * static_cast<uint32_t>(sizeOfEachUnit) *
                                     static_cast<uint32_t>(numberOfInputs);
            const int64_t expected = static_cast<int32_t>(product);
            const auto length = static_cast<long>(data.size());
            if (length < expected) {
                Exception::raise("DataTooShort",
                                 qrl::format("Length of data %ld < expected data size (%d x %d x %d x %d x %d == %d",
                                             length, size, size, size, numberOfInputs, sizeOfEachUnit,
                                             static_cast<int32_t>(expected)));
            }
            if (length > expected) {
                Exception::raise("DataTooLong",
                                 qrl::format("Length of data %ld > expected data size (%d x %d x %d x %d x %d == %d",
                                             length, size, size, size, numberOfInputs, sizeOfEachUnit,
                                             static_cast<int32_t>(expected)));
            }
            context->gl().glPixelStorei(GL_UNPACK_ALIGNMENT, 1);
            context->gl().glTexImage3D(GL_TEXTURE_3D, 0, static_cast<GLint>(GL_RGB16), size, size, size, 0, GL_RGB,
                                       GL_UNSIGNED_SHORT, data.data());
            cm->checkOpenGLError("Unable to create a 3D LUT texture, %ld", context);
            if (auto* gl = dynamic_cast<OpenGLTexture*>(texture.get())) gl->setStorage(TextureStorage::LUT3D, NSMakeSize(size, size));
            result = std::move(texture);
        }
    } catch (...) {
        // The new texture stays on the list; the next cleanUp finds it.
        cm->unlockCGLContext(context);
        GLContext::setCurrent(noted);
        throw;
    }
    cm->unlockCGLContext(context);
    GLContext::setCurrent(noted);
    return result;
}

void TextureManagerImpl::returnTexture(const std::shared_ptr<Texture>& texture) {
    if (!texture) return;
    texture->cleanUp();
    std::lock_guard l(arrayLock_);
    if (!textures_) return;
    const auto it = std::find_if(textures_->begin(), textures_->end(),
                                 [&](const std::shared_ptr<Texture>& t) { return t->isEqual(*texture); });
    if (it != textures_->end()) textures_->erase(it);
}

void TextureManagerImpl::cleanUp() {
    const auto self = weak_from_this().lock();  // letting go of the context manager may let go of this
    {
        std::lock_guard l(arrayLock_);
        if (textures_) {
            for (const auto& t : *textures_) t->cleanUp();
            textures_.reset();
        }
    }
    std::shared_ptr<ContextManager> released;
    {
        std::lock_guard l(propertyMutex_);
        released = std::move(contextManager_);
    }
}

bool TextureManagerImpl::ownsTexture(const Texture& texture) {
    std::lock_guard l(arrayLock_);
    if (!textures_) return false;
    return std::any_of(textures_->begin(), textures_->end(),
                       [&](const std::shared_ptr<Texture>& t) { return t->isEqual(texture); });
}

int32_t TextureManagerImpl::numberOfTexturesAllocated() {
    std::lock_guard l(arrayLock_);
    return textures_ ? static_cast<int32_t>(textures_->size()) : 0;
}

}  // namespace qrl
