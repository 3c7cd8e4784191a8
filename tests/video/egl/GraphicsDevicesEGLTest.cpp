#include "qrl/video/egl/GraphicsDevicesEGL.h"

#include <gtest/gtest.h>

#include <array>
#include <set>
#include <vector>

#include "support/PrivateServer.h"

namespace qrl {
namespace {

class GraphicsDevicesEGLTest : public ::testing::Test {
protected:
    void SetUp() override {
        devices_ = GraphicsDevicesEGL::open(&why_);
        QRL_SKIP_UNLESS(devices_, "no EGL device: " + why_);
    }
    std::shared_ptr<GraphicsDevicesEGL> devices_;
    std::string why_;
};

TEST_F(GraphicsDevicesEGLTest, RenderersAndTheSoftwareRule) {
    const auto& all = devices_->devices();
    ASSERT_FALSE(all.empty());
    bool anyHardware = false;
    std::set<int32_t> ids;
    for (const auto& d : all) {
        anyHardware = anyHardware || !d.software;
        EXPECT_NE(d.rendererID, 0);
        EXPECT_EQ(d.rendererID, GraphicsDevicesEGL::rendererIDFor(d.driver, d.node));
        EXPECT_EQ(d.software, d.node.empty());
        ids.insert(d.rendererID);
    }
    std::vector<RendererDescription> renderers;
    ASSERT_EQ(devices_->queryRendererInfo(1, renderers), kCGLNoError);
    ASSERT_EQ(renderers.size(), all.size());
    for (size_t i = 0; i < all.size(); ++i) {
        // Software counts exactly when no hardware renderer is there.
        EXPECT_EQ(renderers[i].accelerated, !all[i].software || !anyHardware ? 1 : 0);
        EXPECT_EQ(renderers[i].rendererID, all[i].rendererID);
    }
    EXPECT_NE(devices_->queryRendererInfo(0, renderers), kCGLNoError);
    // IDs are stable across openings.
    std::string why;
    auto again = GraphicsDevicesEGL::open(&why);
    ASSERT_TRUE(again) << why;
    for (size_t i = 0; i < all.size(); ++i) EXPECT_EQ(again->devices()[i].rendererID, all[i].rendererID);
}

TEST_F(GraphicsDevicesEGLTest, SharedContextsAndBadAttributeLists) {
    const std::array<int32_t, 4> attributes{kCGLPFAFullScreen, kCGLPFADisplayMask, 1, 0};
    std::unique_ptr<GLPixelFormat> format;
    ASSERT_EQ(devices_->choosePixelFormat(attributes, format), kCGLNoError);
    ASSERT_TRUE(format);
    auto context = devices_->createContext(*format, nullptr);
    ASSERT_TRUE(context);
    const auto renderer = context->getString(GL_RENDERER);
    ASSERT_TRUE(renderer);
    EXPECT_EQ(context->getError(), GL_NO_ERROR);
    // A second context in the same share group. (Use from other threads is
    // checked with the pixels.)
    auto shared = devices_->createContext(*format, context.get());
    ASSERT_TRUE(shared);
    // Current on this thread until cleared or destroyed.
    ASSERT_TRUE(context->makeCurrent());
    EXPECT_EQ(GLContext::current(), context.get());
    EXPECT_EQ(shared->getString(GL_RENDERER), renderer);  // puts this thread's binding back
    EXPECT_EQ(GLContext::current(), context.get());
    GLContext::clearCurrent();
    EXPECT_EQ(GLContext::current(), nullptr);

    // An unknown attribute, a value cut off, no display in the mask.
    const std::pair<std::vector<int32_t>, CGLError> kBad[] = {
        {{99, 1, 0}, kCGLBadAttribute}, {{kCGLPFADisplayMask}, kCGLBadAttribute}, {{kCGLPFADisplayMask, 0, 0}, kCGLBadDisplay}};
    for (const auto& [bad, error] : kBad) {
        std::unique_ptr<GLPixelFormat> none;
        EXPECT_EQ(devices_->choosePixelFormat(bad, none), error);
        EXPECT_FALSE(none);
    }
}

}  // namespace
}  // namespace qrl
