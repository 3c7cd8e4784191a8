#include "qrl/video/gl/OpenGLFrameBuffer.h"

#include <gtest/gtest.h>

#include "qrl/video/TextureManager.h"
#include "qrl/video/gl/Texture.h"
#include "video/GLTestSupport.h"

namespace qrl {
namespace {

using test::expectRaise;

class OpenGLFrameBufferTest : public test::SimGLFixture {
protected:
    std::shared_ptr<OpenGLFrameBuffer> frameBuffer() {
        return std::dynamic_pointer_cast<OpenGLFrameBuffer>(selected(0).allocateFrameBuffer());
    }
    std::shared_ptr<TextureWithID> texture(double w, double h) {
        return selected(0).textureManager()->allocateNewVRAMTexture(NSMakeSize(w, h), false);
    }
};

TEST_F(OpenGLFrameBufferTest, BracketPutsBackWhatItChanged) {
    auto fb = frameBuffer();
    auto target = texture(101, 51);
    auto source = texture(8, 8);
    SimGLContext& c = sim(0);
    // The state before: another frame buffer bound, a texture bound, a viewport.
    GLContext* ctx = manager_->lockCurrentContext();
    ctx->gl().glBindFramebufferEXT(GL_FRAMEBUFFER_EXT, 77);
    ctx->gl().glViewport(0, 0, 640, 480);
    manager_->unlockCGLContext(ctx);
    source->bindToTextureRectangleExt();
    source->saveCurrentTextureParameters();

    const uint64_t without = SimGLContext::callsWithoutContext(), refused = c.refusedUnlocks();
    fb->useAndSet2dDrawingSizeTo(NSMakeSize(100.7, 50.2), target);
    EXPECT_EQ(c.drawFramebuffer(), fb->frameBuffer());
    EXPECT_EQ(c.framebufferAttachment(fb->frameBuffer(), GL_COLOR_ATTACHMENT0_EXT), target->textureID());
    EXPECT_EQ(c.drawBuffer(), GL_COLOR_ATTACHMENT0_EXT);
    EXPECT_EQ(c.viewport(), (std::vector<GLint>{0, 0, 100, 50}));
    EXPECT_EQ(c.matrixTop(GL_PROJECTION), "ortho(0, 100.7, 0, 50.2, -1, 1)");
    for (const GLenum stack : {GL_PROJECTION, GL_MODELVIEW}) EXPECT_EQ(c.matrixDepth(stack), 2);
    EXPECT_EQ(c.attribDepth(), 1);
    EXPECT_TRUE(c.isEnabled(GL_BLEND));
    for (const GLenum row : {GL_PACK_ROW_LENGTH, GL_UNPACK_ROW_LENGTH}) EXPECT_EQ(c.pixelStore(row), 100);
    EXPECT_EQ(c.blendAndColour(), (std::vector<GLfloat>{GL_SRC_ALPHA, GL_ONE_MINUS_SRC_ALPHA, 1, 1, 1, 1}));
    EXPECT_EQ(fb->previousFBO(), 77);

    // The bracket runs one lock level short (its own unlock is refused); no
    // GL call may be left without a context.
    EXPECT_EQ(c.lockDepth(), 0);
    EXPECT_EQ(c.refusedUnlocks(), refused + 1);
    EXPECT_EQ(SimGLContext::callsWithoutContext(), without);

    fb->finish2dDrawingTo(source);
    EXPECT_EQ(c.drawFramebuffer(), 77u);
    EXPECT_EQ(c.readFramebuffer(), 77u);
    EXPECT_EQ(c.viewport(), (std::vector<GLint>{0, 0, 640, 480}));
    for (const GLenum stack : {GL_PROJECTION, GL_MODELVIEW}) EXPECT_EQ(c.matrixDepth(stack), 1);
    EXPECT_EQ(c.matrixMode(), GL_MODELVIEW);
    EXPECT_EQ(c.attribDepth(), 0);
    EXPECT_FALSE(c.isEnabled(GL_BLEND));
    EXPECT_TRUE(c.isEnabled(GL_TEXTURE_RECTANGLE_EXT));
    EXPECT_EQ(c.textureBinding(GL_TEXTURE_RECTANGLE_EXT), source->textureID());
    // The saved row length comes back.
    for (const GLenum row : {GL_PACK_ROW_LENGTH, GL_UNPACK_ROW_LENGTH}) EXPECT_EQ(c.pixelStore(row), 0);
    EXPECT_EQ(c.pendingError(), GL_NO_ERROR);
    EXPECT_EQ(SimGLContext::callsWithoutContext(), without);
}

TEST_F(OpenGLFrameBufferTest, IncompleteAndFailingFrameBuffersRaise) {
    auto fb = frameBuffer();
    // A texture without storage is an incomplete attachment.
    auto bare = selected(0).textureManager()->allocateNewTexture();
    bare->bindToTextureRectangleExt();
    fb->use();
    expectRaise([&] { fb->bindWithTexture(bare); }, "FrameBufferObject", "Unable to make FBO complete, status 36054");
    fb->finish();
    // GL errors raise with the step's text.
    sim(0).failNextCall("glBindFramebufferEXT", GL_INVALID_OPERATION);
    expectRaise([&] { fb->use(); }, "OpenGLError", "Unable to bind frameBuffer object, OpenGL Error: 1282");
    EXPECT_EQ(sim(0).lockDepth(), 0);
    sim(0).failNextCall("glGenFramebuffersEXT", GL_OUT_OF_MEMORY);
    expectRaise([&] { manager_->allocateFrameBuffer(); }, "OpenGLError",
                "Unable to allocate new frameBuffer object, OpenGL Error: 1285");
    EXPECT_EQ(sim(0).lockDepth(), 0);
}

}  // namespace
}  // namespace qrl
