#include "qrl/video/x11/DisplayServerX11.h"

#include <gtest/gtest.h>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/egl/GraphicsDevicesEGL.h"
#include "qrl/video/sim/GraphicsDevicesSim.h"
#include "video/x11/X11TestSupport.h"

// Under the thread sanitizer: once a connection is lost, Xlib's recovery
// unlocks its own display lock after tearing it down, inside the call that
// met the loss. That is Xlib's business, not a race of ours.
extern "C" const char* __tsan_default_suppressions() { return "mutex:libX11.so.6\nmutex:libXrandr.so.2\n"; }

namespace qrl {
namespace {

struct Layout {
    const char* name;
    int x, y, w, h;
};
// Four monitors on a 3840 by 2160 screen, A primary (X coordinates, y down).
constexpr Layout kLayout[] = {
    {"A", 0, 0, 1920, 1080}, {"B", 1920, 0, 1920, 1080}, {"C", 0, 1080, 1280, 1024}, {"D", 1280, 1080, 2560, 1080}};

// Bottom-left, y-up points relative to A.
NSRect flipped(int x, int y, int w, int h) { return NSMakeRect(x, 1080 - (y + h), w, h); }

class DisplayServerX11Test : public ::testing::Test {
protected:
    void SetUp() override {
        QRL_REQUIRE_SERVER(xvfb_);
        ASSERT_TRUE(x_.loaded()) << "libX11/libXrandr could not be loaded";
        client_ = std::make_unique<test::XClient>(x_, xvfb_.address());
        ASSERT_TRUE(client_->open());
        const RROutput screen = client_->output("screen");
        for (const Layout& m : kLayout)
            client_->setMonitor(m.name, m.x, m.y, m.w, m.h, m.name[0] == 'A', m.name[0] == 'A' ? screen : 0);
        std::string why;
        server_ = DisplayServerX11::open(xvfb_.address().c_str(), center_,
                                         DisplayServerX11::Options{.watchSleep = false}, &why);
        ASSERT_TRUE(server_) << why;
        renderers_ = GraphicsDevicesEGL::open(&why);
        if (!renderers_) {
            auto sim = std::make_shared<GraphicsDevicesSim>();
            sim->setRenderers({SimRenderer{.rendererID = 1, .displayMask = 1}});
            renderers_ = sim;
        }
        platform_ = std::make_unique<ScopedVideoPlatform>(server_, renderers_);
    }
    void TearDown() override {
        platform_.reset();
        server_.reset();
        client_.reset();
    }

