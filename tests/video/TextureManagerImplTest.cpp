#include "qrl/video/TextureManagerImpl.h"

#include <gtest/gtest.h>

#include <tuple>
#include <vector>

#include "qrl/video/gl/OpenGLTexture.h"
#include "video/GLTestSupport.h"

namespace qrl {
namespace {

using test::expectRaise;

class TextureManagerImplTest : public test::SimGLFixture {
protected:
    TextureManager& textures() { return *selected(0).textureManager(); }
    SimTexture info(const std::shared_ptr<TextureWithID>& t) { return sim(0).texture(t->textureID()).value_or(SimTexture{}); }
};

TEST_F(TextureManagerImplTest, VRAMTexturesBGRAAndYCbCr) {
    expectRaise([&] { textures().allocateNewVRAMTexture(NSZeroSize, false); }, "InvalidSize",
                "Must specify a non-zero size for the texture");
    // Only exact equality with the zero size is refused.
    EXPECT_NE(textures().allocateNewVRAMTexture(NSMakeSize(0, 10), false), nullptr);

    auto bgra = textures().allocateNewVRAMTexture(NSMakeSize(100.7, 50.2), GLenum{0x1234});  // the type is ignored
    SimTexture t = info(bgra);
    EXPECT_EQ(std::tie(t.target, t.width, t.height, t.internalFormat, t.format, t.type),
              std::tuple(GL_TEXTURE_RECTANGLE_EXT, 100, 50, static_cast<GLint>(GL_RGBA), GL_BGRA, GL_UNSIGNED_BYTE));
    EXPECT_EQ(dynamic_cast<OpenGLTexture&>(*bgra).storage(), TextureStorage::BGRA);

    // Mesa's Y'CbCr format where offered (which the fake, as Mesa, accepts
    // only with its own internal format).
    auto native = textures().allocateNewVRAMTexture(NSMakeSize(64, 32), true);
    EXPECT_EQ(dynamic_cast<OpenGLTexture&>(*native).storage(), TextureStorage::YCbCrNative);
    EXPECT_EQ(sim(0).pendingError(), GL_NO_ERROR);

    // Without it: RGBA8 at half width (rounded up), converted in a shader.
    useRenderer([](SimRenderer& r) { r.extensions = "GL_ARB_texture_rectangle GL_EXT_framebuffer_object GL_ARB_shader_objects"; });
    auto packed = textures().allocateNewVRAMTexture(NSMakeSize(65, 32), true);
    t = info(packed);
    EXPECT_EQ(std::tie(t.width, t.internalFormat, t.format), std::tuple(33, static_cast<GLint>(GL_RGBA8), GL_RGBA));
    EXPECT_EQ(dynamic_cast<OpenGLTexture&>(*packed).storage(), TextureStorage::YCbCrPackedRGBA);

    // A GL error while making storage raises with the text filled with the code, and unlocks.
    sim(0).failNextCall("glTexImage2D", GL_OUT_OF_MEMORY);
    expectRaise([&] { textures().allocateNewVRAMTexture(NSMakeSize(8, 8), false); }, "OpenGLError",
                "Unable to create a on-GPU texture, 1285, OpenGL Error: 1285");
    EXPECT_EQ(sim(0).lockDepth(), 0);
}

TEST_F(TextureManagerImplTest, LookupTableSizes) {
    const auto block = [](size_t n) { return std::vector<uint8_t>(n, 0x7F); };
    TextureManager& tm = textures();
    selected(1);
    GLContext* const before = GLContext::current();
    ASSERT_EQ(before, &sim(1));

    ASSERT_NE(tm.allocateNew3DLUTWithSize(33, 2, 3, block(215622)), nullptr);
    EXPECT_EQ(GLContext::current(), before);  // ran on context 0, left the caller's context alone

    expectRaise([&] { tm.allocateNew3DLUTWithSize(33, 2, 3, block(215621)); }, "DataTooShort",
                "Length of data 215621 < expected data size (33 x 33 x 33 x 3 x 2 == 215622");
    expectRaise([&] { tm.allocateNew3DLUTWithSize(33, 2, 3, block(215623)); }, "DataTooLong",
                "Length of data 215623 > expected data size (33 x 33 x 33 x 3 x 2 == 215622");
    expectRaise([&] { tm.allocateNew3DLUTWithSize(33, 2, 4, {}); }, "Unknown format",
                "Expected 3 inputs, got 4. Don't know how to support anything other than a 3D lookup table right now.");
    EXPECT_EQ(GLContext::current(), before);
    EXPECT_EQ(sim(0).lockDepth(), 0);
    // The raises left their textures on the list for cleanUp to find.
    EXPECT_EQ(textures().numberOfTexturesAllocated(), 4);
    textures().cleanUp();
    EXPECT_EQ(sim(0).textureCount(), 0u);
}

TEST_F(TextureManagerImplTest, ClientMemoryGoesThroughAPersistentPixelBuffer) {
    auto t = textures().allocateNewTexture();
    std::vector<uint32_t> pixels(64 * 16, 0xFF336699u);
    expectRaise([&] { t->bindTextureOfSize(NSMakeSize(64, 16), nullptr); }, "OpenGLTexture",
                "Cannot bind a nil memory location to a texture");
    expectRaise([&] { t->bindTextureOfSize(NSMakeSize(0, 16), pixels.data()); }, "OpenGLTexture",
                "When binding memory to a texture, size must be non-empty");
    t->bindTextureOfSize(NSMakeSize(64, 16), pixels.data());
    EXPECT_TRUE(sim(0).texture(t->textureID())->fromUnpackBuffer);
    EXPECT_EQ(sim(0).pendingError(), GL_NO_ERROR);

    // A GL error raises with the filled text; the lock is released.
    sim(0).failNextCall("glTexImage2D", GL_OUT_OF_MEMORY);
    const std::string expected =
        qrl::format("Unable to bind texture %@ to memory %ld, size {64, 16}, OpenGL Error: 1285", t->description(),
                    reinterpret_cast<long>(pixels.data()));
    expectRaise([&] { t->bindTextureOfSize(NSMakeSize(64, 16), pixels.data()); }, "OpenGLError", expected);
    EXPECT_EQ(sim(0).lockDepth(), 0);

    // Without persistent mapping, GL copies straight from the caller's memory.
    useRenderer([](SimRenderer& r) { r.extensions = "GL_ARB_texture_rectangle GL_EXT_framebuffer_object"; });
    auto direct = textures().allocateNewTexture();
    direct->bindTextureOfSize(NSMakeSize(64, 16), pixels.data());
    EXPECT_FALSE(sim(0).texture(direct->textureID())->fromUnpackBuffer);
    // The platform's storage calls, which the driver refuses, are not made.
    direct->setTextureStorageHintApple(GL_STORAGE_SHARED_APPLE, 1);
    EXPECT_EQ(sim(0).pendingError(), GL_NO_ERROR);
}

TEST_F(TextureManagerImplTest, SavedParametersAndFiltering) {
    auto t = textures().allocateNewTexture();
    auto other = textures().allocateNewTexture();
    t->bindToTextureRectangleExt();
    t->setPackRowLength(320);
    t->setUnpackRowLength(640);
    t->saveCurrentTextureParameters();
    other->bindToTextureRectangleExt();
    other->setPackAndUnpackRowLength(16);
    EXPECT_EQ(sim(0).textureBinding(GL_TEXTURE_RECTANGLE_EXT), other->textureID());
    t->restoreSavedTextureParamters();
    EXPECT_EQ(sim(0).textureBinding(GL_TEXTURE_RECTANGLE_EXT), t->textureID());
    EXPECT_EQ(sim(0).pixelStore(GL_PACK_ROW_LENGTH), 320);
    EXPECT_EQ(sim(0).pixelStore(GL_UNPACK_ROW_LENGTH), 320);  // one saved value serves both

    t->linearAndClampToEdge();
    const auto params = sim(0).texture(t->textureID())->parameters;
    EXPECT_EQ(params.at(GL_TEXTURE_MIN_FILTER), GL_LINEAR);
    for (const GLenum wrap : {GL_TEXTURE_WRAP_S, GL_TEXTURE_WRAP_T}) EXPECT_EQ(params.at(wrap), GL_CLAMP_TO_EDGE);
    auto lut = textures().allocateNew3DLUTWithSize(2, 2, 3, std::vector<uint8_t>(48));
    selected(0);
    lut->bindToTexture3D();
    lut->trilinearInterpolationFor3DLUT();
    const auto lutParams = sim(0).texture(lut->textureID())->parameters;
    EXPECT_EQ(lutParams.at(GL_TEXTURE_WRAP_R), GL_CLAMP);  // not CLAMP_TO_EDGE, on purpose
    EXPECT_EQ(lutParams.at(GL_TEXTURE_MAG_FILTER), GL_LINEAR);

    // A GL error from the row length check reads the calling thread's current context.
    sim(0).failNextCall("glPixelStorei", GL_INVALID_VALUE);
    expectRaise([&] { t->setPackRowLength(-1); }, "OpenGLPop", "Unable to set the pack row length, 1281");
    EXPECT_EQ(sim(0).lockDepth(), 0);
}

}  // namespace
}  // namespace qrl
