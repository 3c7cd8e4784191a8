// Logging: the process-wide switchboard behind the log level variables. It
// keeps levels, domains and the master switch in the defaults store, applies
// them at start-up and on every change, and tells the product's other
// processes when they change, a quarter of a second after the last change.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/Value.h"
#include "qrl/logging/KeyObservationHelpers.h"

namespace qrl {

class DistributedNotificationCenter;
struct DistributedNotification;

// Defaults keys of the master switch and of the six levels (each level key
// also has a readable twin: the key followed by "Text").
inline constexpr std::string_view kQRLLoggingEnabled = "qrlLoggingEnabled";
inline constexpr std::string_view kQRLSharedLoggingLevel = "sharedLoggingLevel";
inline constexpr std::string_view kQRLFoundationLoggingLevel = "foundationLoggingLevel";
inline constexpr std::string_view kQRLQuicktimeLoggingLevel = "quicktimeLoggingLevel";
inline constexpr std::string_view kQRLUploaderLoggingLevel = "uploaderLoggingLevel";
inline constexpr std::string_view kQRLLegacyLoggingLevel = "legacyLoggingLevel";
inline constexpr std::string_view kQRLApplicationLoggingLevel = "applicationLoggingLevel";
// The cross-process notification and the two keys its sender adds to the
// user information.
inline constexpr std::string_view kLoggingOptionsChanged = "kLoggingOptionsChanged";
inline constexpr std::string_view kLoggingDistributedNotification = "kLoggingDistributedNotification";
inline constexpr std::string_view kLoggingOptionsReceiveCount = "kLoggingOptionsReceiveCount";

// An object that hears of options changed in any process of the product,
// this one included, once registered with Logging::addObserver. A handler
// applies them by calling
// Logging::defaultLogger()->updateLoggingPreferencesBecauseOfNotification().
class LoggingChangeHandler {
public:
    virtual ~LoggingChangeHandler() = default;
    // Called on the main run loop.
    virtual void loggingOptionsChanged(const DistributedNotification& notification) = 0;
    // What %@ prints: "<LoggingChangeHandler: 0x...>" unless replaced.
    virtual std::string description() const;
};

namespace detail {
void resetLoggingForTesting();
}

// Starts Logging; later calls do nothing. The library calls it when it is
// loaded, before any code of the framework can log. A host that must set up
// the bundle facts, the store, the notification centre or the platform log's
// writer first calls it itself, and says so before it is loaded: either its
// program defines
//     extern "C" const int qrl_host_starts_logging = 1;
// (exported to the library, which looks for it when loaded), or its
// environment holds QRL_NO_LOGGER_START=1 (tests, benchmarks).
void LoggerStart();

// One instance per process, made by set-up and kept for the process's life.
//
// Start-up (LoggerStart): with an entry "QRLNonPersistentLogging" in the
// bundle's Info dictionary, whatever its value, the store is the in-memory
// one ("Using non-persistent logging" on the platform log). Then
// setupLoggersFromScratch: the domain mask goes to 0, the terminal and system
// log outputs are attached with ThreadLogger formatters, the level and domain
// defaults are registered (levels at preferences level 2, Warnings; domains
// false), every level and domain key is observed with the Initial option (so
// each one is applied, its "Text" twin written, and a broadcast scheduled,
// during set-up), and the master switch is read from "qrlLoggingEnabled",
// which has no default: unless the store holds true, logging goes off here
// with "Logging now: Disabled" on the platform log. An exception during
// start-up is written to the platform log ("Error setting up default logging
// mapping: %@") and start-up ends there.
//
// Changes. A change of an observed key, made in this process (a level
// setter, or a write to the store), is applied at once and, unless options
// received from another process are being applied, schedules a broadcast 0.25
// s later on the run loop of the changing thread, replacing any broadcast
// still pending there: a burst ends in one broadcast, a quarter of a second
// after its last change. The broadcast (kick) sends "kLoggingOptionsChanged"
// with this instance's description as object and the whole store as user
// information, plus "kLoggingOptionsReceiveCount" 0 and
// "kLoggingDistributedNotification" true. The in-memory store tells no
// observer of its writes, so with it changes are applied only by set-up and
// are never broadcast.
//
// Level setters write the store only when the level changes; a level outside
// the table is kept in its variable and stored as preferences level 0.
//
// Threads. Set-up runs under the class lock; setters and pushes take no lock
// (the variables are atomics). Observations run on the thread that writes the
// store; the broadcast needs a running run loop on that thread. Received
// notifications arrive on the main run loop.
class Logging final : public Object, public KeyValueObserver, public std::enable_shared_from_this<Logging> {
    struct Passkey {};

public:
    // Made by set-up only.
    explicit Logging(Passkey);
    ~Logging() override;
    Logging(const Logging&) = delete;
    Logging& operator=(const Logging&) = delete;