    test::PrivateServer xvfb_ = test::PrivateServer::xvfb("3840x2160x24");
    test::XLib x_;
    std::unique_ptr<test::XClient> client_;
    NotificationCenter center_;
    std::shared_ptr<DisplayServerX11> server_;
    std::shared_ptr<GraphicsDevices> renderers_;
    std::unique_ptr<ScopedVideoPlatform> platform_;
};

TEST_F(DisplayServerX11Test, ProviderListMatchesTheServersMonitors) {
    auto provider = DisplaysProvider::create(center_);
    const auto maps = provider->metadataForAllConnectedDisplays();
    ASSERT_EQ(maps.size(), 4u);
    EXPECT_EQ(server_->mainDisplayID(), client_->atom("A"));
    for (size_t i = 0; i < 4; ++i) {
        const Layout& m = kLayout[i];
        SCOPED_TRACE(m.name);
        EXPECT_EQ(provider->displayIDForMetadata(maps[i]), client_->atom(m.name));  // the name atom, not an index
        EXPECT_EQ(provider->displayRectForDisplayMetadata(maps[i]), flipped(m.x, m.y, m.w, m.h));
        EXPECT_EQ(maps[i]->get("origin.y"), Value(static_cast<int>(flipped(m.x, m.y, m.w, m.h).origin.y)));
        EXPECT_EQ(maps[i]->get("displayMask"), Value(1));  // X screen 0
        EXPECT_EQ(maps[i]->get("canCreateContextOnCard"), Value(true));
    }
    EXPECT_FLOAT_EQ(DisplaysProvider::scaleFactorForDisplay(client_->atom("B")), 1.0f);
    EXPECT_EQ(provider->allScreensFrameOrCapturedArea(), NSMakeRect(0, -1080, 3840, 2160));
}

TEST_F(DisplayServerX11Test, DeletingAMonitorPostsTheChangeWithinTwoSeconds) {
    auto provider = DisplaysProvider::create(center_);
    int posts = 0;
    const auto token = center_.addObserver(kDPNDisplayListChanged, nullptr, [&](const Notification&) { ++posts; });
    const uint64_t batches = server_->changeBatches();
    client_->deleteMonitor("D");
    EXPECT_TRUE(RunLoop::main().runUntil([&] { return posts > 0; }, 2.0));
    center_.removeObserver(token);
    EXPECT_EQ(provider->displayCount(), 3);
    EXPECT_GT(server_->changeBatches(), batches);  // seen as an event, not only by the tick
    uint32_t online = 0;
    EXPECT_EQ(server_->getOnlineDisplayCount(online), kCGErrorSuccess);
    EXPECT_EQ(online, 3u);
}

TEST_F(DisplayServerX11Test, CaptureByOtherClientsWindowsAndTheScreenSaver) {
    const CGDirectDisplayID a = client_->atom("A"), b = client_->atom("B"), c = client_->atom("C");
    EXPECT_FALSE(server_->displayIsCaptured(b));
    // An override-redirect window over all of B.
    const Window cover = client_->window(1920, 0, 1920, 1080, true);
    EXPECT_TRUE(server_->displayIsCaptured(b));
    EXPECT_FALSE(server_->displayIsCaptured(a));
    // ... unless it belongs to this process.
    client_->setProperty(cover, "_NET_WM_PID", XA_CARDINAL, static_cast<unsigned long>(::getpid()));
    EXPECT_FALSE(server_->displayIsCaptured(b));
    client_->setProperty(cover, "_NET_WM_PID", XA_CARDINAL, static_cast<unsigned long>(::getpid()) + 1);
    EXPECT_TRUE(server_->displayIsCaptured(b));
    client_->destroy(cover);
    EXPECT_FALSE(server_->displayIsCaptured(b));
    // Part of the monitor is not enough.
    const Window partial = client_->window(1921, 0, 1919, 1080, true);
    EXPECT_FALSE(server_->displayIsCaptured(b));
    client_->destroy(partial);
    // A managed window counts once it is in the full-screen state.
    const Window normal = client_->window(0, 1080, 1280, 1024, false);
    EXPECT_FALSE(server_->displayIsCaptured(c));
    client_->setProperty(normal, "_NET_WM_STATE", XA_ATOM, client_->atom("_NET_WM_STATE_FULLSCREEN"));
    EXPECT_TRUE(server_->displayIsCaptured(c));
    client_->destroy(normal);

    // The screen saver takes every display; activity ends it.
    client_->screenSaver(ScreenSaverActive);
    EXPECT_TRUE(server_->displayIsCaptured(a));
    server_->updateSystemActivity(kUsrActivity);
    EXPECT_FALSE(server_->displayIsCaptured(a));
    EXPECT_FALSE(server_->displayIsCaptured(12345));  // not a monitor
}

TEST_F(DisplayServerX11Test, PointerInPointsAndWarpsInPixels) {
    EXPECT_EQ(server_->moveCursorToPoint(client_->atom("B"), CGPointMake(10, 20)), kCGErrorSuccess);
    EXPECT_EQ(server_->mouseLocation(), NSMakePoint(1930, 1060));
    EXPECT_EQ(server_->moveCursorToPoint(client_->atom("D"), CGPointMake(0, 1079)), kCGErrorSuccess);
    EXPECT_EQ(server_->mouseLocation(), NSMakePoint(1280, -1079));
    EXPECT_EQ(server_->moveCursorToPoint(77, CGPointMake(0, 0)), kCGErrorIllegalArgument);
    EXPECT_EQ(server_->moveCursorToPoint(client_->atom("A"), CGPointMake(1e12, 0)), kCGErrorIllegalArgument);
    EXPECT_EQ(DisplaysProvider::displayIDForNSPoint(server_->mouseLocation()), client_->atom("D"));
}

TEST(DisplayServerX11Lifetime, LostServerIsReportedNotFatal) {
    auto xvfb = test::PrivateServer::xvfb();
    QRL_REQUIRE_SERVER(xvfb);
    NotificationCenter center;
    std::string why;
    auto server = DisplayServerX11::open(xvfb.address().c_str(), center,
                                         DisplayServerX11::Options{.watchSleep = true, .sleepBusAddress = "unix:path=/nonexistent"},
                                         &why);
    ASSERT_TRUE(server) << why;
    std::vector<CGDirectDisplayID> ids;
    EXPECT_EQ(server->getActiveDisplayList(32, ids), kCGErrorSuccess);
    EXPECT_EQ(ids.size(), 1u);
    xvfb.stop();
    EXPECT_TRUE(RunLoop::main().runUntil([&] { return server->connectionLost(); }, 5.0));
    EXPECT_NE(server->getActiveDisplayList(32, ids), kCGErrorSuccess);
    EXPECT_FALSE(server->displayIsCaptured(1));
    server.reset();  // joins the event thread
}

TEST(DisplayServerX11Lifetime, UnreachableServerGivesAReason) {
    NotificationCenter center;
    std::string why;
    EXPECT_EQ(DisplayServerX11::open(":98765", center, &why), nullptr);
    EXPECT_NE(why.find("cannot open X display"), std::string::npos) << why;
}

}  // namespace
}  // namespace qrl
