// Logging at start-up and as a switchboard: what an empty store gives, the
// choice of store, the domain mask, the setters' writes, and the store
// switch.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "logging/CapturingLogger.h"
#include "logging/LoggingTestSupport.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/Logging.h"
#include "qrl/logging/QRLNSUserDefaults.h"
#include "qrl/logging/QRLNonPersistentDefaults.h"
#include "support/PrivateServer.h"

namespace qrl {
namespace {

using test::LoggingFixture;

const std::vector<std::string> kLevelKeys = {"sharedLoggingLevel",   "foundationLoggingLevel",
                                             "legacyLoggingLevel",   "quicktimeLoggingLevel",
                                             "uploaderLoggingLevel", "applicationLoggingLevel"};

std::vector<int32_t> allLevels() {
    return {sharedLogLevel.load(),   foundationLogLevel.load(), legacyLogLevel.load(),
            qtClientLogLevel.load(), uploaderLogLevel.load(),   applicationLogLevel.load()};
}

// Counts the announcements of one key of a store.
class CountingObserver : public KeyValueObserver {
public:
    void observeValueForKeyPath(std::string_view, KeyObservable&, const KeyValueChange&, void*) override { ++calls; }
    int calls = 0;
};

using LoggingStartTest = LoggingFixture;

TEST_F(LoggingStartTest, AnEmptyStoreGivesWarningsEverywhereNoDomainsAndTheSwitchOff) {
    ASSERT_EQ(allLevels(), (std::vector<int32_t>{7, 7, 7, 3, 3, 7}));  // load values
    ASSERT_TRUE(qrl_loggingEnabled.load());
    additionalApplicationLogLevel = 0x4;  // set-up clears the mask before pushing
    setInfo("SomethingElse", true);
    EXPECT_FALSE(Logging::bundleSaysSetupAsNonPersistent());

    LoggerStart();

    EXPECT_EQ(allLevels(), std::vector<int32_t>(6, kLogLevelWarning));
    EXPECT_EQ(additionalApplicationLogLevel.load(), 0u);
    EXPECT_FALSE(Logging::loggingEnabled());
    EXPECT_EQ(log_.count("Logging now: Disabled"), 1u) << testing::PrintToString(log_.lines());
    EXPECT_EQ(log_.countContaining("non-persistent"), 0u);

    const auto store = QRLDefaultsFactory::shared();
    ASSERT_TRUE(std::dynamic_pointer_cast<QRLNSUserDefaults>(store));
    for (const std::string& key : kLevelKeys) {
        EXPECT_EQ(store->integerForKey(key), 2) << key;
        EXPECT_EQ(store->objectForKey(key + "Text"), Value("Warnings")) << key;
    }
    const auto logging = Logging::defaultLogger();
    ASSERT_TRUE(logging);
    EXPECT_TRUE(logging->observersAdded());
    EXPECT_TRUE(store->objectForKey("qrlLoggingEnabled").isNull());  // no default: opt-in
}

TEST_F(LoggingStartTest, StoredOptionsTakeEffectAtStart) {
    {
        auto defaults = UserDefaults::standardUserDefaults();
        defaults->setObject(true, "qrlLoggingEnabled");
        defaults->setInteger(4, "sharedLoggingLevel");
        defaults->setInteger(1, "uploaderLoggingLevel");
        defaults->setInteger(0, "applicationLoggingLevel");
        defaults->setObject(true, "kLoggingAudio");
        defaults->setObject("YES", "kLoggingCapture");            // strings count
        defaults->setObject(Value::array({1}), "kLoggingDebug");  // other types do not
    }
    LoggerStart();
    EXPECT_EQ(allLevels(), (std::vector<int32_t>{15, 3, 3, 3, 1, 0}));
    EXPECT_EQ(additionalApplicationLogLevel.load(), kLoggingAudio | kLoggingCapture);
    EXPECT_TRUE(Logging::loggingEnabled());
    EXPECT_EQ(log_.countContaining("Logging now"), 0u);  // already on: nothing said
    const auto store = QRLDefaultsFactory::shared();
    EXPECT_EQ(store->objectForKey("sharedLoggingLevelText"), Value("Verbose"));
    EXPECT_EQ(store->objectForKey("uploaderLoggingLevelText"), Value("Errors"));
    EXPECT_EQ(store->objectForKey("applicationLoggingLevelText"), Value("None"));
}

TEST_F(LoggingStartTest, TheNonPersistentEntrySelectsTheMemoryStoreWhateverItsValue) {
    setInfo("QRLNonPersistentLogging", false);
    EXPECT_TRUE(Logging::bundleSaysSetupAsNonPersistent());
    LoggerStart();
    EXPECT_EQ(log_.count("Using non-persistent logging"), 1u);
    const auto store = std::dynamic_pointer_cast<QRLNonPersistentDefaults>(QRLDefaultsFactory::shared());
    ASSERT_TRUE(store);
    EXPECT_EQ(allLevels(), std::vector<int32_t>(6, kLogLevelWarning));
    EXPECT_FALSE(Logging::loggingEnabled());
    // The initial observations write the readable texts here too.
    EXPECT_EQ(store->objectForKey("legacyLoggingLevelText"), Value("Warnings"));
}

TEST_F(LoggingStartTest, AFailureDuringStartUpIsLoggedAndLoadingGoesOn) {
    // An application observer that throws when set-up writes a level's text.
    auto defaults = UserDefaults::standardUserDefaults();
    const auto token = defaults->addObserver(
        "sharedLoggingLevelText", [](std::string_view, const KeyValueChange&) { throw std::runtime_error("boom"); }, 0);
    LoggerStart();
    EXPECT_EQ(log_.countContaining("Error setting up default logging mapping: "), 1u)
        << testing::PrintToString(log_.lines());
    EXPECT_EQ(log_.countContaining("boom"), 1u);
    defaults->removeObserver(token);
    LoggerStart();  // started already, failure or not
    EXPECT_EQ(log_.countContaining("Error setting up"), 1u);
}

// The library starts logging as it is loaded, before main(), unless the host
// opts out; a session bus that cannot be reached does not hold loading up.
// The test runs this program again to see what loading did.
TEST(LoggingAtLoad, TheLibraryStartsLoggingBeforeMainUnlessTheHostOptsOut) {
    if (std::getenv("QRL_TEST_LOAD_CHILD")) {
        std::printf("at load: %s, level %d\n", Logging::defaultLogger() ? "started" : "not started",
                    static_cast<int>(sharedLogLevel.load()));
        std::fflush(stdout);
        return;
    }
    test::TemporaryFolder home("qrl-load");
    for (const bool optOut : {false, true}) {
        test::Process::Options options;
        options.environment = {"QRL_TEST_LOAD_CHILD=1", "XDG_CONFIG_HOME=" + home.path(),
                               "DBUS_SESSION_BUS_ADDRESS=unix:path=/nonexistent/qrl-bus",
                               optOut ? "QRL_NO_LOGGER_START=1" : "QRL_NO_LOGGER_START"};
        options.pipeOutput = true;
        options.errorsToOutput = true;
        test::Process child({"/proc/self/exe", "--gtest_filter=LoggingAtLoad.*"}, options);
        ASSERT_TRUE(child.started()) << child.why();
        const auto report = child.waitForLine([](const std::string& l) { return l.starts_with("at load: "); },
                                              test::after(20));
        ASSERT_TRUE(report.has_value()) << testing::PrintToString(child.lines());
        EXPECT_EQ(*report, optOut ? "at load: not started, level 7" : "at load: started, level 3");
        EXPECT_EQ(child.wait(test::after(20)), 0);
        const bool saidDisabled = std::ranges::any_of(
            child.lines(), [](const std::string& l) { return l.ends_with("Logging now: Disabled"); });
        EXPECT_EQ(saidDisabled, !optOut);
    }
}

// ---- Tables and masks.

using LoggingMaskTest = LoggingFixture;

TEST_F(LoggingMaskTest, DisablingNeedsEveryBitOfTheMaskSet) {
    additionalApplicationLogLevel = 0x1;
    Logging::disableApplicationContext(0x5);
    EXPECT_EQ(additionalApplicationLogLevel.load(), 0x1u);
    Logging::enableApplicationContext(0x4 | 0x100);
    EXPECT_EQ(additionalApplicationLogLevel.load(), 0x105u);
    Logging::disableApplicationContext(0x5);
    EXPECT_EQ(additionalApplicationLogLevel.load(), 0x100u);
    Logging::disableApplicationContext(0);  // an empty mask is always "all set": nothing to clear
    EXPECT_EQ(additionalApplicationLogLevel.load(), 0x100u);
}

TEST_F(LoggingMaskTest, TheOpenGLDomainAnswersOnlyToEnableAndSurvivesPushes) {
    LoggerStart();
    auto capture = std::make_shared<test::CapturingLogger>();
    test::ScopedLogger scoped(capture);
    Logging::setLoggingEnabled(true);
    auto defaults = UserDefaults::standardUserDefaults();
    defaults->setInteger(4, "sharedLoggingLevel");  // verbose, every domain key true
    for (const auto& [bit, key] : Logging::defaultLogger()->appLogLevelDefaultsMapping())
        defaults->setObject(true, key);
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelVerbose);
    uint32_t keyed = 0;
    for (const auto& [bit, key] : Logging::defaultLogger()->appLogLevelDefaultsMapping()) keyed |= bit;
    EXPECT_EQ(keyed, 0xFD707u);
    EXPECT_EQ(additionalApplicationLogLevel.load(), keyed);  // neither 0x800 nor 0x2000