    // ---- Class-level operations.

    // The start-up described above; LoggerStart() runs it once.
    static void initialize();
    static void setupLoggersFromScratch();
    // flushLog, then removeAllLoggers of the engine.
    static void removeAllLoggers();
    // Replaces every logger with the terminal logger (a ThreadLogger with the
    // date) and the system logger (a ThreadLogger without), both printing
    // file and method while class-and-method logging is on.
    static void resetLoggingFormatters();
    static bool bundleSaysSetupAsNonPersistent();
    // Looks for "QRLLoggingDomain" on the command line ("-QRLLoggingDomain
    // name"), then in the bundle's Info dictionary, and says which it uses on
    // the platform log. The suite it adds lives only for the call.
    static void registerAlternateSuites();
    // The arguments registerAlternateSuites reads; until an application hands
    // its argv here, the process's own (/proc/self/cmdline).
    static void setCommandLineArguments(std::vector<std::string> arguments);

    // The single instance; null before set-up.
    static std::shared_ptr<Logging> defaultLogger();
    // Broadcasts the store now (see above).
    static void kick();
    // addObserver on the single instance (nothing before set-up).
    static void registerLoggingChangeHandler(std::shared_ptr<LoggingChangeHandler> handler);

    static int32_t sharedLoggingLevel();
    static int32_t applicationLoggingLevel();
    static int32_t foundationLoggingLevel();
    static int32_t legacyLoggingLevel();
    static int32_t quicktimeLoggingLevel();
    static int32_t uploaderLoggingLevel();
    static void setSharedLoggingLevel(int32_t level);
    static void setApplicationLoggingLevel(int32_t level);
    static void setFoundationLoggingLevel(int32_t level);
    static void setLegacyLoggingLevel(int32_t level);
    static void setQuicktimeLoggingLevel(int32_t level);
    static void setUploaderLoggingLevel(int32_t level);

    // The master switch; a change says "Logging now: Enabled" or "Logging
    // now: Disabled" on the platform log, setting the same value says nothing.
    static bool loggingEnabled();
    static void setLoggingEnabled(bool enabled);

    // "None", "Errors", "Warnings", "Info", "Verbose" (localized from the
    // framework's strings) for levels 0, 1, 3, 7, 15, or preferences levels
    // 0 to 4; anything else is "Unknown", with a line on the platform log.
    static std::string descriptionForLoggingLevel(int32_t level);
    static std::string descriptionForPreferencesLoggingLevel(int32_t preferencesLevel);
    // 0, 1, 3, 7, 15 to 0, 1, 2, 3, 4 and back; anything else gives 0.
    static int32_t preferencesLevelForQRLLevel(int32_t level);
    static int32_t qrlLogLevelForPreferencesLevel(int32_t preferencesLevel);

    // Sets the mask's bits in additionalApplicationLogLevel.
    static void enableApplicationContext(uint32_t mask);
    // Clears the mask's bits, but only when every one of them is set.
    static void disableApplicationContext(uint32_t mask);
    // On a change, sets _qrl_enableClassAndMethodLogging and resets the loggers.
    static void setEnableClassAndMethodLogging(bool enabled);
    // Moves the observers to a new store: persistent for true, in memory for
    // false (qrl_autoSyncDefaults keeps the choice). The observers leave the
    // old store before the factory announces its end.
    static void setAutomaticallySynchronizeUserDefaults(bool synchronize);

    // The six level keys with preferences level 2, in the order shared,
    // foundation, legacy, quicktime, uploader, application.
    static const Dictionary& loggingSharedDefaults();

