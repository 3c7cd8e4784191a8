// Logging at start-up and as a switchboard: what an empty store gives, the
// choice of store, the level tables, the domain mask, the setters' writes,
// the loggers it installs, the store switch and its observer quirks.
#include <gtest/gtest.h>

#include <atomic>
#include <set>

#include "logging/CapturingLogger.h"
#include "logging/LoggingTestSupport.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/Logging.h"
#include "qrl/logging/QRLASLLogger.h"
#include "qrl/logging/QRLNSUserDefaults.h"
#include "qrl/logging/QRLNonPersistentDefaults.h"
#include "qrl/logging/QRLTTYLogger.h"
#include "qrl/logging/ThreadLogger.h"

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
    EXPECT_EQ(logging->appLogLevelDefaultsMapping().size(), 13u);
    for (const auto& [bit, key] : logging->appLogLevelDefaultsMapping()) {
        EXPECT_NE(bit, kLoggingDiskStage);
        EXPECT_NE(bit, kLoggingOpenGL);
        EXPECT_EQ(store->objectForKey(key), Value(false)) << key;  // registered
    }
    EXPECT_EQ(logging->appLogLevelUserDefaults().size(), 19u);
    EXPECT_TRUE(store->objectForKey("qrlLoggingEnabled").isNull());  // no default: opt-in

    // Only once: a second start does nothing, not even the switch's line.
    LoggerStart();
    EXPECT_EQ(Logging::defaultLogger(), logging);
    EXPECT_EQ(log_.count("Logging now: Disabled"), 1u);
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

