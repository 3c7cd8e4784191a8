#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>

#include "qrl/video/DisplaysProvider.h"
#include "qrl/foundation/RectFunctions.h"
#include "qrl/video/ScreenFrameUnion.h"
#include "video/VideoTestSupport.h"

namespace qrl {
namespace {

using test::simDisplay;

TEST(RectFunctions, MultipleOf32) {
    struct Row {
        double in;
        int32_t out;
    } rows[] = {{15.9, 0}, {16, 32}, {-16, -32}, {-15.9, 0}, {100, 96},
                {1e300, INT32_MAX}, {-1e300, INT32_MIN}, {std::numeric_limits<double>::quiet_NaN(), 0}};
    for (const Row& r : rows) EXPECT_EQ(MultipleOf32(r.in), r.out) << r.in;
    // Property: a multiple of 32 within 16 of the value, halves away from zero.
    std::mt19937_64 rng(32);
    std::uniform_real_distribution<double> any(-1e6, 1e6);
    for (int i = 0; i < 20000; ++i) {
        const double v = i % 2 ? any(rng) : 16.0 * static_cast<int>(any(rng) / 1000);  // exact halves too
        const int32_t m = MultipleOf32(v);
        ASSERT_EQ(m % 32, 0) << v;
        ASSERT_LE(std::fabs(m - v), 16.0) << v;
        if (std::fabs(std::fabs(m - v) - 16.0) < 1e-9 && v != 0) {
            ASSERT_GT(std::fabs(m), std::fabs(v)) << v;
        }
    }
    EXPECT_EQ(NSMultipleOf32Rect(NSMakeRect(3.5, 7.5, 100, 100)), NSMakeRect(3.5, 7.5, 96, 96));
    EXPECT_EQ(NSMultipleOf32Point(NSMakePoint(-16, 16)), NSMakePoint(-32, 32));
    EXPECT_EQ(NSMultipleOf32Size(NSMakeSize(15.9, 48)), NSMakeSize(0, 64));
}

class ScreenGeometryTest : public test::SimVideoFixture {
protected:
    void SetUp() override {
        SimDisplay retina = simDisplay(2, NSMakeRect(1440, 0, 1280, 800), 2.0f);
        SimDisplay fractional = simDisplay(3, NSMakeRect(-1000, 0, 1000, 600), 1.5f);
        SimDisplay inactive = simDisplay(4, NSMakeRect(0, 900, 100, 100));
        inactive.active = false;
        displays_->setDisplays({simDisplay(1, NSMakeRect(0, 0, 1440, 900)), retina, fractional, inactive});
    }
    void release(const char* version) { facts_->setProductVersion(std::string(version)); }
};

TEST_F(ScreenGeometryTest, BackingConversionsOnBothReleaseBranches) {
    // "12" (Linux) takes the user-space branch, "10.7" the backing one; both agree here.
    for (const char* version : {"12", "10.7.2"}) {
        release(version);
        const auto retina = DisplaysProvider::screenForDisplayID(2);
        ASSERT_TRUE(retina);
        EXPECT_EQ(DisplaysProvider::convertRectToBacking(NSMakeRect(1540, 100, 10, 10), retina.get()),
                  NSMakeRect(1640, 200, 20, 20))
            << version;
        EXPECT_EQ(DisplaysProvider::convertRectFromBacking(NSMakeRect(1640, 200, 20, 20), retina.get()),
                  NSMakeRect(1540, 100, 10, 10))
            << version;
        EXPECT_EQ(DisplaysProvider::displayBoundsInPixels(3), NSMakeRect(-1000, 0, 1500, 900)) << version;
        EXPECT_EQ(DisplaysProvider::convertPointToBacking(NSMakePoint(3, 4), retina.get()), NSMakePoint(6, 8));
        // Without a screen: found by the origin as it stands.
        EXPECT_EQ(DisplaysProvider::convertFromScreenRectToBackingRect(NSMakeRect(1540, 100, 10, 10)),
                  NSMakeRect(1640, 200, 20, 20));
        EXPECT_EQ(DisplaysProvider::convertFromBackingRectToScreenRect(NSMakeRect(1640, 200, 20, 20)),
                  NSMakeRect(1540, 100, 10, 10));
    }
    // Where the screens disagree with their user-space factor, the branch shows.
    displays_->updateDisplay(2, [](SimDisplay& d) { d.userSpaceScale = 1.0f; });
    release("12");
    EXPECT_FLOAT_EQ(DisplaysProvider::scaleFactorForDisplay(2), 1.0f);
    release("10.8");
    EXPECT_FLOAT_EQ(DisplaysProvider::scaleFactorForDisplay(2), 2.0f);
}

TEST_F(ScreenGeometryTest, PointsOnTheRightOrTopEdgeBelongToNoScreen) {
    EXPECT_EQ(DisplaysProvider::displayIDForNSPoint(NSMakePoint(1439.5, 10)), 1u);
    EXPECT_EQ(DisplaysProvider::displayIDForNSPoint(NSMakePoint(1440, 10)), 2u);
    EXPECT_EQ(DisplaysProvider::displayIDForNSPoint(NSMakePoint(2720, 10)), 1u);  // right edge: main display
    EXPECT_EQ(DisplaysProvider::displayIDForNSPoint(NSMakePoint(50, 900)), 1u);    // top edge of 1, inside inactive 4
    EXPECT_EQ(screenUnderPoint(NSMakePoint(2720, 10))->details().displayID, 1u);  // main screen
    EXPECT_EQ(screenUnderPoint(NSMakePoint(-1, 0))->details().displayID, 3u);
    EXPECT_EQ(screenContainingRect(NSMakeRect(1400, 0, 100, 100))->details().displayID, 2u);
    displays_->setMouseLocation(NSMakePoint(-500, 10));
    EXPECT_EQ(screenUnderMouse()->details().displayID, 3u);
    EXPECT_EQ(allScreensFrame(), NSMakeRect(-1000, 0, 3720, 1000));
    EXPECT_EQ(QRLFlipFromCocoaToQuartzCoords(NSMakePoint(7, 100)), NSMakePoint(7, 800));
    EXPECT_EQ(directDisplayID(*screenForCGDirectDisplayID(3)), 3u);
    EXPECT_EQ(screenForCGDirectDisplayID(77), nullptr);

    displays_->setDisplays({});
    EXPECT_EQ(allScreensFrame(), NSZeroRect);
    EXPECT_EQ(screenUnderPoint(NSZeroPoint), nullptr);
    EXPECT_EQ(QRLFlipFromCocoaToQuartzCoords(NSMakePoint(7, 100)), NSMakePoint(7, -100));
}

TEST_F(ScreenGeometryTest, ConstrainingRectangles) {
    const auto screen = screenForCGDirectDisplayID(1);
    const NSRect bounds = NSMakeRect(0, 0, 100, 100);
    EXPECT_EQ(constrainRect(*screen, NSMakeRect(10, 10, 20, 20), bounds), NSMakeRect(10, 10, 20, 20));
    EXPECT_EQ(constrainRect(*screen, NSMakeRect(90, -5, 20, 20), bounds), NSMakeRect(80, 0, 20, 20));
    EXPECT_EQ(constrainRect(*screen, NSMakeRect(-50, 50, 200, 200), bounds), bounds);
    EXPECT_EQ(constrainRect(*screen, NSMakeRect(1400, 850, 100, 100)), NSMakeRect(1340, 800, 100, 100));
    EXPECT_EQ(constrainRelativeRect(*screenForCGDirectDisplayID(2), NSMakeRect(1500, 0, 10, 10)),
              NSMakeRect(1270, 0, 10, 10));
    EXPECT_EQ(constrainRect(NSMakeRect(5000, 5000, 10, 10), 77), NSMakeRect(5000, 5000, 10, 10));
    // Property: whenever the rectangle fits, the answer lies inside and keeps the size.
    std::mt19937 rng(7);
    std::uniform_real_distribution<double> pos(-500, 500), size(1, 100);
    for (int i = 0; i < 5000; ++i) {
        const NSRect r = NSMakeRect(pos(rng), pos(rng), size(rng), size(rng));
        const NSRect out = constrainRect(*screen, r, bounds);
        ASSERT_EQ(out.size, r.size);
        ASSERT_GE(out.origin.x, 0);
        ASSERT_GE(out.origin.y, 0);
        ASSERT_LE(NSMaxX(out), 100 + 1e-9);
        ASSERT_LE(NSMaxY(out), 100 + 1e-9);
    }
}

}  // namespace
}  // namespace qrl