    // ---- Instance operations.

    // pushPreferencesLoggingLevelsToLoggerUsing with the store's values.
    void pushPreferencesLoggingLevelsToLogger();
    // Levels of shared, foundation, quicktime, legacy, uploader and
    // application, in that order, through the setters (integerValueForKey,
    // cut to 32 bits, then qrlLogLevelForPreferencesLevel); then for each
    // domain key, enableApplicationContext or disableApplicationContext by
    // boolValueForKey. Domains without a key (kLoggingDiskStage,
    // kLoggingOpenGL) are left as they are.
    void pushPreferencesLoggingLevelsToLoggerUsing(const Dictionary& map);
    // Applies options received from a process (this one included) without
    // broadcasting them again: the levels and domains of the user
    // information (none, for a notification without it: every level goes to
    // 0), and the master switch when the entry is a number.
    void updateLoggingPreferencesBecauseOfNotification(const DistributedNotification& notification);
    void observeValueForKeyPath(std::string_view keyPath, KeyObservable& object, const KeyValueChange& change,
                                void* context) override;
    // The delayed broadcast: kick().
    void propagateChanges();
    // Registers the defaults (every time) and, when not yet done, the
    // observers on the store; then reads the master switch.
    void addDefaultsObservers();
    // When the observers were added: takes them off the current store and
    // synchronizes it.
    void removeDefaultsObservers();
    // Keeps the handler (retained for the life of the instance) and
    // registers it for "kLoggingOptionsChanged" from any sender on the
    // process's cross-process centre.
    void addObserver(std::shared_ptr<LoggingChangeHandler> handler);
    // On QRLDefaultsBeingDeallocated and kApplicationWillTerminateNotification:
    // when the observers were added, takes every kept handler off the
    // cross-process centre (they stay kept) and clears observersAdded, the
    // same flag that guards removeDefaultsObservers; the store observations
    // stay where they are.
    void removeObservers(const Notification& notification);
    // The 32 bits of n as "0" and "1", most significant first.
    static std::string integerToBinary(uint32_t n);

    bool observersAdded() const { return observersAdded_.load(std::memory_order_relaxed); }
    bool performingRemoteUpdate() const { return performingRemoteUpdate_.load(std::memory_order_relaxed); }
    // The thirteen domains with a defaults key, in the order of their bits.
    const std::vector<std::pair<uint32_t, std::string>>& appLogLevelDefaultsMapping() const { return domainKeys_; }
    // The defaults registered: six levels at 2, thirteen domains false.
    const Dictionary& appLogLevelUserDefaults() const { return userDefaults_; }
    std::vector<std::shared_ptr<LoggingChangeHandler>> notificationRegister() const;

    // "<Logging: 0x...>".
    std::string description() const override;

private:
    static std::shared_ptr<Logging> create();
    void tearDown();
    bool isDomainKey(std::string_view key) const;
    std::vector<std::string> levelKeyList() const;
    std::vector<std::string> domainKeyList() const;
    friend void detail::resetLoggingForTesting();

    struct Registration {
        std::shared_ptr<LoggingChangeHandler> handler;
        std::shared_ptr<DistributedNotificationCenter> center;
    };

    const std::vector<std::pair<uint32_t, std::string>> domainKeys_;
    const Dictionary userDefaults_;
    std::atomic<bool> performingRemoteUpdate_{false};
    std::atomic<bool> observersAdded_{false};
    mutable std::mutex mutex_;
    std::vector<Registration> notificationRegister_;               // guarded by mutex_
    std::vector<std::shared_ptr<KeyObservable>> observedObjects_;  // guarded by mutex_
    std::vector<NotificationCenter::Token> localTokens_;           // guarded by mutex_
};

namespace detail {

// Tests only: takes the instance down (observers, handlers, pending
// broadcasts), detaches every logger, puts the level variables back to their
// load values and lets LoggerStart() run again.
void resetLoggingForTesting();

// The argument domain of a command line: each "-name value" pair after the
// program's name, as strings; a "-name" with nothing after it is ignored.
Dictionary argumentDomain(const std::vector<std::string>& arguments);

}  // namespace detail

}  // namespace qrl