TEST_F(LoggingStartTest, StartUpSchedulesOneBroadcastOfTheWholeStore) {
    UserDefaults::standardUserDefaults()->setObject("kept", "someApplicationKey");
    LoggerStart();
    EXPECT_EQ(center_->sentCount(), 0u);  // not during set-up: a run loop must run
    EXPECT_EQ(RunLoop::main().nextTimerDeadline(), clock_.clock().now() + 6'000'000u);  // 0.25 s at 24 MHz
    run(0.25);
    ASSERT_EQ(center_->sentCount(), 1u);

    const DistributedNotification sent = center_->sentNotifications()[0];
    EXPECT_EQ(sent.name, "kLoggingOptionsChanged");
    EXPECT_EQ(sent.object, Logging::defaultLogger()->description());
    EXPECT_EQ(sent.object.rfind("<Logging: 0x", 0), 0u) << sent.object;
    const Value& info = sent.userInfo;
    EXPECT_EQ(info["kLoggingOptionsReceiveCount"], Value(0));
    EXPECT_EQ(info["kLoggingDistributedNotification"], Value(true));
    EXPECT_EQ(info["sharedLoggingLevel"], Value(2));
    EXPECT_EQ(info["sharedLoggingLevelText"], Value("Warnings"));
    EXPECT_EQ(info["kLoggingQRLAVFoundation"], Value(false));
    EXPECT_EQ(info["someApplicationKey"], Value("kept"));  // the whole store travels

    run(10.0);
    EXPECT_EQ(center_->sentCount(), 1u);
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

    // The memory store tells no observer of its writes: a setter's change is
    // stored but never broadcast; only set-up's broadcast goes out.
    Logging::setSharedLoggingLevel(kLogLevelVerbose);
    EXPECT_EQ(store->integerForKey("sharedLoggingLevel"), 4);
    run(5.0);
    EXPECT_EQ(center_->sentCount(), 1u);
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

TEST_F(LoggingStartTest, TheTerminalAndSystemLoggersGetThreadFormatters) {
    LoggerStart();
    auto tty = std::dynamic_pointer_cast<ThreadLogger>(QRLTTYLogger::sharedInstance()->logFormatter());
    auto asl = std::dynamic_pointer_cast<ThreadLogger>(QRLASLLogger::sharedInstance()->logFormatter());
    ASSERT_TRUE(tty);
    ASSERT_TRUE(asl);
    EXPECT_TRUE(tty->includeDate());
    EXPECT_FALSE(asl->includeDate());
    EXPECT_FALSE(tty->includeClassAndMethod());

    Logging::setEnableClassAndMethodLogging(true);
    EXPECT_TRUE(_qrl_enableClassAndMethodLogging.load());
    auto tty2 = std::dynamic_pointer_cast<ThreadLogger>(QRLTTYLogger::sharedInstance()->logFormatter());
    ASSERT_TRUE(tty2);
    EXPECT_NE(tty2, tty);
    EXPECT_TRUE(tty2->includeClassAndMethod());
    const auto asl2 = std::dynamic_pointer_cast<ThreadLogger>(QRLASLLogger::sharedInstance()->logFormatter());
    ASSERT_TRUE(asl2);
    EXPECT_TRUE(asl2->includeClassAndMethod());
    Logging::setEnableClassAndMethodLogging(true);  // no change: no reset
    EXPECT_EQ(QRLTTYLogger::sharedInstance()->logFormatter(), tty2);
}

// ---- Tables and masks.

TEST(LoggingTables, LevelsMapBothWaysWithTheirNamesAndEverythingElseIsOffAndUnknown) {
    struct Row {
        int32_t level, preference;
        const char* text;
    };
    const Row table[] = {{0, 0, "None"}, {1, 1, "Errors"}, {3, 2, "Warnings"}, {7, 3, "Info"}, {15, 4, "Verbose"}};
    test::CapturedPlatformLog log;
    std::set<int32_t> levels, preferences;
    for (const Row& row : table) {
        EXPECT_EQ(Logging::preferencesLevelForQRLLevel(row.level), row.preference);
        EXPECT_EQ(Logging::qrlLogLevelForPreferencesLevel(row.preference), row.level);
        EXPECT_EQ(Logging::descriptionForLoggingLevel(row.level), row.text);
        EXPECT_EQ(Logging::descriptionForPreferencesLoggingLevel(row.preference), row.text);
        levels.insert(row.level);
        preferences.insert(row.preference);
    }
    EXPECT_TRUE(log.lines().empty());
    std::vector<int32_t> probes = {INT32_MIN, -1, INT32_MAX, 16, 31, 255, 0x7fff};
    for (int32_t v = -3; v <= 40; ++v) probes.push_back(v);
    for (int32_t v : probes) {
        if (!levels.count(v)) {
            EXPECT_EQ(Logging::preferencesLevelForQRLLevel(v), 0) << v;
        }
        if (!preferences.count(v)) {
            EXPECT_EQ(Logging::qrlLogLevelForPreferencesLevel(v), 0) << v;
        }
        // A round trip lands on a level of the table.
        EXPECT_TRUE(levels.count(Logging::qrlLogLevelForPreferencesLevel(Logging::preferencesLevelForQRLLevel(v))));
    }
    EXPECT_EQ(Logging::descriptionForLoggingLevel(5), "Unknown");
    EXPECT_EQ(Logging::descriptionForPreferencesLoggingLevel(7), "Unknown");
    EXPECT_EQ(Logging::descriptionForPreferencesLoggingLevel(-1), "Unknown");
    EXPECT_EQ(log.lines(),
              (std::vector<std::string>{"Don't know how to describe level 5 - returning unknown",
                                        "Don't know how to describe preferences level 7 - returning unknown",
                                        "Don't know how to describe preferences level -1 - returning unknown"}));
}

TEST(LoggingTables, IntegerToBinaryGivesThirtyTwoDigitsMostSignificantFirst) {
    EXPECT_EQ(Logging::integerToBinary(5), std::string(29, '0') + "101");
    EXPECT_EQ(Logging::integerToBinary(0x80002000u), "1" + std::string(17, '0') + "1" + std::string(13, '0'));
}

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

TEST_F(LoggingMaskTest, ASetupFromScratchClearsTheMaskBeforePushing) {
    LoggerStart();
    Logging::enableApplicationContext(kLoggingOpenGL | kLoggingDiskStage);
    UserDefaults::standardUserDefaults()->setObject(true, "kLoggingVideo");
    Logging::setupLoggersFromScratch();
    EXPECT_EQ(additionalApplicationLogLevel.load(), kLoggingVideo);
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
        {&Logging::setFoundationLoggingLevel, "foundationLoggingLevel"},
        {&Logging::setLegacyLoggingLevel, "legacyLoggingLevel"},
        {&Logging::setQuicktimeLoggingLevel, "quicktimeLoggingLevel"},
        {&Logging::setUploaderLoggingLevel, "uploaderLoggingLevel"},
        {&Logging::setApplicationLoggingLevel, "applicationLoggingLevel"},
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
    EXPECT_EQ(allLevels(), std::vector<int32_t>(6, kLogLevelError));
    EXPECT_EQ(Logging::sharedLoggingLevel(), kLogLevelError);
    EXPECT_EQ(Logging::quicktimeLoggingLevel(), kLogLevelError);
    removeObserver(*defaults, writes, kLevelKeys);
}

TEST_F(LoggingSetterTest, ALevelOutsideTheTableIsKeptButStoredAsNone) {
    setInfo("QRLNonPersistentLogging", true);
    LoggerStart();
    Logging::setSharedLoggingLevel(5);
    EXPECT_EQ(sharedLogLevel.load(), 5);
    EXPECT_EQ(QRLDefaultsFactory::shared()->integerForKey("sharedLoggingLevel"), 0);
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

TEST_F(LoggingSetterTest, TheMasterSwitchSpeaksOnlyOnAChange) {
    LoggerStart();
    log_.clear();
    Logging::setLoggingEnabled(false);
    Logging::setLoggingEnabled(true);
    Logging::setLoggingEnabled(true);
    Logging::setLoggingEnabled(false);
    EXPECT_EQ(log_.lines(), (std::vector<std::string>{"Logging now: Enabled", "Logging now: Disabled"}));
    // The store's key drives it too.
    UserDefaults::standardUserDefaults()->setBool(true, "qrlLoggingEnabled");
    EXPECT_TRUE(Logging::loggingEnabled());
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

    Logging::setAutomaticallySynchronizeUserDefaults(true);
    EXPECT_TRUE(qrl_autoSyncDefaults.load());
    EXPECT_TRUE(std::dynamic_pointer_cast<QRLNSUserDefaults>(QRLDefaultsFactory::shared()));
    UserDefaults::standardUserDefaults()->setInteger(3, "sharedLoggingLevel");
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelInfo);
}

TEST_F(LoggingSetterTest, AStoreEndingElsewhereTakesTheHandlersOffButKeepsThem) {
    LoggerStart();
    auto handler = std::make_shared<test::RecordingHandler>();
    Logging::registerLoggingChangeHandler(handler);
    const auto logging = Logging::defaultLogger();

    QRLDefaultsFactory::useNonPersistentDefaults();  // announced: removeObservers
    EXPECT_EQ(center_->observerCount(), 0u);
    EXPECT_EQ(logging->notificationRegister().size(), 1u);
    EXPECT_FALSE(logging->observersAdded());
    // The store observations stayed on the persistent store (same flag, not
    // touched): a change there is still heard, and applied from the store
    // that is current now, the empty one in memory.
    UserDefaults::standardUserDefaults()->setInteger(4, "sharedLoggingLevel");
    EXPECT_EQ(sharedLogLevel.load(), kLogLevelOff);
    EXPECT_EQ(QRLDefaultsFactory::shared()->objectForKey("sharedLoggingLevelText"), Value("None"));

    // Termination does the same, once the observers are back.
    logging->addDefaultsObservers();
    EXPECT_TRUE(logging->observersAdded());
    logging->addObserver(handler);
    EXPECT_EQ(center_->observerCount(), 1u);
    NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
    EXPECT_EQ(center_->observerCount(), 0u);
    EXPECT_EQ(logging->notificationRegister().size(), 2u);
    // With the flag down, a second announcement does nothing.
    logging->addObserver(handler);
    NotificationCenter::defaultCenter().post(kApplicationWillTerminateNotification);
    EXPECT_EQ(center_->observerCount(), 1u);
}

TEST_F(LoggingSetterTest, RegisteringBeforeSetUpDoesNothing) {
    EXPECT_FALSE(Logging::defaultLogger());
    Logging::registerLoggingChangeHandler(std::make_shared<test::RecordingHandler>());
    EXPECT_EQ(center_->observerCount(), 0u);
    Logging::kick();  // no instance: "(null)" as the object
    run(0.0);
    ASSERT_EQ(center_->sentCount(), 1u);
    EXPECT_EQ(center_->sentNotifications()[0].object, "(null)");
}

// ---- The logging domain of the command line or the bundle.

using LoggingSuitesTest = LoggingFixture;

TEST_F(LoggingSuitesTest, TheCommandLineComesFirstThenTheBundle) {
    setInfo("QRLLoggingDomain", "com.tessara.bundle-logging");
    Logging::setCommandLineArguments({"tessara", "-QRLLoggingDomain", "com.tessara.args-logging", "-other", "1"});
    Logging::registerAlternateSuites();
    Logging::setCommandLineArguments({"tessara", "-NSDocumentRevisionsDebugMode", "YES"});
    Logging::registerAlternateSuites();
    Logging::setCommandLineArguments({"tessara"});
    setInfo("QRLLoggingDomain", 42);  // its description is used
    Logging::registerAlternateSuites();
    EXPECT_EQ(log_.lines(),
              (std::vector<std::string>{"Making app use logging domain com.tessara.args-logging (from args)",
                                        "Making app use logging domain com.tessara.bundle-logging (from info.plist)",
                                        "Making app use logging domain 42 (from info.plist)"}));
    log_.clear();
    Bundle bundle = *Bundle::main();
    bundle.info = std::make_shared<Dictionary>();
    Bundle::setMain(bundle);
    Logging::registerAlternateSuites();
    EXPECT_TRUE(log_.lines().empty());
}

TEST(LoggingArguments, PairsOfDashNameAndValueAfterTheProgramName) {
    const Dictionary domain = detail::argumentDomain({"-prog", "-a", "1", "loose", "-b", "-2", "-", "x", "-last"});
    EXPECT_EQ(domain.keys(), (std::vector<std::string>{"a", "b"}));
    EXPECT_EQ(domain.get("a"), Value("1"));
    EXPECT_EQ(domain.get("b"), Value("-2"));
    EXPECT_TRUE(detail::argumentDomain({}).empty());
    EXPECT_TRUE(detail::argumentDomain({"-QRLLoggingDomain"}).empty());  // the program's own name
}

}  // namespace
}  // namespace qrl
