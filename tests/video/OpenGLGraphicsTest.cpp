#include "qrl/video/OpenGLGraphics.h"

#include <gtest/gtest.h>

#include "qrl/foundation/Exception.h"
#include "video/VideoTestSupport.h"

namespace qrl {
namespace {

using test::simDisplay;
using test::simRenderer;

class OpenGLGraphicsTest : public test::SimVideoFixture {
protected:
    void SetUp() override {
        OpenGLGraphics::reset();
        displays_->setDisplays({simDisplay(1, NSMakeRect(0, 0, 1440, 900), 1.0f, 1),
                                simDisplay(9, NSMakeRect(1440, 0, 800, 600), 1.0f, 16)});
        renderers_->setRenderers({simRenderer(0x100, 1, true, "Card One"), simRenderer(0x200, 16, false)});
    }
    void TearDown() override { OpenGLGraphics::reset(); }
};

TEST_F(OpenGLGraphicsTest, NoAcceleratedRendererRaisesWithBothScreens) {
    try {
        OpenGLGraphics::setupOpenGLContext(9);
        FAIL() << "expected NoAcceleratedRenderer";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "NoAcceleratedRenderer");
        EXPECT_EQ(e.reason().rfind("Failed to get a pixel format for display 9. Details: {", 0), 0u) << e.reason();
        EXPECT_NE(e.reason().find("Debug info: \r\nWanted display:\r\n  NSScreenNumber = 9\r\n"), std::string::npos);
        EXPECT_NE(e.reason().find("\r\n\r\nMain display:\r\n  NSScreenNumber = 1\r\n"), std::string::npos);
        EXPECT_NE(e.reason().find("matchedToScreen = 1;"), std::string::npos);
    }
    // The full-screen format was asked for with the display's mask.
    EXPECT_TRUE(renderers_->counters().lastAskedFullScreen);
    EXPECT_EQ(renderers_->counters().lastDisplayMask, 16u);
}

TEST_F(OpenGLGraphicsTest, CardNamesAndTheCache) {
    EXPECT_EQ(OpenGLGraphics::cardDescription(1), "Card One");
    EXPECT_EQ(renderers_->counters().contextsCreated, 1);
    EXPECT_EQ(renderers_->counters().contextsAlive, 0);  // the test context is gone again

    // The main display's card is asked once, then cached until reset.
    EXPECT_EQ(OpenGLGraphics::cardDescription(), "Card One");
    EXPECT_EQ(OpenGLGraphics::cardDescription(), "Card One");
    EXPECT_EQ(renderers_->counters().contextsCreated, 2);
    EXPECT_EQ(OpenGLGraphics::cacheValueForKey(kGCardDescription), Value("Card One"));
    OpenGLGraphics::reset();
    EXPECT_EQ(OpenGLGraphics::cacheValueForKey(kGCardDescription), Value());
    EXPECT_EQ(OpenGLGraphics::cardDescription(), "Card One");
    EXPECT_EQ(renderers_->counters().contextsCreated, 3);

    // A context that cannot be made answers "None"; one that names nothing, empty text.
    SimRenderer failing = simRenderer(0x300, 1, true, "x");
    failing.contextFails = true;
    renderers_->setRenderers({failing});
    EXPECT_EQ(OpenGLGraphics::cardDescription(1), "None");
    SimRenderer nameless = simRenderer(0x300, 1);
    nameless.cardName.reset();
    renderers_->setRenderers({nameless});
    EXPECT_EQ(OpenGLGraphics::cardDescription(1), "");
}

}  // namespace
}  // namespace qrl
