// TextureManager: hands out textures that live on the contexts of one
// ContextManager, keeps the list of them, and destroys what is left when the
// context manager goes.
#pragma once

#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "qrl/foundation/Geometry.h"
#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

class ContextManager;
class NSOpenGLPBufferTexture;
class Texture;
class TextureWithID;

class TextureManager {
public:
    virtual ~TextureManager() = default;

    // A texture with a GL name and no storage; null after cleanUp.
    virtual std::shared_ptr<TextureWithID> allocateNewTexture() = 0;
    // The type is ignored: a BGRA texture, as allocateNewVRAMTexture(size, false).
    virtual std::shared_ptr<TextureWithID> allocateNewVRAMTexture(CGSize size, GLenum glType) = 0;
    // A rectangle texture with storage on the GPU, BGRA or Y'CbCr 4:2:2.
    virtual std::shared_ptr<TextureWithID> allocateNewVRAMTexture(CGSize size, bool yuv) = 0;
    virtual std::shared_ptr<NSOpenGLPBufferTexture> allocateNewNSPBuffer(CGSize size) = 0;
    // A size x size x size lookup table of 16-bit RGB; `data` must hold
    // exactly size^3 x sizeOfEachUnit x numberOfInputs bytes.
    virtual std::shared_ptr<TextureWithID> allocateNew3DLUTWithSize(int32_t size, int32_t sizeOfEachUnit,
                                                                    int32_t numberOfInputs,
                                                                    std::span<const uint8_t> data) = 0;
    virtual void returnTexture(const std::shared_ptr<Texture>& texture) = 0;
    virtual void cleanUp() = 0;
    virtual bool ownsTexture(const Texture& texture) = 0;
    virtual std::shared_ptr<ContextManager> contextManager() = 0;
    virtual CGSize maxTextureSize() = 0;
    virtual int32_t numberOfTexturesAllocated() = 0;
    virtual std::string description() = 0;
};

}  // namespace qrl
