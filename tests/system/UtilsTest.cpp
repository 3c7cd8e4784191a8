#include "qrl/system/Utils.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <random>
#include <thread>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/Identification.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/DisplaysScreenEnvironment.h"
#include "qrl/foundation/RectFunctions.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/sim/DisplayServerSim.h"
#include "qrl/video/sim/GraphicsDevicesSim.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using PlatformLines = test::CapturedPlatformLog;

TEST(Utils, FittingAndCentring) {
    EXPECT_EQ(Utils::centerSizeWithinRect(NSMakeSize(100, 100), CGRectMake(0, 0, 200, 100)), CGRectMake(50, 0, 100, 100));
    double factor = -1;
    EXPECT_EQ(Utils::center(NSMakeSize(50, 50), CGRectMake(10, 10, 100, 100), &factor), CGRectMake(25, 25, 50, 50));
    EXPECT_EQ(factor, 1.0);
    EXPECT_EQ(Utils::center(NSMakeSize(200, 100), CGRectMake(0, 0, 100, 100), &factor), CGRectMake(0, 25, 100, 50));
    EXPECT_EQ(factor, 0.5);
    EXPECT_EQ(Utils::center(NSMakeSize(51, 51), CGRectMake(0, 0, 100, 100), nullptr), CGRectMake(24, 24, 51, 51));
    // Property: a fit keeps the size's shape, stays inside the rectangle and touches two opposite sides.
    std::mt19937 rng(11);
    std::uniform_real_distribution<double> dim(1, 4000), pos(-2000, 2000);
    for (int i = 0; i < 5000; ++i) {
        const CGSize s = NSMakeSize(dim(rng), dim(rng));
        const CGRect r = CGRectMake(pos(rng), pos(rng), dim(rng), dim(rng));
        const CGRect f = Utils::centerSizeWithinRect(s, r);
        const double tol = 1e-3 * std::max(r.size.width, r.size.height);
        ASSERT_NEAR(f.size.width / f.size.height, s.width / s.height, 1e-3 * s.width / s.height);
        ASSERT_GE(f.origin.x, r.origin.x - tol);
        ASSERT_GE(f.origin.y, r.origin.y - tol);
        ASSERT_LE(NSMaxX(f), NSMaxX(r) + tol);
        ASSERT_LE(NSMaxY(f), NSMaxY(r) + tol);
        ASSERT_TRUE(std::fabs(f.size.width - r.size.width) < tol || std::fabs(f.size.height - r.size.height) < tol);
        ASSERT_NEAR(NSCenterOfRect(f).x, NSCenterOfRect(r).x, tol);
        ASSERT_NEAR(NSCenterOfRect(f).y, NSCenterOfRect(r).y, tol);
    }
}

struct FakeView : CoordinateView {
    NSRect convertRectToWindow(const NSRect& r) const override { return NSMakeRect(r.origin.x + 0.25, r.origin.y + 0.75, r.size.width, r.size.height); }
    NSRect convertRectFromWindow(const NSRect& r) const override { return NSMakeRect(r.origin.x - 0.25, r.origin.y - 0.75, r.size.width, r.size.height); }
};

class UtilsOnScreens : public ::testing::Test {
protected:
    UtilsOnScreens()
        : displays_(std::make_shared<DisplayServerSim>(center_)),
          renderers_(std::make_shared<GraphicsDevicesSim>()),
          platform_(displays_, renderers_) {
        SimDisplay a;
        a.id = 1;
        a.frame = NSMakeRect(0, 0, 1000, 800);
        a.userSpaceScale = 2.0f;
        SimDisplay b;
        b.id = 2;
        b.frame = NSMakeRect(-500, 100, 500, 400);
        displays_->setDisplays({a, b});
    }
    NotificationCenter center_;
    test::ScopedSimulatedClock clock_;
    std::shared_ptr<DisplayServerSim> displays_;
    std::shared_ptr<GraphicsDevicesSim> renderers_;
    ScopedVideoPlatform platform_;
};

