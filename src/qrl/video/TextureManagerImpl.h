// TextureManagerImpl: the texture manager of an OpenGLContextManager: makes
// texture names, GPU textures (BGRA or Y'CbCr), pixel-buffer textures and 3D
// lookup tables on the context manager's contexts, keeps them in a list, and
// cleans them all up with the context manager.
//
// Y'CbCr on Linux. The platform's 4:2:2 Y'CbCr texture formats ('2vuy',
// 'yuvs') do not exist in Linux drivers. Where MESA_ycbcr_texture is
// offered, a Y'CbCr texture uses it (its internal format is its own enum);
// elsewhere the texture is RGBA8 at half the width, each texel holding one
// Cb Y0 Cr Y1 group, and the drawing code converts it in a fragment shader
// (kPackedYCbCrToRGBShaderSource). OpenGLTexture::storage() tells which.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <vector>

#include "qrl/video/TextureManager.h"

namespace qrl {

// A fragment shader that shows a packed Y'CbCr texture (TextureStorage::
// YCbCrPackedRGBA, bound to the rectangle target and
// named by the sampler uniform "picture") as RGB:
// BT.601 studio range; the quad's texture coordinates are picture pixels.
extern const char* const kPackedYCbCrToRGBShaderSource;

// Thread-safe list; GL work needs a selected context on the context
// manager that no other thread changes meanwhile.
class TextureManagerImpl final : public TextureManager, public std::enable_shared_from_this<TextureManagerImpl> {
public:
    // Raises "NoManager" for a null context manager. The texture manager
    // holds the context manager until cleanUp.
    static std::shared_ptr<TextureManagerImpl> initWithManager(std::shared_ptr<ContextManager> manager);
    ~TextureManagerImpl() override;

    std::shared_ptr<TextureWithID> allocateNewTexture() override;
    std::shared_ptr<TextureWithID> allocateNewVRAMTexture(CGSize size, GLenum glType) override;
    // Raises "InvalidSize" for exactly NSZeroSize.
    std::shared_ptr<TextureWithID> allocateNewVRAMTexture(CGSize size, bool yuv) override;
    std::shared_ptr<NSOpenGLPBufferTexture> allocateNewNSPBuffer(CGSize size) override;
    // Runs on context 0 and leaves the calling thread's current context as it
    // was. Raises "Unknown format" for other than 3 inputs, "DataTooShort" and
    // "DataTooLong" for a block of the wrong length.
    std::shared_ptr<TextureWithID> allocateNew3DLUTWithSize(int32_t size, int32_t sizeOfEachUnit, int32_t numberOfInputs,
                                                            std::span<const uint8_t> data) override;
    void returnTexture(const std::shared_ptr<Texture>& texture) override;
    void cleanUp() override;
    bool ownsTexture(const Texture& texture) override;
    std::shared_ptr<ContextManager> contextManager() override;
    CGSize maxTextureSize() override { return maxTextureSize_; }
    int32_t numberOfTexturesAllocated() override;
    std::string description() override;

    TextureManagerImpl() = delete;

private:
    explicit TextureManagerImpl(std::shared_ptr<ContextManager> manager);
    void add(std::shared_ptr<Texture> texture);

    mutable std::mutex propertyMutex_;
    std::shared_ptr<ContextManager> contextManager_;
    std::recursive_mutex arrayLock_;
    std::optional<std::vector<std::shared_ptr<Texture>>> textures_{std::in_place};
    CGSize maxTextureSize_;
};

}  // namespace qrl
