// OpenGLTexture: a texture with a GL name on the rectangle target (or the 3D
// target for lookup tables), storage on the GPU or read from client memory.
//
// Client memory on Linux. The framework's original platform lets the GPU
// read the caller's memory directly (client storage). Linux drivers cannot:
// where ARB_buffer_storage exists, bindTextureOfSize copies the caller's
// pixels into a persistently mapped pixel buffer object of the texture's own
// and the texture is filled from that buffer (a fence keeps the next copy
// from overwriting pixels the GPU has not read yet); elsewhere GL copies the
// pixels during glTexImage2D. Either way the caller's memory may change or
// go as soon as the call returns.
#pragma once

#include <atomic>
#include <cstddef>
#include <memory>
#include <mutex>

#include "qrl/video/gl/AbstractTexture.h"

namespace qrl {

// What the texture's storage holds.
enum class TextureStorage {
    None,
    BGRA,              // 8-bit BGRA
    YCbCrNative,       // Y'CbCr 4:2:2 in the driver's own Y'CbCr format
    YCbCrPackedRGBA,   // Y'CbCr 4:2:2 packed as RGBA8 at half width (Cb Y0 Cr Y1 in R G B A)
    LUT3D,             // 16-bit RGB lattice
};

inline constexpr GLuint kNoTextureName = 0xFFFFFFFF;

class OpenGLTexture : public AbstractTexture, public virtual TextureWithID {
public:
    // A new GL name on the selected context of the manager's context
    // manager; without a selected context the texture has no name (and is
    // not valid), and an error is logged.
    static std::shared_ptr<OpenGLTexture> openGLTextureWithManager(std::shared_ptr<TextureManager> manager);
    ~OpenGLTexture() override;

    void bindToTextureRectangleExt() override;
    void bindToTexture3D() override;
    // Raises an exception named after the class for a null address or an
    // empty size.
    void bindTextureOfSize(CGSize size, const void* memory) override;
    GLuint textureID() const override { return textureID_.load(); }
    // Also: a GL name, and a valid context manager.
    bool valid() const override;
    // Also: the same GL name.
    bool isEqual(const Texture& other) const override;
    // "texture:%d", or "(INVALID)texture:%d".
    std::string description() const override;

    TextureStorage storage() const;
    // The size of the storage in texels (a packed Y'CbCr texture is half as wide as its picture).
    CGSize storageSize() const;
    void setStorage(TextureStorage storage, CGSize size);

protected:
    OpenGLTexture() = default;
    // The steps of openGLTextureWithManager on an object of any subclass.
    void initTextureWithManager(std::shared_ptr<TextureManager> manager);
    void cleanupSubclassResources(GLContext* context) override;
    virtual const char* className() const { return "OpenGLTexture"; }

private:
    void uploadThroughPixelBuffer(GLContext& context, int width, int height, const void* memory);

    std::atomic<GLuint> textureID_{kNoTextureName};
    mutable std::mutex storageMutex_;
    TextureStorage storage_ = TextureStorage::None;
    CGSize storageSize_;
    // The pixel buffer behind bindTextureOfSize, on the owning context's share group.
    GLuint clientBuffer_ = 0;
    void* clientMapping_ = nullptr;
    size_t clientBytes_ = 0;
    GLsync clientFence_ = nullptr;
};

}  // namespace qrl