TEST_F(UtilsOnScreens, RectanglesAroundPointsAndThePointer) {
    // The union is 1500 by 800; its origin does not come into it.
    EXPECT_EQ(Utils::centreAroundScreenPoint(CGRectMake(0, 0, 200, 100), CGPointMake(1490, 790)), CGRectMake(1300, 700, 200, 100));
    EXPECT_EQ(Utils::centreAroundScreenPoint(CGRectMake(0, 0, 200, 100), CGPointMake(-400, 20)), CGRectMake(0, 0, 200, 100));
    EXPECT_EQ(Utils::centreAroundScreenPoint(CGRectMake(9, 9, 201, 101), CGPointMake(500.9, 400)), CGRectMake(400, 349, 201, 101));
    displays_->setMouseLocation(NSMakePoint(100.3, 50));
    EXPECT_EQ(Utils::getScaledRect(CGRectMake(77, 77, 101.9, 50), 2.0f), CGRectMake(75, 37, 50, 25));
    FakeView view;
    EXPECT_EQ(Utils::integralizeAndFloorForView(CGRectMake(1.5, 1.5, 10.5, 10.5), &view), CGRectMake(0.75, 1.25, 10, 10));
    EXPECT_EQ(Utils::integralizeForView(CGRectMake(1.5, 1.5, 10.5, 10.5), &view), CGRectMake(0.75, 1.25, 12, 11));
    EXPECT_EQ(Utils::integralizeForView(CGRectMake(1, 1, 1, 1), nullptr), NSZeroRect);
    EXPECT_EQ(Utils::integralizeAndFloorForView(CGRectMake(1, 1, 1, 1), nullptr), NSZeroRect);
    EXPECT_EQ(Utils::scaleFactor(NSScreen::screens()[0].get()), 2.0f);
    EXPECT_EQ(Utils::scaleFactor(nullptr), 1.0f);
}

TEST_F(UtilsOnScreens, WakingASleepingDisplay) {
    renderers_->setRenderers({});  // asleep: no renderer answers yet
    auto provider = DisplaysProvider::create(center_);
    PlatformLines log;
    const uint64_t t0 = clock_.clock().now();
    int activity = 0;
    displays_->setSystemActivityHook([&](uint8_t) {
        if (++activity == 4) {  // second pass: the display wakes and says so
            SimRenderer r;
            r.rendererID = 5;
            renderers_->setRenderers({r});
            displays_->postScreenParametersChanged();
        }
    });
    // The waiting sleeps on the simulated clock, which only this thread moves.
    std::atomic<bool> woken{false};
    std::thread waker([&] {
        DisplaysScreenEnvironment screens(provider);
        Utils::wakeUpIfASleep(screens);
        woken = true;
    });
    EXPECT_TRUE(clock_.wakeSleepersUntil([&] { return woken.load(); }));
    waker.join();
    EXPECT_EQ(log.count("Waiting for display to wake up..."), 2u);
    EXPECT_EQ(clock_.clock().now() - t0, static_cast<uint64_t>(2 * 24'000'000));

    // With a card there is nothing to do.
    { DisplaysScreenEnvironment screens(provider); Utils::wakeUpIfASleep(screens); }
    EXPECT_EQ(log.count("Card count is 1. Not bothering to wake displays..."), 1u);
}

TEST(Identification, BundleFacts) {
    const auto saved = Bundle::main();
    Bundle b;
    b.name = "Tessara";
    b.executablePath = "/opt/tessara/bin/tessara-recorder";
    Bundle::setMain(b);
    EXPECT_EQ(applicationName(), "tessara-recorder");
    EXPECT_EQ(appNameByBundle(), "Tessara");
    b.info->set("CFBundleName", Value("Tessara Beta"));
    b.info->set("CFBundleExecutable", Value("tb"));
    Bundle::setMain(b);
    EXPECT_EQ(appNameByBundle(), "Tessara Beta");
    EXPECT_EQ(applicationName(), "tb");

    {
        test::ScopedEnvironmentVariable xdg("XDG_DATA_HOME", "/data/home/"), home("HOME", "/home/someone");
        EXPECT_EQ(applicationSupportFolder(), "/data/home/Tessara Beta");
        test::ScopedEnvironmentVariable relative("XDG_DATA_HOME", "relative");  // not absolute: ignored
        EXPECT_EQ(applicationSupportFolder(), "/home/someone/.local/share/Tessara Beta");
    }
    Bundle::setMain(*saved);
}

}  // namespace
}  // namespace qrl
