// AbstractTexture: the base of the textures a TextureManager hands out: the
// manager and owning context, saved texture parameters, filtering, row
// lengths, and teardown under the owning context's lock.
#pragma once

#include <memory>
#include <mutex>
#include <string>

#include "qrl/video/gl/Texture.h"

namespace qrl {

class ContextManager;

// Held through std::shared_ptr; the manager's list keeps textures alive
// until they are returned or the manager is cleaned up.
class AbstractTexture : public virtual Texture, public std::enable_shared_from_this<AbstractTexture> {
public:
    // A texture of the manager on the context manager's selected context.
    static std::shared_ptr<AbstractTexture> textureWithManager(std::shared_ptr<TextureManager> manager);
    ~AbstractTexture() override;

    void cleanUp() override;
    void bindToTextureRectangleExt() override {}
    void bindToTexture3D() override {}
    void deleteTexture() override;
    void saveCurrentTextureParameters() override;
    void restoreSavedTextureParamters() override;
    void linearAndClampToEdge() override;
    void trilinearInterpolationFor3DLUT() override;
    // The platform's storage hint and client storage flag. Linux drivers
    // have neither (no APPLE_texture_range, no APPLE_client_storage): where
    // the context lacks the extension the call sets nothing.
    void setTextureStorageHintApple(GLint storageHint, GLint unpackClientStorage) override;
    void setPackAndUnpackRowLength(GLint rowLength) override;
    void setPackRowLength(GLint rowLength) override;
    void setUnpackRowLength(GLint rowLength) override;
    // owningContext and manager are both set.
    bool valid() const override;
    std::shared_ptr<GLContext> owningContext() const override;
    std::shared_ptr<TextureManager> manager() const override;
    // Same kind of object and the identical owning context.
    bool isEqual(const Texture& other) const override;
    std::string description() const override;

    GLint previousTextureName() const { return previousTextureName_; }
    GLint previousRowLength() const { return previousRowLength_; }

protected:
    AbstractTexture() = default;
    // Stores the manager and takes the context manager's selected context as
    // the owning context.
    void initWithManager(std::shared_ptr<TextureManager> manager);
    // The manager's context manager; null once either is gone.
    std::shared_ptr<ContextManager> contextManager() const;
    // Releases what a subclass holds in GL, with `context` (the owning one) locked.
    virtual void cleanupSubclassResources(GLContext* context) { (void)context; }

private:
    mutable std::mutex propertyMutex_;
    std::shared_ptr<TextureManager> manager_;
    std::shared_ptr<GLContext> owningContext_;
    GLint previousTextureName_ = 0;
    GLint previousRowLength_ = 0;
};

}  // namespace qrl
