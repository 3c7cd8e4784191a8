#include "qrl/logging/Logging.h"

#include <cstdlib>
#include <exception>
#include <fstream>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/DictionaryHelpers.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/foundation/Strings.h"
#include "qrl/logging/DistributedNotificationCenter.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/QRLASLLogger.h"
#include "qrl/logging/QRLDefaultsFactory.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLTTYLogger.h"
#include "qrl/logging/ThreadLogger.h"

namespace qrl {

namespace {

constexpr double kPropagationDelay = 0.25;
constexpr std::string_view kNonPersistentLoggingKey = "QRLNonPersistentLogging";
constexpr std::string_view kLoggingDomainKey = "QRLLoggingDomain";

// Process-wide state of the class. Never destroyed, so that late callers find it.
struct ClassState {
    std::recursive_mutex classLock;     // the lock of the class object: set-up
    bool started = false;               // guarded by classLock
    std::mutex instanceMutex;           // taken alone, never while calling out
    std::shared_ptr<Logging> instance;  // guarded by instanceMutex
    std::mutex argumentsMutex;
    std::optional<std::vector<std::string>> arguments;  // guarded by argumentsMutex
};

ClassState& classState() {
    static auto* s = new ClassState;
    return *s;
}

// The six levels: variable, defaults key, in the order pushes apply them.
struct LevelSlot {
    std::atomic<int32_t>* variable;
    std::string_view key;
};

const LevelSlot kPushOrder[] = {
    {&sharedLogLevel, kQRLSharedLoggingLevel},      {&foundationLogLevel, kQRLFoundationLoggingLevel},
    {&qtClientLogLevel, kQRLQuicktimeLoggingLevel}, {&legacyLogLevel, kQRLLegacyLoggingLevel},
    {&uploaderLogLevel, kQRLUploaderLoggingLevel},  {&applicationLogLevel, kQRLApplicationLoggingLevel},
};

// The domains that have a defaults key, named after their constants.
std::vector<std::pair<uint32_t, std::string>> makeDomainKeys() {
    return {
        {kLoggingAudio, "kLoggingAudio"},
        {kLoggingVideo, "kLoggingVideo"},
        {kLoggingDebug, "kLoggingDebug"},
        {kLoggingCapture, "kLoggingCapture"},
        {kLoggingCompositing, "kLoggingCompositing"},
        {kLoggingCompression, "kLoggingCompression"},
        {kLoggingDatabase, "kLoggingDatabase"},
        {kLoggingResume, "kLoggingResume"},
        {kLoggingQueueing, "kLoggingQueueing"},
        {kLoggingQuartzUpdates, "kLoggingQuartzUpdates"},
        {kLoggingHTTPDiscovery, "kLoggingHTTPDiscovery"},
        {kLoggingHTTPMessaging, "kLoggingHTTPMessaging"},
        {kLoggingQRLAVFoundation, "kLoggingQRLAVFoundation"},
    };
}

Dictionary makeUserDefaults(const std::vector<std::pair<uint32_t, std::string>>& domainKeys) {
    Dictionary defaults = Logging::loggingSharedDefaults();
    for (const auto& [value, key] : domainKeys) defaults.set(key, false);
    return defaults;
}

void setLevel(std::atomic<int32_t>& variable, std::string_view key, int32_t level) {
    if (variable.load(std::memory_order_relaxed) == level) return;
    variable.store(level, std::memory_order_relaxed);
    const auto store = QRLDefaultsFactory::shared();
    store->setInteger(Logging::preferencesLevelForQRLLevel(level), key);
    store->synchronize();
}

std::vector<std::string> processArguments() {
    std::ifstream in("/proc/self/cmdline", std::ios::binary);
    const std::string all((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    std::vector<std::string> arguments;
    std::size_t start = 0;
    while (start < all.size()) {
        std::size_t end = all.find('\0', start);
        if (end == std::string::npos) end = all.size();
        arguments.emplace_back(all, start, end - start);
        start = end + 1;
    }
    return arguments;
}

std::vector<std::string> commandLineArguments() {
    ClassState& s = classState();
    std::lock_guard lock(s.argumentsMutex);
    if (!s.arguments) s.arguments = processArguments();
    return *s.arguments;
}

// A private user-defaults object of registerAlternateSuites: its search list
// is the suites added to it, of which only the argument domain holds values
// here; other suites are named and kept for as long as the object lives.
class AlternateSuites {
public:
    static constexpr std::string_view kArgumentDomain = "NSArgumentDomain";

    void addSuiteNamed(std::string name) {
        if (name == kArgumentDomain) arguments_ = detail::argumentDomain(commandLineArguments());
        suites_.push_back(std::move(name));
    }
    Value objectForKey(std::string_view key) const { return arguments_ ? arguments_->get(key) : Value(); }

private:
    std::vector<std::string> suites_;
    std::optional<Dictionary> arguments_;
};

}  // namespace

// ---- Start.

void LoggerStart() {
    ClassState& s = classState();
    std::lock_guard lock(s.classLock);
    if (s.started) return;
    s.started = true;
    Logging::initialize();
}

// Defined (to anything) by a host program that starts logging itself; left
// undefined, its address is null.
extern "C" {
[[gnu::weak]] extern const int qrl_host_starts_logging;
}

namespace {

// Runs when the library is loaded, before the host's main() and before any
// code of the framework can log. Start-up reads the store and attaches the
// outputs; it does not reach the session bus (changes are broadcast later,
// from a run loop), so a missing bus never holds loading up.
[[gnu::constructor]] void startLoggingAtLoad() {
    if (&qrl_host_starts_logging != nullptr) return;
    const char* optOut = std::getenv("QRL_NO_LOGGER_START");
    if (optOut != nullptr && *optOut != '\0' && std::string_view(optOut) != "0") return;
    LoggerStart();
}

}  // namespace

std::string LoggingChangeHandler::description() const {
    return qrl::format("<LoggingChangeHandler: %p>", static_cast<const void*>(this));
}

void Logging::initialize() {
    try {
        (void)loggingSharedDefaults();
        if (bundleSaysSetupAsNonPersistent()) {
            platformLog("Using non-persistent logging");
            QRLDefaultsFactory::useNonPersistentDefaults();
            (void)QRLDefaultsFactory::shared();
        }
        setupLoggersFromScratch();
    } catch (const std::exception& e) {
        platformLogFormat("Error setting up default logging mapping: %@", e.what());
    } catch (...) {
        platformLogFormat("Error setting up default logging mapping: %@", "unknown exception");
    }
}

const Dictionary& Logging::loggingSharedDefaults() {
    // Preferences level 2: Warnings is the preferred default.
    static const Dictionary defaults{
        {std::string(kQRLSharedLoggingLevel), 2},   {std::string(kQRLFoundationLoggingLevel), 2},
        {std::string(kQRLLegacyLoggingLevel), 2},   {std::string(kQRLQuicktimeLoggingLevel), 2},
        {std::string(kQRLUploaderLoggingLevel), 2}, {std::string(kQRLApplicationLoggingLevel), 2},
    };
    return defaults;
}

void Logging::setupLoggersFromScratch() {
    ClassState& s = classState();
    std::lock_guard lock(s.classLock);
    additionalApplicationLogLevel.store(kLogLoadValues.domains, std::memory_order_relaxed);
    resetLoggingFormatters();
    std::shared_ptr<Logging> instance = defaultLogger();
    if (instance) instance->removeDefaultsObservers();
    if (!instance) {
        instance = create();
        std::lock_guard instanceLock(s.instanceMutex);
        s.instance = instance;
    }
    instance->addDefaultsObservers();
    instance->pushPreferencesLoggingLevelsToLogger();
}

void Logging::removeAllLoggers() {
    QRLLog::flushLog();
    QRLLog::removeAllLoggers();
}

void Logging::resetLoggingFormatters() {
    removeAllLoggers();
    const bool classAndMethod = _qrl_enableClassAndMethodLogging.load(std::memory_order_relaxed);

    auto ttyFormat = std::make_shared<ThreadLogger>();
    ttyFormat->setIncludeDate(true);
    ttyFormat->setIncludeClassAndMethod(classAndMethod);
    const auto tty = QRLTTYLogger::sharedInstance();
    tty->setLogFormatter(ttyFormat);
    QRLLog::addLogger(tty);

    auto aslFormat = std::make_shared<ThreadLogger>();
    aslFormat->setIncludeClassAndMethod(classAndMethod);
    const auto asl = QRLASLLogger::sharedInstance();
    asl->setLogFormatter(aslFormat);
    QRLLog::addLogger(asl);
}

bool Logging::bundleSaysSetupAsNonPersistent() {
    const auto bundle = Bundle::main();
    return bundle && bundle->info && bundle->info->contains(kNonPersistentLoggingKey);
}

void Logging::registerAlternateSuites() {
    AlternateSuites defaults;
    defaults.addSuiteNamed(std::string(AlternateSuites::kArgumentDomain));
    Value domain = defaults.objectForKey(kLoggingDomainKey);
    if (!domain.isNull()) {
        platformLogFormat("Making app use logging domain %@ (from args)", domain);
    } else {
        const auto bundle = Bundle::main();
        if (bundle && bundle->info) domain = bundle->info->get(kLoggingDomainKey);
        if (domain.isNull()) return;
        platformLogFormat("Making app use logging domain %@ (from info.plist)", domain);
    }
    defaults.addSuiteNamed(domain.description());
}

void Logging::setCommandLineArguments(std::vector<std::string> arguments) {
    ClassState& s = classState();
    std::lock_guard lock(s.argumentsMutex);
    s.arguments = std::move(arguments);
}

std::shared_ptr<Logging> Logging::defaultLogger() {
    ClassState& s = classState();
    std::lock_guard lock(s.instanceMutex);
    return s.instance;
}

void Logging::kick() {
    const auto store = QRLDefaultsFactory::shared();
    auto options = std::make_shared<Dictionary>(store->snapshot());
    options->set(std::string(kLoggingOptionsReceiveCount), 0);
    options->set(std::string(kLoggingDistributedNotification), true);
    const auto instance = defaultLogger();
    const std::string object = instance ? instance->description() : std::string("(null)");
    DistributedNotificationCenter::defaultCenter()->postNotificationName(kLoggingOptionsChanged, object,
                                                                         Value(std::move(options)));
}

void Logging::registerLoggingChangeHandler(std::shared_ptr<LoggingChangeHandler> handler) {
    if (const auto instance = defaultLogger()) instance->addObserver(std::move(handler));
}

int32_t Logging::sharedLoggingLevel() { return sharedLogLevel.load(std::memory_order_relaxed); }
int32_t Logging::applicationLoggingLevel() { return applicationLogLevel.load(std::memory_order_relaxed); }
int32_t Logging::foundationLoggingLevel() { return foundationLogLevel.load(std::memory_order_relaxed); }
int32_t Logging::legacyLoggingLevel() { return legacyLogLevel.load(std::memory_order_relaxed); }
int32_t Logging::quicktimeLoggingLevel() { return qtClientLogLevel.load(std::memory_order_relaxed); }
int32_t Logging::uploaderLoggingLevel() { return uploaderLogLevel.load(std::memory_order_relaxed); }

void Logging::setSharedLoggingLevel(int32_t level) { setLevel(sharedLogLevel, kQRLSharedLoggingLevel, level); }
void Logging::setApplicationLoggingLevel(int32_t level) {
    setLevel(applicationLogLevel, kQRLApplicationLoggingLevel, level);
}
void Logging::setFoundationLoggingLevel(int32_t level) {
    setLevel(foundationLogLevel, kQRLFoundationLoggingLevel, level);
}
void Logging::setLegacyLoggingLevel(int32_t level) { setLevel(legacyLogLevel, kQRLLegacyLoggingLevel, level); }
void Logging::setQuicktimeLoggingLevel(int32_t level) { setLevel(qtClientLogLevel, kQRLQuicktimeLoggingLevel, level); }
void Logging::setUploaderLoggingLevel(int32_t level) { setLevel(uploaderLogLevel, kQRLUploaderLoggingLevel, level); }

bool Logging::loggingEnabled() { return qrl_loggingEnabled.load(std::memory_order_relaxed); }

void Logging::setLoggingEnabled(bool enabled) {
    if (qrl_loggingEnabled.exchange(enabled, std::memory_order_relaxed) == enabled) return;
    platformLogFormat("Logging now: %@", enabled ? "Enabled" : "Disabled");
}

std::string Logging::descriptionForLoggingLevel(int32_t level) {
    switch (level) {
        case kLogLevelOff:
            return localizedString("None");
        case kLogLevelError:
            return localizedString("Errors");
        case kLogLevelWarning:
            return localizedString("Warnings");
        case kLogLevelInfo:
            return localizedString("Info");
        case kLogLevelVerbose:
            return localizedString("Verbose");
        default:
            platformLogFormat("Don't know how to describe level %d - returning unknown", level);
            return localizedString("Unknown");
    }
}

std::string Logging::descriptionForPreferencesLoggingLevel(int32_t preferencesLevel) {
    switch (preferencesLevel) {
        case 0:
            return localizedString("None");
        case 1:
            return localizedString("Errors");
        case 2:
            return localizedString("Warnings");
        case 3:
            return localizedString("Info");
        case 4:
            return localizedString("Verbose");
        default:
            platformLogFormat("Don't know how to describe preferences level %d - returning unknown", preferencesLevel);
            return localizedString("Unknown");
    }
}

int32_t Logging::preferencesLevelForQRLLevel(int32_t level) {
    switch (level) {
        case kLogLevelError:
            return 1;
        case kLogLevelWarning:
            return 2;
        case kLogLevelInfo:
            return 3;
        case kLogLevelVerbose:
            return 4;
        default:
            return 0;
    }
}

int32_t Logging::qrlLogLevelForPreferencesLevel(int32_t preferencesLevel) {
    switch (preferencesLevel) {
        case 1:
            return kLogLevelError;
        case 2:
            return kLogLevelWarning;
        case 3:
            return kLogLevelInfo;
        case 4:
            return kLogLevelVerbose;
        default:
            return kLogLevelOff;
    }
}

void Logging::enableApplicationContext(uint32_t mask) {
    additionalApplicationLogLevel.fetch_or(mask, std::memory_order_relaxed);
}

void Logging::disableApplicationContext(uint32_t mask) {
    uint32_t current = additionalApplicationLogLevel.load(std::memory_order_relaxed);
    while ((current & mask) == mask) {
        if (additionalApplicationLogLevel.compare_exchange_weak(current, current & ~mask, std::memory_order_relaxed))
            return;
    }
}

void Logging::setEnableClassAndMethodLogging(bool enabled) {
    if (_qrl_enableClassAndMethodLogging.exchange(enabled, std::memory_order_relaxed) == enabled) return;
    resetLoggingFormatters();
}

void Logging::setAutomaticallySynchronizeUserDefaults(bool synchronize) {
    const auto instance = defaultLogger();
    if (instance) instance->removeDefaultsObservers();
    qrl_autoSyncDefaults.store(synchronize, std::memory_order_relaxed);
    if (synchronize)
        QRLDefaultsFactory::useNSUserDefaults();
    else
        QRLDefaultsFactory::useNonPersistentDefaults();
    (void)QRLDefaultsFactory::shared();
    if (instance) instance->addDefaultsObservers();
}

// ---- The instance.

Logging::Logging(Passkey) : domainKeys_(makeDomainKeys()), userDefaults_(makeUserDefaults(domainKeys_)) {}

std::shared_ptr<Logging> Logging::create() {
    auto logging = std::make_shared<Logging>(Passkey{});
    // The local observers refer to the instance weakly: registered once it
    // is owned.
    std::weak_ptr<Logging> weak = logging;
    auto removeObservers = [weak](const Notification& notification) {
        if (auto self = weak.lock()) self->removeObservers(notification);
    };
    NotificationCenter& center = NotificationCenter::defaultCenter();
    std::lock_guard lock(logging->mutex_);
    logging->localTokens_.push_back(center.addObserver(QRLDefaultsBeingDeallocated, nullptr, removeObservers));
    logging->localTokens_.push_back(
        center.addObserver(kApplicationWillTerminateNotification, nullptr, removeObservers));
    return logging;
}

Logging::~Logging() { tearDown(); }

void Logging::tearDown() {
    std::vector<NotificationCenter::Token> tokens;
    std::vector<std::shared_ptr<KeyObservable>> observed;
    std::vector<Registration> registrations;
    {
        std::lock_guard lock(mutex_);
        tokens.swap(localTokens_);
        observed.swap(observedObjects_);
        registrations.swap(notificationRegister_);
    }
    for (NotificationCenter::Token token : tokens) NotificationCenter::defaultCenter().removeObserver(token);
    std::vector<std::string> keys = levelKeyList();
    for (auto& key : domainKeyList()) keys.push_back(std::move(key));
    keys.emplace_back(kQRLLoggingEnabled);
    for (const auto& object : observed) {
        for (const std::string& key : keys) {
            try {
                object->removeObserver(static_cast<const void*>(static_cast<KeyValueObserver*>(this)), key);
            } catch (...) {
                // Not observed (any more): nothing to take off.
            }
        }
    }
    for (const Registration& r : registrations) r.center->removeObserver(r.handler.get());
    RunLoop::main().cancelPreviousPerformRequestsWithTarget(this);
    RunLoop::current().cancelPreviousPerformRequestsWithTarget(this);
    observersAdded_.store(false, std::memory_order_relaxed);
}

std::vector<std::string> Logging::levelKeyList() const {
    std::vector<std::string> keys;
    for (const auto& [key, value] : loggingSharedDefaults()) keys.push_back(key);
    return keys;
}

std::vector<std::string> Logging::domainKeyList() const {
    std::vector<std::string> keys;
    for (const auto& [value, key] : domainKeys_) keys.push_back(key);
    return keys;
}

bool Logging::isDomainKey(std::string_view key) const {
    for (const auto& [value, name] : domainKeys_) {
        if (name == key) return true;
    }
    return false;
}

void Logging::pushPreferencesLoggingLevelsToLogger() {
    // A copy taken under the store's lock: the in-memory store's map is live,
    // and the setters below (and other threads) write into it.
    pushPreferencesLoggingLevelsToLoggerUsing(QRLDefaultsFactory::shared()->snapshot());
}

void Logging::pushPreferencesLoggingLevelsToLoggerUsing(const Dictionary& map) {
    for (const LevelSlot& slot : kPushOrder) {
        const auto preferencesLevel = static_cast<int32_t>(integerValueForKey(map, slot.key));
        setLevel(*slot.variable, slot.key, qrlLogLevelForPreferencesLevel(preferencesLevel));
    }
    for (const auto& [value, key] : domainKeys_) {
        if (boolValueForKey(map, key))
            enableApplicationContext(value);
        else
            disableApplicationContext(value);
    }
}

void Logging::updateLoggingPreferencesBecauseOfNotification(const DistributedNotification& notification) {
    struct RemoteUpdate {
        std::atomic<bool>& flag;
        explicit RemoteUpdate(std::atomic<bool>& f) : flag(f) { flag.store(true, std::memory_order_relaxed); }
        ~RemoteUpdate() { flag.store(false, std::memory_order_relaxed); }
    } remoteUpdate(performingRemoteUpdate_);
    const auto& options = notification.userInfo.asDictionary();
    const Dictionary none;
    pushPreferencesLoggingLevelsToLoggerUsing(options ? *options : none);
    if (options) {
        if (const Value* enabled = options->find(kQRLLoggingEnabled); enabled && enabled->isNumber())
            setLoggingEnabled(enabled->boolValue());
    }
}

void Logging::observeValueForKeyPath(std::string_view keyPath, KeyObservable&, const KeyValueChange&, void*) {
    const auto store = QRLDefaultsFactory::shared();
    if (loggingSharedDefaults().contains(keyPath)) {
        const int32_t preferencesLevel = store->integerForKey(keyPath);
        store->setObject(Value(descriptionForPreferencesLoggingLevel(preferencesLevel)),
                         qrl::format("%@Text", keyPath));
        pushPreferencesLoggingLevelsToLogger();
    }
    if (keyPath == kQRLLoggingEnabled) setLoggingEnabled(store->boolForKey(keyPath));
    if (isDomainKey(keyPath)) pushPreferencesLoggingLevelsToLogger();
    if (!performingRemoteUpdate_.load(std::memory_order_relaxed)) {
        RunLoop& loop = RunLoop::current();
        loop.cancelPreviousPerformRequestsWithTarget(this);
        loop.performAfterDelay(
            kPropagationDelay,
            [weak = weak_from_this()] {
                if (auto self = weak.lock()) self->propagateChanges();
            },
            this);
    }
}

void Logging::propagateChanges() { kick(); }

void Logging::addDefaultsObservers() {
    const auto store = QRLDefaultsFactory::shared();
    store->registerDefaults(userDefaults_);
    if (!observersAdded_.load(std::memory_order_relaxed)) {
        QRLLogVerbose("Adding logging change observers to %@", *store);
        const auto observable = store->observableObject();
        {
            std::lock_guard lock(mutex_);
            bool known = false;
            for (const auto& o : observedObjects_) known = known || o == observable;
            if (!known) observedObjects_.push_back(observable);
        }
        qrl::addObserver(*observable, *this, levelKeyList(), NSKeyValueObservingOptionInitial);
        qrl::addObserver(*observable, *this, domainKeyList(), NSKeyValueObservingOptionInitial);
        qrl::addObserver(*observable, *this, {std::string(kQRLLoggingEnabled)}, 0);
        observersAdded_.store(true, std::memory_order_relaxed);
    }
    setLoggingEnabled(store->boolForKey(kQRLLoggingEnabled));
}

void Logging::removeDefaultsObservers() {
    if (!observersAdded_.load(std::memory_order_relaxed)) return;
    const auto store = QRLDefaultsFactory::shared();
    QRLLogVerbose("Removing logging change observers from %@", *store);
    const auto observable = store->observableObject();
    qrl::removeObserver(*observable, *this, levelKeyList());
    qrl::removeObserver(*observable, *this, domainKeyList());
    qrl::removeObserver(*observable, *this, {std::string(kQRLLoggingEnabled)});
    {
        std::lock_guard lock(mutex_);
        std::erase(observedObjects_, observable);
    }
    store->synchronize();
    observersAdded_.store(false, std::memory_order_relaxed);
}

void Logging::addObserver(std::shared_ptr<LoggingChangeHandler> handler) {
    if (!handler) return;
    const auto center = DistributedNotificationCenter::defaultCenter();
    {
        std::lock_guard lock(mutex_);
        notificationRegister_.push_back(Registration{handler, center});
    }
    QRLLogVerbose("Added %@ as an observer", *handler);
    std::weak_ptr<LoggingChangeHandler> weak = handler;
    center->addObserver(handler.get(), kLoggingOptionsChanged, std::nullopt,
                        [weak](const DistributedNotification& notification) {
                            if (auto h = weak.lock()) h->loggingOptionsChanged(notification);
                        });
}

void Logging::removeObservers(const Notification&) {
    if (!observersAdded_.load(std::memory_order_relaxed)) return;
    std::vector<Registration> registrations;
    {
        std::lock_guard lock(mutex_);
        registrations = notificationRegister_;
    }
    for (const Registration& r : registrations) r.center->removeObserver(r.handler.get());
    observersAdded_.store(false, std::memory_order_relaxed);
}

std::string Logging::integerToBinary(uint32_t n) {
    std::string bits(32, '0');
    for (int i = 0; i < 32; ++i) {
        if (n & (1u << (31 - i))) bits[static_cast<std::size_t>(i)] = '1';
    }
    return bits;
}

std::vector<std::shared_ptr<LoggingChangeHandler>> Logging::notificationRegister() const {
    std::lock_guard lock(mutex_);
    std::vector<std::shared_ptr<LoggingChangeHandler>> out;
    for (const Registration& r : notificationRegister_) out.push_back(r.handler);
    return out;
}

std::string Logging::description() const { return qrl::format("<Logging: %p>", static_cast<const void*>(this)); }

// ---- Tests and helpers.

namespace detail {

void resetLoggingForTesting() {
    ClassState& s = classState();
    std::shared_ptr<Logging> instance;
    {
        std::lock_guard lock(s.classLock);
        std::lock_guard instanceLock(s.instanceMutex);
        instance = std::move(s.instance);
        s.started = false;
    }
    if (instance) instance->tearDown();
    instance.reset();
    {
        std::lock_guard lock(s.argumentsMutex);
        s.arguments.reset();
    }
    QRLLog::flushLog();
    QRLLog::removeAllLoggers();
    QRLLog::flushLog();
    resetLogLevelsToLoadValues();
}

Dictionary argumentDomain(const std::vector<std::string>& arguments) {
    Dictionary domain;
    for (std::size_t i = 1; i + 1 < arguments.size(); ++i) {
        const std::string& argument = arguments[i];
        if (argument.size() < 2 || argument[0] != '-') continue;
        domain.set(argument.substr(1), arguments[i + 1]);
        ++i;
    }
    return domain;
}

}  // namespace detail

}  // namespace qrl
