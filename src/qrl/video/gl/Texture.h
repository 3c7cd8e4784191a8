// Texture, TextureWithID, PBufferTexture: the interfaces of textures handed
// out by a TextureManager. Textures other than 3D lookup tables use the
// rectangle target, whose coordinates are in pixels.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "qrl/foundation/Geometry.h"
#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

class GLContext;
class TextureManager;

class Texture {
public:
    virtual ~Texture() = default;

    // Releases the GL resources and the manager reference. Safe to call twice.
    virtual void cleanUp() = 0;
    virtual void bindToTextureRectangleExt() = 0;
    virtual void bindToTexture3D() = 0;
    // Gives the texture back to its manager and forgets manager and context.
    virtual void deleteTexture() = 0;
    virtual void saveCurrentTextureParameters() = 0;
    virtual void restoreSavedTextureParamters() = 0;
    virtual void linearAndClampToEdge() = 0;
    virtual void trilinearInterpolationFor3DLUT() = 0;
    // setTextureStorageHintApple:unpackClientStorageApple:
    virtual void setTextureStorageHintApple(GLint storageHint, GLint unpackClientStorage) = 0;
    virtual void setPackAndUnpackRowLength(GLint rowLength) = 0;
    virtual void setPackRowLength(GLint rowLength) = 0;
    virtual void setUnpackRowLength(GLint rowLength) = 0;
    virtual bool valid() const = 0;
    virtual std::shared_ptr<GLContext> owningContext() const = 0;
    virtual std::shared_ptr<TextureManager> manager() const = 0;

    // Same kind of object and the same identity (see each class).
    virtual bool isEqual(const Texture& other) const = 0;
    virtual std::string description() const = 0;
};

class TextureWithID : public virtual Texture {
public:
    // Gives the texture `size` pixels of BGRA storage read from `memory`.
    virtual void bindTextureOfSize(CGSize size, const void* memory) = 0;
    virtual GLuint textureID() const = 0;
};

class PBufferTexture : public virtual Texture {
public:
    virtual void setFullScreen() = 0;
    virtual int32_t currentVirtualScreenForPBufferContext() = 0;
    virtual void makePixelBufferContextCurrent() = 0;
    // copyCurrentPBufferContentToContext:usingBuffer:
    virtual void copyCurrentPBufferContentToContext(GLContext* context, GLenum buffer) = 0;
};

}  // namespace qrl
