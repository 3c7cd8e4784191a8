#include "qrl/video/OpenGLContextManager.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <chrono>
#include <thread>

#include "qrl/video/TextureManager.h"
#include "qrl/video/gl/FragmentShader.h"
#include "qrl/video/gl/FrameBuffer.h"
#include "qrl/video/gl/Texture.h"
#include "video/GLTestSupport.h"

namespace qrl {
namespace {

using test::expectRaise;
using test::kRenderer;

class OpenGLContextManagerTest : public test::SimGLFixture {};

TEST_F(OpenGLContextManagerTest, OneContextPerDisplayInOneShareGroup) {
    auto& m = manager();
    ASSERT_TRUE(m.valid());
    ASSERT_EQ(m.numberOfContexts(), 2);
    EXPECT_EQ(m.rendererID(), Value(kRenderer));
    EXPECT_EQ(sim(0).shareGroup(), sim(1).shareGroup());
    EXPECT_TRUE(sim(0).isEnabled(GL_TEXTURE_RECTANGLE_EXT));
    EXPECT_TRUE(sim(1).isEnabled(GL_TEXTURE_RECTANGLE_EXT));
    EXPECT_TRUE(renderers_->counters().lastAskedFullScreen);
    ASSERT_NE(m.textureManager(), nullptr);
    EXPECT_EQ(m.textureManager()->contextManager().get(), &m);
    // The maps of the provider's cache carry the serving context's index.
    const auto maps = provider_->metadataForAllConnectedDisplays();
    EXPECT_EQ(maps[0]->get(kSGAssociatedOpenGLContext), Value(0));
    EXPECT_EQ(maps[1]->get(kSGAssociatedOpenGLContext), Value(1));
    EXPECT_EQ(m.description(), "ContextMgr with 2 contexts, config: [2 screen(s), 1: 1440 x 900, 2: 1280 x 1024]");
    EXPECT_EQ(log_->count("Using configuration [2 screen(s), 1: 1440 x 900, 2: 1280 x 1024]"), 1);
    EXPECT_EQ(log_->countStartingWith("Created NSGL context for display {"), 2);

    auto windowed = OpenGLContextManager::contextManagerForRenderer(Value(kRenderer), false, provider_);
    EXPECT_FALSE(renderers_->counters().lastAskedFullScreen);
    windowed->cleanUp();
}

TEST_F(OpenGLContextManagerTest, IndexSemanticsAndTheirTexts) {
    auto& m = manager();
    expectRaise([&] { m.setCurrentContext(-1); }, "InvalidContext",
                "Cannot get context at index -1. Index not in range 0-1");
    expectRaise([&] { m.lockContext(5); }, "InvalidContext", "Cannot lock context at index 5. Index not in range 0-1");
    expectRaise([&] { m.unlockContextAtIndex(-1); }, "InvalidContext",
                "Cannot unlock context at index -1. Index not in range [0 - 1]");

    ASSERT_EQ(m.setCurrentContext(1), kCGLNoError);
    EXPECT_EQ(GLContext::current(), &sim(1));
    EXPECT_EQ(m.displayIDForCurrentContext(), 2u);
    EXPECT_EQ(m.makeContextCurrent(-1), 10006);
    EXPECT_EQ(m.currentNSOpenGLContext(), nullptr);
    EXPECT_EQ(m.lockCurrentContext(), nullptr);
    EXPECT_EQ(m.displayIDForCurrentContext(), 1u);  // none selected: the main display

    // Past either end of the configuration: the main display.
    constexpr std::pair<int32_t, CGDirectDisplayID> kDisplayOfIndex[] = {{-1, 1}, {0, 1}, {1, 2}, {2, 1}};
    for (const auto& [index, id] : kDisplayOfIndex) EXPECT_EQ(m.displayIDForContextIndex(index), id) << index;

    SimGLContext stranger(SimRenderer{}, nullptr);
    EXPECT_EQ(m.getIndexOfContext(&stranger), -1);
    EXPECT_EQ(m.getIndexOfContext(&sim(1)), 1);

    m.cleanUp();
    EXPECT_EQ(m.setCurrentContext(0), 10006);
    EXPECT_EQ(m.makeContextCurrent(0), 10006);
    EXPECT_EQ(m.getContext(0), nullptr);
}

TEST_F(OpenGLContextManagerTest, MaximumCaptureTextureSizeIsCappedAt4096) {
    struct Case {
        GLint reported;
        double expected;
    };
    // Whatever the size of the desktop (2720 x 1024 here).
    for (const Case c : {Case{8192, 4096}, Case{16384, 4096}, Case{4097, 4096}, Case{4096, 4096}, Case{2048, 2048},
                         Case{100, 100}}) {
        useRenderer([&](SimRenderer& r) { r.maxRectangleTextureSize = c.reported; });
        auto m = OpenGLContextManager::contextManagerForRenderer(Value(kRenderer), provider_);
        EXPECT_EQ(m->maximumTextureSize(), NSMakeSize(c.expected, c.expected)) << c.reported;
        EXPECT_EQ(m->textureManager()->maxTextureSize(), m->maximumTextureSize());
        m->cleanUp();
    }
    EXPECT_EQ(log_->count("OpenGL reports GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT as 8192"), 1);
    EXPECT_EQ(log_->count("Maximum capturable area is {{0, 0}, {2720, 1024}}"), 6);
    EXPECT_EQ(log_->count("Maximum texture size set to {4096, 4096}"), 4);

    manager().setMaximumCaptureTextureSize(nullptr);
    EXPECT_EQ(manager().maximumTextureSize(), NSMakeSize(2048, 2048));
    EXPECT_EQ(log_->count("** Context was nil. Will assume a maximum texture size of 2048x2048", kLogFlagError), 1);
}

TEST_F(OpenGLContextManagerTest, TeardownRunsShadersFrameBuffersTexturesThenContexts) {
    auto& m = selected(0);
    auto shader = m.createNewFragmentShaderFromSource("void main() { gl_FragColor = vec4(1.0); }");
    auto frameBuffer = m.allocateFrameBuffer();
    auto texture = m.textureManager()->allocateNewVRAMTexture(NSMakeSize(16, 16), false);
    ASSERT_TRUE(texture->valid());
    std::weak_ptr<GLContext> first = m.nsOpenGLContextAtIndex(0);
    std::weak_ptr<GLContext> second = m.nsOpenGLContextAtIndex(1);
    SimGLContext& c = sim(0);
    c.clearJournal();
    struct Callback : ContextManagerCleanupCallback {
        int calls = 0;
        void contextManagerHasCleanedUp(ContextManager*) override { ++calls; }
    };
    auto callback = std::make_shared<Callback>();
    m.setCleanupCallback(callback);

    m.cleanUp();
    // The order is seen only in the calls made.
    const auto journal = c.journal();
    const auto at = [&](const std::string& call) {
        return std::find_if(journal.begin(), journal.end(), [&](const std::string& e) { return e.rfind(call, 0) == 0; });
    };
    ASSERT_NE(at("glDeleteTextures"), journal.end());
    EXPECT_LT(at("glDeleteObjectARB"), at("glDeleteFramebuffersEXT"));
    EXPECT_LT(at("glDeleteFramebuffersEXT"), at("glDeleteTextures"));
    EXPECT_EQ(c.objectCount(), 1u);  // the shader object stays: only the program is released
    EXPECT_EQ(c.textureCount(), 0u);
    EXPECT_FALSE(m.valid());
    EXPECT_EQ(m.numberOfContexts(), 0);
    EXPECT_EQ(m.textureManager(), nullptr);
    EXPECT_FALSE(texture->valid());
    EXPECT_EQ(frameBuffer->frameBuffer(), 0u);
    // A texture holds its owning context: the contexts go with their last holder.
    EXPECT_FALSE(first.expired());
    EXPECT_TRUE(second.expired());
    texture.reset();
    EXPECT_TRUE(first.expired());
    EXPECT_EQ(renderers_->counters().contextsAlive, 0);

    m.cleanUp();  // twice: nothing more happens
    EXPECT_EQ(callback->calls, 0);
    manager_.reset();  // the last holder: the callback hears of it once
    EXPECT_EQ(callback->calls, 1);
}

TEST_F(OpenGLContextManagerTest, SignificantChangeIsSizeOrCountNotPosition) {
    auto& m = manager();
    EXPECT_FALSE(m.hasSignificantChangeInRenderer(Value(kRenderer)));
    displays_->updateDisplay(2, [](SimDisplay& d) { d.frame.origin = NSMakePoint(-1280, 200); });
    provider_->refreshCachedDisplays();
    EXPECT_FALSE(m.hasSignificantChangeInRenderer(Value(kRenderer)));
    displays_->updateDisplay(2, [](SimDisplay& d) { d.frame.size = NSMakeSize(1920, 1080); });
    provider_->refreshCachedDisplays();
    EXPECT_TRUE(m.hasSignificantChangeInRenderer(Value(kRenderer)));
    displays_->removeDisplay(2);
    provider_->refreshCachedDisplays();
    EXPECT_TRUE(m.hasSignificantChangeInRenderer(Value(kRenderer)));
    EXPECT_TRUE(m.hasSignificantChangeInRenderer(Value(0x77)));  // a renderer with no displays

    // Around a foreign context: no renderer, no summary, never a change.
    auto foreign = std::shared_ptr<GLContext>(renderers_->createContext(
        *renderers_->pixelFormatForRenderer(kRenderer, std::array<int32_t, 3>{kCGLPFADisplayMask, 1, 0}), nullptr));
    auto around = OpenGLContextManager::contextManagerForNSOpenGLContext(foreign);
    EXPECT_EQ(around->configurationSummary({}), "No summary - not initialized with a rendererID");
    EXPECT_FALSE(around->hasSignificantChangeInRenderer(Value(kRenderer)));
    EXPECT_EQ(around->numberOfContexts(), 1);
    EXPECT_TRUE(around->rendererID().isNull());
    EXPECT_FALSE(dynamic_cast<SimGLContext&>(*foreign).isEnabled(GL_TEXTURE_RECTANGLE_EXT));  // no GL state changed
    around->cleanUp();
}

TEST_F(OpenGLContextManagerTest, ConstructionFailuresRaiseAndLeaveNothingBehind) {
    expectRaise([&] { OpenGLContextManager::contextManagerForRenderer(Value(0x77), provider_); }, "Grabber",
                "Unable to initialize, no active displays on renderer 119");
    expectRaise([] { OpenGLContextManager::contextManagerForNSOpenGLContext(nullptr); }, "NoCurrentNSOpenGLContext",
                "To use this method, you must have a current NSOpenGLContext");
    useRenderer([](SimRenderer& r) { r.contextFails = true; });
    try {
        OpenGLContextManager::contextManagerForRenderer(Value(kRenderer), provider_);
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "OpenGL");
        EXPECT_EQ(e.reason().rfind("Unable to create a GL context for display {", 0), 0u) << e.reason();
    }
    EXPECT_EQ(renderers_->counters().contextsAlive, 0);
}

TEST_F(OpenGLContextManagerTest, CheckOpenGLErrorFillsTheCallersTextWithTheCode) {
    auto& m = selected(0);
    GLContext* c = &sim(0);
    EXPECT_NO_THROW(m.checkOpenGLError("nothing to see, %ld", nullptr));
    EXPECT_NO_THROW(m.checkOpenGLError("no error, %ld", c));
    sim(0).pushError(GL_INVALID_OPERATION);
    expectRaise([&] { m.checkOpenGLError("Unable to create a on-GPU texture, %ld", c); }, "OpenGLError",
                "Unable to create a on-GPU texture, 1282, OpenGL Error: 1282");
    // A text filled in beforehand keeps its own percent signs.
    sim(0).pushError(GL_OUT_OF_MEMORY);
    sim(0).pushError(GL_INVALID_VALUE);
    expectRaise([&] { m.checkOpenGLError(escapeFormatText("100% of texture:3"), c); }, "OpenGLError",
                "100% of texture:3, OpenGL Error: 1285");
    // One read per check: the second error waits for the next one.
    expectRaise([&] { m.checkOpenGLError("Cannot create shader object"); }, "OpenGLError",
                "Cannot create shader object, OpenGL Error: 1281");
    EXPECT_EQ(c->lockDepth(), 0);
}

TEST_F(OpenGLContextManagerTest, LeakReportWaitsForOwnerAndTextureManager) {
    manager();
    auto extra = manager_;  // a third holder, as a leaked reference would be
    manager_->beginReportingLeakedResources();
    // The report sleeps 3 s between looks on the simulated clock: it waits
    // for the clock, which moves only to its wake-up times.
    const auto waitUntil = [&](const std::function<bool()>& done) { return clock_.wakeSleepersUntil(done); };
    const auto waitFor = [&](const std::string& prefix) {
        return waitUntil([&] { return log_->countStartingWith(prefix) > 0; });
    };
    ASSERT_TRUE(waitFor("Stage: Owner+TexMgr, ContextMgr with 2 contexts"));
    EXPECT_GE(log_->countStartingWith("Stage: Owner+TexMgr, ContextMgr with 2 contexts, config: [2 screen(s), 1: 1440 x "
                                      "900, 2: 1280 x 1024] has a retain count of 3. 0 textures, 0 FBOs"),
              1);
    extra.reset();
    ASSERT_TRUE(waitFor("Neat. ContextMgr with 2 contexts"));
    EXPECT_TRUE(waitUntil([&] { return !manager_->valid(); }));
    EXPECT_EQ(manager_->textureManager(), nullptr);  // let go: the owner is the last holder
    std::weak_ptr<OpenGLContextManager> weak = manager_;
    waitUntil([&] { return weak.use_count() == 1; });
    manager_.reset();
    EXPECT_TRUE(weak.expired());
}

}  // namespace
}  // namespace qrl