    QRLDomainLogInfo(kLoggingOpenGL, "gl %d", 1);
    Logging::enableApplicationContext(kLoggingOpenGL);
    QRLDomainLogInfo(kLoggingOpenGL, "gl %d", 2);
    defaults->setObject(false, "kLoggingAudio");  // a push from the store
    Logging::defaultLogger()->pushPreferencesLoggingLevelsToLogger();
    EXPECT_EQ(additionalApplicationLogLevel.load() & (kLoggingOpenGL | kLoggingAudio), kLoggingOpenGL);
    QRLDomainLogInfo(kLoggingOpenGL, "gl %d", 3);
    QRLLog::flushLog();
    EXPECT_EQ(capture->texts(), (std::vector<std::string>{"gl 2", "gl 3"}));
}

// ---- Setters.

using LoggingSetterTest = LoggingFixture;

TEST_F(LoggingSetterTest, TheSameLevelWritesNothingAndAChangeWritesThePreferencesLevel) {
    LoggerStart();
    auto defaults = UserDefaults::standardUserDefaults();
    ASSERT_TRUE(defaults->synchronize());
    CountingObserver writes;
    addObserver(*defaults, writes, kLevelKeys, 0);
    const std::pair<void (*)(int32_t), std::string> setters[] = {
        {&Logging::setSharedLoggingLevel, "sharedLoggingLevel"},
        {&Logging::setQuicktimeLoggingLevel, "quicktimeLoggingLevel"},
    };
    for (const auto& [set, key] : setters) {
        set(kLogLevelWarning);  // the current value
        EXPECT_EQ(writes.calls, 0) << key;
        EXPECT_FALSE(defaults->hasUnsavedChanges()) << key;
    }
    for (const auto& [set, key] : setters) {
        writes.calls = 0;
        set(kLogLevelError);
        EXPECT_EQ(writes.calls, 1) << key;
        EXPECT_EQ(defaults->integerForKey(key), 1) << key;
        EXPECT_FALSE(defaults->hasUnsavedChanges()) << key << " was not synchronized";
    }
    EXPECT_EQ(allLevels(), (std::vector<int32_t>{1, 3, 3, 1, 3, 3}));
    removeObserver(*defaults, writes, kLevelKeys);
}

TEST_F(LoggingSetterTest, WithThePersistentStoreTheStoredLevelComesBackThroughTheObserver) {
    // The write of preferences level 0 is heard at once and pushed back: the
    // variable follows the store, not the odd value.
    LoggerStart();
    Logging::setSharedLoggingLevel(5);
    EXPECT_EQ(sharedLogLevel.load(), 0);
    EXPECT_EQ(QRLDefaultsFactory::shared()->integerForKey("sharedLoggingLevel"), 0);
    EXPECT_EQ(QRLDefaultsFactory::shared()->objectForKey("sharedLoggingLevelText"), Value("None"));
}

// ---- Switching stores, and the observers of the two local notifications.

TEST_F(LoggingSetterTest, SwitchingStoresMovesTheObserversBeforeTheOldStoreEnds) {
    LoggerStart();
    auto handler = std::make_shared<test::RecordingHandler>();
    Logging::registerLoggingChangeHandler(handler);
    EXPECT_EQ(center_->observerCount(), 1u);
    const auto logging = Logging::defaultLogger();
    ASSERT_EQ(logging->notificationRegister().size(), 1u);

    Logging::setAutomaticallySynchronizeUserDefaults(false);
    EXPECT_FALSE(qrl_autoSyncDefaults.load());
    const auto memory = std::dynamic_pointer_cast<QRLNonPersistentDefaults>(QRLDefaultsFactory::shared());
    ASSERT_TRUE(memory);
    EXPECT_TRUE(logging->observersAdded());
    EXPECT_EQ(memory->objectForKey("uploaderLoggingLevelText"), Value("Warnings"));  // observed anew
    // The observers were off before the end was announced: the cross-process
    // handler stays registered.
    EXPECT_EQ(center_->observerCount(), 1u);
    // The persistent store hears nothing of Logging any more.
    UserDefaults::standardUserDefaults()->setInteger(4, "sharedLoggingLevel");
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelWarning);

    // The memory store's map is live: pushes read a copy taken under its lock
    // while another thread writes into it.
    std::thread writer([&] {
        for (int i = 0; i < 2000; ++i) memory->setObject(Value(i), qrl::format("key%d", i));
    });
    for (int i = 0; i < 200; ++i) logging->pushPreferencesLoggingLevelsToLogger();
    writer.join();
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelWarning);
}

// ---- The logging domain of the command line or the bundle.

using LoggingSuitesTest = LoggingFixture;

}  // namespace
}  // namespace qrl
