// FrameBuffer: a GL frame buffer object that draws into a rectangle texture
// and comes back to the state it left; its main service is the pair
// useAndSet2dDrawingSizeTo / finish2dDrawingTo around two-dimensional drawing.
#pragma once

#include <memory>

#include "qrl/foundation/Geometry.h"
#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

class ContextManager;
class Texture;
class TextureWithID;

class FrameBuffer {
public:
    virtual ~FrameBuffer() = default;

    virtual void use() = 0;
    virtual void finish() = 0;
    virtual void clear() = 0;
    // useAndSet2dDrawingSizeTo:usingTextureID:useQuartzOrtho:
    virtual void useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID, bool useQuartzOrtho) = 0;
    // bindWithTexture:toAttachmentPoint:
    virtual void bindWithTexture(const std::shared_ptr<TextureWithID>& texture, GLenum attachmentPoint) = 0;
    // bindWithTextureID:toAttachmentPoint:
    virtual void bindWithTextureID(GLuint textureID, GLenum attachmentPoint) = 0;
    virtual void bindWithTexture(const std::shared_ptr<TextureWithID>& texture) = 0;
    virtual void unbindAttachmentPoint(GLenum attachmentPoint) = 0;
    virtual void cleanUp() = 0;
    // useAndSet2dDrawingSizeTo:usingTexture: (null passes texture ID 0)
    virtual void useAndSet2dDrawingSizeTo(CGSize size, const std::shared_ptr<TextureWithID>& texture) = 0;
    // useAndSet2dDrawingSizeTo:usingTextureID:
    virtual void useAndSet2dDrawingSizeTo(CGSize size, GLuint textureID) = 0;
    virtual void drawTextureCoordsToOriginOfFBO(CGRect rect) = 0;
    virtual void finish2dDrawingTo(const std::shared_ptr<Texture>& texture) = 0;
    virtual void saveFBOParameters() = 0;
    virtual void restoreFBOParameters() = 0;
    virtual std::shared_ptr<ContextManager> contextManager() const = 0;
    virtual GLuint frameBuffer() const = 0;
};

}  // namespace qrl
