#include "qrl/video/DisplaysProvider.h"

#include <gtest/gtest.h>

#include <chrono>
#include <latch>
#include <thread>

#include "qrl/foundation/RunLoop.h"
#include "video/VideoTestSupport.h"

namespace qrl {
namespace {

using test::simDisplay;
using test::simRenderer;

constexpr double kFrequency = 24'000'000.0;

class DisplaysProviderTest : public test::SimVideoFixture {
protected:
    // Times (seconds since the recorder was made) of each kDPNDisplayListChanged.
    struct Posts {
        explicit Posts(DisplaysProviderTest& t) : test(t), start(t.clock_.clock().now()) {
            token = t.center_.addObserver(kDPNDisplayListChanged, nullptr, [this](const Notification&) {
                times.push_back(static_cast<double>(test.clock_.clock().now() - start) / kFrequency);
            });
        }
        ~Posts() { test.center_.removeObserver(token); }
        DisplaysProviderTest& test;
        uint64_t start;
        NotificationCenter::Token token = 0;
        std::vector<double> times;
    };

    // A provider over these displays and renderers.
    std::shared_ptr<DisplaysProvider> make(std::vector<SimDisplay> displays, std::vector<SimRenderer> renderers) {
        displays_->setDisplays(std::move(displays));
        renderers_->setRenderers(std::move(renderers));
        return DisplaysProvider::create(center_);
    }
    // Two plain displays on one accelerated renderer.
    std::shared_ptr<DisplaysProvider> twoDisplays() {
        return make({simDisplay(1, NSMakeRect(0, 0, 1440, 900)), simDisplay(2, NSMakeRect(1440, 0, 1280, 1024))},
                    {simRenderer(0x1000, 1)});
    }
    void run(double seconds) { RunLoop::main().runFor(seconds); }
};

TEST_F(DisplaysProviderTest, BuildOnAMixedPlatform) {
    SimDisplay retina = simDisplay(2, NSMakeRect(1440, 100, 1280, 800), 2.0f, 2);
    SimDisplay large = simDisplay(0x80000005u, NSMakeRect(-1024, 0, 1024, 768), 1.5f, 1);
    SimDisplay noScreen = simDisplay(4, NSMakeRect(0, 0, 800, 600));
    noScreen.hasScreen = false;
    SimDisplay softwareOnly = simDisplay(5, NSMakeRect(2720, 0, 640, 480), 1.0f, 4);
    SimDisplay cardFails = simDisplay(6, NSMakeRect(0, 900, 800, 600), 1.0f, 8);
    SimRenderer nameless = simRenderer(0x3000, 8);
    nameless.cardName.reset();
    auto provider = make({simDisplay(1, NSMakeRect(0, 0, 1440, 900)), retina, large, noScreen, softwareOnly, cardFails},
                         {simRenderer(0x1000, 1 | 2, true, "Acme GX OpenGL Engine"), simRenderer(0x2000, 4, false),
                          nameless, simRenderer(0x4000, 1, false)});
    const auto maps = provider->metadataForAllConnectedDisplays();
    ASSERT_EQ(maps.size(), 4u);
    std::vector<CGDirectDisplayID> ids;
    for (const auto& m : maps) ids.push_back(provider->displayIDForMetadata(m));
    EXPECT_EQ(ids, (std::vector<CGDirectDisplayID>{1, 2, 0x80000005u, 6}));

    // A 2.0 display at a non-zero origin: size in pixels, origin in points.
    const auto& b = *maps[1];
    EXPECT_EQ(b.get("width"), Value(2560));
    EXPECT_EQ(b.get("height"), Value(1600));
    EXPECT_EQ(b.get("origin.y"), Value(100));
    EXPECT_EQ(rectValue(b.get("frame")), NSMakeRect(1440, 100, 1280, 800));
    EXPECT_EQ(b.get("card"), Value("Acme GX OpenGL Engine"));
    EXPECT_EQ(b.get("canCreateContextOnCard"), Value(true));
    // Only the accelerated renderer of the mask is listed.
    const auto renderers = b.get("renderers").asArray();
    ASSERT_TRUE(renderers);
    ASSERT_EQ(renderers->size(), 1u);
    EXPECT_EQ((*renderers)[0]["rendererID"], Value(0x1000));

    // An ID above 2^31 is boxed as a negative 32-bit number; 1.5 gives fractional pixels, truncated.
    const auto& c = *maps[2];
    EXPECT_EQ(c.get("displayID"), Value(static_cast<int32_t>(0x80000005u)));
    EXPECT_EQ(c.get("width"), Value(1536));
    EXPECT_EQ(c.get("height"), Value(1152));
    EXPECT_EQ(provider->stateForDisplayWithID(Value(static_cast<int32_t>(0x80000005u))), maps[2]);

    // A renderer that names nothing gives empty text, not a failure.
    EXPECT_EQ(maps[3]->get("card"), Value(""));
    EXPECT_EQ(maps[3]->get("canCreateContextOnCard"), Value(true));

    // The unmatched display is dropped with its warning; the software-only one silently.
    EXPECT_EQ(log_->count("Error getting information for display 4, couldn't match it to a known screen device",
                          kLogFlagWarning),
              1);
    EXPECT_EQ(log_->countStartingWith("Error getting information for display 5"), 0);
    EXPECT_EQ(log_->count("Bounds for display 1 is {{1440, 100}, {2560, 1600}}", kLogFlagVerbose), 1);

    // Lookups over the list.
    const auto cards = provider->graphicsCardsByRenderID();
    ASSERT_EQ(cards.size(), 2u);
    EXPECT_EQ(cards[0]->get("name"), Value("Acme GX"));
    EXPECT_EQ(cards[1]->get("name"), Value(""));
    EXPECT_EQ(provider->firstGraphicsCardRendererID(), Value(0x1000));
    EXPECT_EQ(provider->cardNameForRendererID(Value(0x1000)), "Acme GX");
    EXPECT_EQ(provider->cardNameForRendererID(Value(0x9999)), "Unknown");
    EXPECT_EQ(provider->activeDisplaysOnRenderer(Value(0x1000)).size(), 3u);
    EXPECT_EQ(provider->rendererForDisplayID(2), Value(0x1000));
    // Looked up as a positive 64-bit number: never found.
    test::expectRaise([&] { provider->rendererForDisplayID(0x80000005u); }, "NoState",
                      "Can't find anything for display ID: 2147483653");
    const auto menu = provider->displaysByDisplayID();
    ASSERT_EQ(menu.size(), 4u);
    EXPECT_EQ(menu[1]->get("name"), Value("Display 2, 1280 x 800"));
    EXPECT_EQ(provider->allScreensFrameOrCapturedArea(), NSMakeRect(-1024, 0, 3744, 1500));
    EXPECT_EQ(provider->mainDisplay(), NSMakeRect(0, 0, 1440, 900));

    // A card that cannot be asked keeps its display, with the localized text.
    renderers_->failChoosePixelFormat(kCGLBadPixelFormat);
    provider->refreshCachedDisplays();
    const auto failed = provider->metadataForAllConnectedDisplays();
    ASSERT_EQ(failed.size(), 4u);
    EXPECT_EQ(failed[3]->get("card"), Value("Unable to get graphics card name"));
    EXPECT_EQ(failed[3]->get("canCreateContextOnCard"), Value(false));
}

TEST_F(DisplaysProviderTest, MoreThanThirtyTwoDisplaysAreCutAndRefreshEveryTick) {
    std::vector<SimDisplay> many;
    for (CGDirectDisplayID id = 1; id <= 40; ++id) many.push_back(simDisplay(id, NSMakeRect(id * 100.0, 0, 100, 100)));
    auto provider = make(many, {simRenderer(7, 1)});
    EXPECT_EQ(provider->displayCount(), 32);
    EXPECT_EQ(provider->displayIDForMetadata(provider->metadataForAllConnectedDisplays().back()), 32u);
    Posts posts(*this);
    run(3.0);
    EXPECT_EQ(posts.times, (std::vector<double>{1.0, 2.0, 3.0}));
    EXPECT_EQ(log_->count("Screen count changed from 32 to 40, refreshing displays", kLogFlagInfo), 3);
}

TEST_F(DisplaysProviderTest, NoAcceleratedRendererGivesAnEmptyListAndATickThatRefreshesEachTime) {
    auto provider = make({simDisplay(1, NSMakeRect(0, 0, 800, 600))}, {simRenderer(1, 1, false)});
    EXPECT_TRUE(provider->metadataForAllConnectedDisplays().empty());
    EXPECT_EQ(provider->displayCount(), 0);
    EXPECT_EQ(provider->firstGraphicsCardRendererID(), Value());
    Posts posts(*this);
    run(2.0);
    EXPECT_EQ(posts.times.size(), 2u);
}

TEST_F(DisplaysProviderTest, CaptureChangeRefreshesOnceAfterTheSettleDelay) {
    auto provider = twoDisplays();
    ASSERT_TRUE(provider->monitorDisplayIDForCapture(2));
    EXPECT_FALSE(provider->captured());
    Posts posts(*this);
    displays_->setCaptured(2, true);
    run(5.0);
    // At the tick the size check sees the first captured bounds (a refresh at
    // once); the state change adds exactly one more, 0.2 s later.
    ASSERT_EQ(posts.times.size(), 2u);
    EXPECT_DOUBLE_EQ(posts.times[0], 1.0);
    EXPECT_NEAR(posts.times[1], 1.2, 1e-6);
    EXPECT_EQ(log_->count("Resolution change - refreshing displays"), 1);
    EXPECT_EQ(log_->count("Capture state changed (was 0, now 1), refreshing displays"), 1);
    EXPECT_EQ(log_->count("Display ID 2 now captured", kLogFlagVerbose) > 0, true);
    EXPECT_EQ(provider->capturedRect(), NSMakeRect(1440, 0, 1280, 1024));
    EXPECT_EQ(provider->allScreensFrameOrCapturedArea(), NSMakeRect(1440, 0, 1280, 1024));
}

TEST_F(DisplaysProviderTest, FractionalCapturedSizeCountsAsAChangeOnEveryLook) {
    auto provider = make({simDisplay(1, NSMakeRect(0, 0, 1001, 801), 1.5f)}, {simRenderer(1, 1)});
    provider->monitorMainDisplayForCapture();
    displays_->setCaptured(1, true);
    run(1.5);
    log_->clear();
    Posts posts(*this);
    run(3.0);
    // 1501.5 stored, 1501 compared: every tick refreshes, and the look inside
    // that refresh sees the same difference and is turned away by the guard.
    EXPECT_EQ(posts.times, (std::vector<double>{0.5, 1.5, 2.5}));
    EXPECT_EQ(log_->count("Resolution change - refreshing displays"), 6);
    EXPECT_EQ(log_->count("Refresh already in progress, ignoring..."), 3);
}

TEST_F(DisplaysProviderTest, SleepStopsAndWakeRestartsTheTimer) {
    auto provider = twoDisplays();
    EXPECT_FALSE(provider->asleep());
    const size_t timers = RunLoop::main().timerCount();
    provider->startCheckTimer();
    provider->startCheckTimer();
    EXPECT_EQ(RunLoop::main().timerCount(), timers);
    int queries = displays_->counters().onlineCountQueries;
    run(1.0);
    EXPECT_EQ(displays_->counters().onlineCountQueries, queries + 1);

    displays_->sleep();
    EXPECT_TRUE(provider->asleep());
    EXPECT_EQ(RunLoop::main().timerCount(), timers - 1);
    queries = displays_->counters().onlineCountQueries;
    run(3.0);
    EXPECT_EQ(displays_->counters().onlineCountQueries, queries);

    // Waking starts the timer again but does not refresh by itself.
    Posts posts(*this);
    displays_->wake();
    EXPECT_FALSE(provider->asleep());
    EXPECT_TRUE(posts.times.empty());
    displays_->removeDisplay(2);
    run(1.0);
    EXPECT_EQ(posts.times, std::vector<double>{1.0});
    EXPECT_EQ(provider->displayCount(), 1);
    // Each start stops first (two starts above), and the sleep.
    EXPECT_EQ(log_->count("Display provider checking turned off"), 3);
}

TEST_F(DisplaysProviderTest, BusyLockGivesEmptyAnswers) {
    auto provider = twoDisplays();
    ASSERT_EQ(provider->displayCount(), 2);
    std::latch held(1), release(1);
    std::thread holder([&] {
        std::lock_guard lock(provider->dataCacheLock());
        held.count_down();
        release.wait();
    });
    held.wait();
    EXPECT_EQ(provider->displayCount(), 0);
    EXPECT_EQ(provider->allScreensFrameForRenderer(Value(0x1000)), NSZeroRect);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_TRUE(provider->activeDisplaysOnRenderer(Value(0x1000)).empty());
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
    release.count_down();
    holder.join();
    EXPECT_EQ(provider->activeDisplaysOnRenderer(Value(0x1000)).size(), 2u);
}

TEST_F(DisplaysProviderTest, MonitoringRequests) {
    auto provider = twoDisplays();
    EXPECT_TRUE(provider->monitorDisplayForCapture(provider->metadataForAllConnectedDisplays()[1]));
    EXPECT_EQ(provider->displayBeingMonitored(), 2u);
    EXPECT_FALSE(provider->monitorDisplayIDForCapture(2));
    EXPECT_FALSE(provider->monitorMainDisplayForCapture());
    EXPECT_EQ(log_->count("Cannot monitor display 2 for capture since one (ID: 2) is already being captured"), 1);
    provider->stopMonitoringForCapturedDisplay();
    EXPECT_FALSE(provider->monitoringDisplay());
}

TEST_F(DisplaysProviderTest, FailedDisplayListAnswersEmptyUntilTheNextRefresh) {
    displays_->failActiveDisplayList(kCGErrorFailure);
    Posts posts(*this);
    auto provider = twoDisplays();
    EXPECT_EQ(posts.times.size(), 1u);  // the refresh still completes and posts
    EXPECT_EQ(log_->count("Cannot get number of active displays - assuming zero", kLogFlagWarning), 1);
    const int queries = displays_->counters().activeListQueries;
    displays_->failActiveDisplayList(0);
    EXPECT_TRUE(provider->metadataForAllConnectedDisplays().empty());
    EXPECT_EQ(displays_->counters().activeListQueries, queries);
    provider->refreshCachedDisplays();
    EXPECT_EQ(provider->displayCount(), 2);
}

TEST_F(DisplaysProviderTest, AnExceptionLeavesTheRefreshGuardSetForGood) {
    auto provider = twoDisplays();
    Posts posts(*this);
    int didChange = 0;
    provider->addObserver("monitoredDisplays", [&](std::string_view, const KeyValueChange& change) {
        if (!change.isPrior) ++didChange;
    }, NSKeyValueObservingOptionPrior);
    // An observer of the list change throws: the exception goes on, the
    // did-change event is not sent and the guard stays set.
    const auto thrower = center_.addObserver(kDPNDisplayListChanged, nullptr,
                                             [](const Notification&) { throw std::runtime_error("observer"); });
    EXPECT_THROW(provider->resetDisplays(nullptr), std::runtime_error);
    center_.removeObserver(thrower);
    EXPECT_EQ(didChange, 0);
    log_->clear();
    provider->refreshCachedDisplays();
    EXPECT_EQ(log_->count("Refresh already in progress, ignoring..."), 1);
    EXPECT_EQ(posts.times.size(), 1u);
}

}  // namespace
}  // namespace qrl
