#include "qrl/video/DisplaysProvider.h"

#include <array>
#include <cmath>
#include <limits>

#include "qrl/foundation/Clock.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/Strings.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/system/Utils.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/OpenGLGraphics.h"
#include "qrl/video/ScreenFrameUnion.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

namespace {

constexpr uint32_t kMaxDisplays = 32;
constexpr double kCheckInterval = 1.0;
constexpr double kSettleDelay = 0.2;
constexpr auto kLockWait = std::chrono::microseconds(1'000'000 / 30);

std::recursive_mutex& classMonitor() {
    static std::recursive_mutex m;
    return m;
}

// Truncation toward zero into 32 bits; values outside the range saturate and
// NaN gives 0, where a plain conversion would be undefined.
int32_t truncToInt32(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
    if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

uint32_t truncToUInt32(double v) {
    if (std::isnan(v) || v <= 0.0) return 0;
    if (v >= 4294967295.0) return std::numeric_limits<uint32_t>::max();
    return static_cast<uint32_t>(v);
}

Value displayIDValue(CGDirectDisplayID id) { return Value(static_cast<int32_t>(id)); }

Value arrayOfMaps(const std::vector<DisplayMetadata>& maps) {
    auto array = std::make_shared<Array>();
    array->reserve(maps.size());
    for (const auto& m : maps) array->push_back(Value(m));
    return Value(array);
}

}  // namespace

// ---------------------------------------------------------------- lifecycle

std::shared_ptr<DisplaysProvider> DisplaysProvider::defaultProvider() {
    // Made once and never released.
    static std::shared_ptr<DisplaysProvider>* shared = new std::shared_ptr<DisplaysProvider>(create());
    return *shared;
}

std::shared_ptr<DisplaysProvider> DisplaysProvider::create(NotificationCenter& center) {
    std::shared_ptr<DisplaysProvider> provider(new DisplaysProvider(center));
    provider->start();
    return provider;
}

DisplaysProvider::DisplaysProvider(NotificationCenter& center)
    : KeyObservable(), center_(center) {
    setValueGetter([this](std::string_view key) -> Value {
        if (key == "monitoredDisplays") return arrayOfMaps(metadataForAllConnectedDisplays());
        if (key == "monitoringDisplay") return Value(monitoringDisplay());
        return Value();
    });
}

void DisplaysProvider::start() {
    refreshCachedDisplays();
    std::weak_ptr<DisplaysProvider> weak = weak_from_this();
    observations_.push_back(center_.addObserver(kNSApplicationDidChangeScreenParametersNotification, nullptr,
                                                [weak](const Notification& n) {
                                                    if (auto self = weak.lock()) self->resetDisplays(&n);
                                                }));
    observations_.push_back(center_.addObserver(kNSWorkspaceWillSleepNotification, nullptr,
                                                [weak](const Notification& n) {
                                                    if (auto self = weak.lock()) self->goingToSleep(&n);
                                                }));
    observations_.push_back(center_.addObserver(kNSWorkspaceDidWakeNotification, nullptr,
                                                [weak](const Notification& n) {
                                                    if (auto self = weak.lock()) self->wakingUp(&n);
                                                }));
    previousCaptureState_.store(captured(), std::memory_order_relaxed);
    startCheckTimer();
}

DisplaysProvider::~DisplaysProvider() {
    stopCheckTimer();
    {
        std::lock_guard lock(delayedMutex_);
        if (delayedLoop_) delayedLoop_->cancelPreviousPerformRequestsWithTarget(this);
    }
    for (const auto token : observations_) center_.removeObserver(token);
    std::lock_guard lock(dataCacheLock_);
    cards_.reset();
}

void DisplaysProvider::startCheckTimer() {
    stopCheckTimer();
    std::lock_guard lock(monitor_);
    std::weak_ptr<DisplaysProvider> weak = weak_from_this();
    timerLoop_ = &RunLoop::current();
    timer_ = timerLoop_->addTimer(kCheckInterval, true, [weak] {
        if (auto self = weak.lock()) self->checkCaptureState();
    });
    QRLLogVerbose("Display provider checking turned on");
}

void DisplaysProvider::stopCheckTimer() {
    std::lock_guard lock(monitor_);
    if (timer_ == 0) return;
    timerLoop_->cancel(timer_);
    timer_ = 0;
    timerLoop_ = nullptr;
    QRLLogVerbose("Display provider checking turned off");
}

bool DisplaysProvider::asleep() const {
    std::lock_guard lock(monitor_);
    return timer_ == 0;
}

void DisplaysProvider::goingToSleep(const Notification*) { stopCheckTimer(); }

void DisplaysProvider::wakingUp(const Notification*) { startCheckTimer(); }

// ---------------------------------------------------------------- cache

std::vector<DisplayMetadata> DisplaysProvider::metadataForAllConnectedDisplays() {
    std::lock_guard cacheLock(dataCacheLock_);
    if (cards_) return *cards_;

    cards_.emplace();
    const auto displays = VideoPlatform::displayServer();
    std::vector<CGDirectDisplayID> ids;
    CGError err;
    {
        std::lock_guard lock(monitor_);
        err = displays->getActiveDisplayList(kMaxDisplays, ids);
    }
    if (err != kCGErrorSuccess) {
        QRLLogWarn("Cannot get number of active displays - assuming zero");
        return *cards_;
    }
    for (size_t i = 0; i < ids.size() && i < kMaxDisplays; ++i) {
        const CGDirectDisplayID id = ids[i];
        NSRect bounds;
        {
            std::lock_guard lock(monitor_);
            bounds = displayBoundsInPixels(id);
        }
        QRLLogVerbose("Bounds for display %d is %@", static_cast<int>(i), bounds);
        if (!captured()) {
            setLastCapturedRect(NSZeroRect);
        } else if (id == displayIDToBeMonitored_.load(std::memory_order_relaxed)) {
            setLastCapturedRect(bounds);
        }
        DisplayMetadata map = detailFor(id);
        try {
            const std::string card = OpenGLGraphics::cardDescription(id);
            map->set(std::string(kDPCardName), Value(card));
            map->set(std::string(kDPCanCreateContextOnCard), Value(true));
        } catch (const Exception&) {
            map->set(std::string(kDPCardName), Value(localizedString("Unable to get graphics card name")));
            map->set(std::string(kDPCanCreateContextOnCard), Value(false));
        }
        const bool matched = map->get(kDPMatchedToScreen).boolValue();
        if (matched && map->contains(kDPRenderers)) {
            cards_->push_back(std::move(map));
        } else if (!matched) {
            QRLLogWarn("Error getting information for display %ld, couldn't match it to a known screen device",
                       static_cast<long>(id));
        }
    }
    return *cards_;
}

void DisplaysProvider::refreshCachedDisplays() {
    if (refreshInProgress_.load(std::memory_order_relaxed)) {
        QRLLogVerbose("Refresh already in progress, ignoring...");
        return;
    }
    {
        std::lock_guard cacheLock(dataCacheLock_);
        refreshInProgress_.store(true, std::memory_order_relaxed);
        QRLLogVerbose("Refreshing cached display information ...");
        cards_.reset();
        // An exception from here on leaves the guard set: later refreshes are ignored.
        metadataForAllConnectedDisplays();
        monitorForCaptureResChange();
        NSRect all = NSZeroRect;
        for (const auto& display : metadataForAllConnectedDisplays()) {
            all = NSUnionRect(all, displayRectForDisplayMetadata(display));
        }
        std::lock_guard lock(rectsMutex_);
        allScreensFrame_ = all;
        allScreensFrameCache_ = NSZeroRect;
    }
    // Posted outside the lock; the guard is cleared after the post, so that a
    // refresh asked for by an observer is ignored. An exception, an
    // observer's included, leaves the guard set: later refreshes are ignored.
    if (auto self = weak_from_this().lock()) {
        center_.post(kDPNDisplayListChanged, std::shared_ptr<void>(self));
    } else {
        center_.post(kDPNDisplayListChanged, static_cast<const void*>(this));
    }
    refreshInProgress_.store(false, std::memory_order_relaxed);
}

void DisplaysProvider::resetDisplays(const Notification*) {
    QRLLogVerbose("Received notification to refresh - refreshing cached displays");
    willChangeValueForKey("monitoredDisplays");
    // An exception goes on to the caller with no did-change event.
    refreshCachedDisplays();
    didChangeValueForKey("monitoredDisplays");
}

int32_t DisplaysProvider::displayCount() {
    std::unique_lock lock(dataCacheLock_, std::try_to_lock);
    if (!lock.owns_lock() || !cards_) return 0;
    return static_cast<int32_t>(cards_->size());
}

// ---------------------------------------------------------------- lookups

DisplayMetadata DisplaysProvider::detailFor(CGDirectDisplayID display) {
    const auto displays = VideoPlatform::displayServer();
    NSRect bounds;
    uint32_t mask;
    {
        std::lock_guard lock(classMonitor());
        bounds = displayBoundsInPixels(display);
        mask = displays->displayIDToOpenGLDisplayMask(display);
    }
    const int32_t width = truncToInt32(bounds.size.width);
    const int32_t height = truncToInt32(bounds.size.height);
    auto map = std::make_shared<Dictionary>();
    map->set("displayID", displayIDValue(display));
    map->set("displayMask", Value(static_cast<int32_t>(mask)));
    map->set("width", Value(width));
    map->set("height", Value(height));
    map->set("origin.x", Value(truncToInt32(bounds.origin.x)));
    map->set("origin.y", Value(truncToInt32(bounds.origin.y)));
    map->set("size.width", Value(width));
    map->set("size.height", Value(height));
    map->set(std::string(kDPMatchedToScreen), Value(false));

    NSScreenRef screen;
    for (const auto& candidate : NSScreen::screens()) {
        if (directDisplayID(*candidate) == display) {
            screen = candidate;
            break;
        }
    }
    if (!screen) return map;
    map->set(std::string(kDPFrame), boxRect(screen->frame()));
    map->set(std::string(kDPMatchedToScreen), Value(true));

    std::vector<RendererDescription> renderers;
    if (VideoPlatform::graphicsDevices()->queryRendererInfo(mask, renderers) != kCGLNoError) return map;
    auto list = std::make_shared<Array>();
    for (const RendererDescription& r : renderers) {
        if (r.accelerated == 0) continue;  // software renderers never appear
        list->push_back(Value::dictionary({{"rendererID", Value(r.rendererID)},
                                           {"fullscreen", Value(r.fullScreen)},
                                           {"video.memory", Value(r.videoMemory)},
                                           {"texture.memory", Value(r.textureMemory)}}));
    }
    if (!list->empty()) map->set(std::string(kDPRenderers), Value(list));
    return map;
}

DisplayMetadata DisplaysProvider::stateForDisplayWithID(const Value& displayID) {
    for (const auto& map : metadataForAllConnectedDisplays()) {
        std::lock_guard lock(mapMonitor(map.get()));
        if (map->get(kDPDisplayID) == displayID) return map;
    }
    return nullptr;
}

CGDirectDisplayID DisplaysProvider::displayIDForMetadata(const DisplayMetadata& metadata) const {
    if (!metadata) return 0;
    std::lock_guard lock(mapMonitor(metadata.get()));
    const Value* id = metadata->find(kDPDisplayID);
    return id ? static_cast<CGDirectDisplayID>(id->intValue()) : 0;
}

NSRect DisplaysProvider::displayRectForDisplayMetadata(const DisplayMetadata& metadata) const {
    if (!metadata) return NSZeroRect;
    std::lock_guard lock(mapMonitor(metadata.get()));
    const Value* frame = metadata->find(kDPFrame);
    if (!metadata->contains(kDPDisplayID) || !frame) return NSZeroRect;
    return rectValue(*frame).value_or(NSZeroRect);
}

Value DisplaysProvider::renderIDForActiveDisplay(const DisplayMetadata& metadata) const {
    if (!metadata) return Value();
    std::lock_guard lock(mapMonitor(metadata.get()));
    const Value* renderers = metadata->find(kDPRenderers);
    if (!renderers || !renderers->isArray()) return Value();
    const auto& list = renderers->asArray();
    if (list->empty()) Exception::raise("NSRangeException", "index 0 beyond bounds for empty array");
    return list->front()[kDPRendererID];
}

std::vector<DisplayMetadata> DisplaysProvider::activeDisplaysOnRenderer(const Value& rendererID) {
    std::vector<DisplayMetadata> out;
    std::unique_lock lock(dataCacheLock_, kLockWait);
    if (!lock.owns_lock()) return out;
    for (const auto& display : metadataForAllConnectedDisplays()) {
        if (renderIDForActiveDisplay(display) == rendererID) out.push_back(display);
    }
    return out;
}

std::vector<DisplayMetadata> DisplaysProvider::activeDisplaysOnRenderer(const Value& rendererID, float wait) {
    std::vector<DisplayMetadata> result = activeDisplaysOnRenderer(rendererID);
    if (!result.empty()) return result;
    Clock& clock = installedClock();
    const uint64_t start = clock.now();
    const double waitSeconds = static_cast<double>(wait);
    while (static_cast<double>(clock.now() - start) / clock.frequency() < waitSeconds) {
        Utils::sleepForTimeInterval(0.5);
        std::unique_lock lock(dataCacheLock_, kLockWait);
        if (!lock.owns_lock()) continue;
        cards_.reset();
        result = activeDisplaysOnRenderer(rendererID);
    }
    return result;
}

std::vector<DisplayMetadata> DisplaysProvider::graphicsCardsByRenderID() {
    Dictionary byText;  // keyed by the renderer ID's text; insertion order kept
    for (const auto& display : metadataForAllConnectedDisplays()) {
        const Value rendererID = renderIDForActiveDisplay(display);
        std::string name;
        {
            std::lock_guard lock(mapMonitor(display.get()));
            name = display->get(kDPCardName).stringValue();
        }
        static constexpr std::string_view kEngine = " OpenGL Engine";
        if (const size_t at = name.find(kEngine); at != std::string::npos) name.erase(at, kEngine.size());
        byText.set(rendererID.stringValue(),
                   Value::dictionary({{"name", Value(name)}, {std::string(kDPRendererID), rendererID}}));
    }
    std::vector<DisplayMetadata> out;
    for (const auto& [key, card] : byText) out.push_back(card.asDictionary());
    return out;
}

Value DisplaysProvider::firstGraphicsCardRendererID() {
    const auto cards = graphicsCardsByRenderID();
    if (cards.empty()) return Value();
    return cards.front()->get(kDPRendererID);
}

std::vector<DisplayMetadata> DisplaysProvider::displaysByDisplayID() {
    std::vector<DisplayMetadata> out;
    int number = 0;
    for (const auto& display : metadataForAllConnectedDisplays()) {
        const NSRect frame = displayRectForDisplayMetadata(display);
        Value id;
        {
            std::lock_guard lock(mapMonitor(display.get()));
            id = display->get(kDPDisplayID);
        }
        out.push_back(std::make_shared<Dictionary>(Dictionary{
            {"name", Value(qrl::format("Display %d, %ld x %ld", ++number,
                                       static_cast<long>(truncToInt32(frame.size.width)),
                                       static_cast<long>(truncToInt32(frame.size.height))))},
            {std::string(kDPDisplayID), id}}));
    }
    return out;
}

Value DisplaysProvider::rendererForDisplayID(CGDirectDisplayID display) {
    const Value wanted(static_cast<long long>(display));  // 64-bit
    for (const auto& map : metadataForAllConnectedDisplays()) {
        bool match;
        {
            std::lock_guard lock(mapMonitor(map.get()));
            match = map->get(kDPDisplayID) == wanted;
        }
        if (match) return renderIDForActiveDisplay(map);
    }
    Exception::raise("NoState", qrl::format("Can't find anything for display ID: %ld", static_cast<long>(display)));
}

std::string DisplaysProvider::cardNameForRendererID(const Value& rendererID) {
    std::string name = "Unknown";
    for (const auto& card : graphicsCardsByRenderID()) {
        if (card->get(kDPRendererID) == rendererID) name = card->get("name").stringValue();
    }
    return name;
}

NSRect DisplaysProvider::mainDisplay() {
    std::lock_guard lock(monitor_);
    return displayBoundsInPixels(VideoPlatform::displayServer()->mainDisplayID());
}

// ---------------------------------------------------------------- rectangles

NSRect DisplaysProvider::lastCapturedRectValue() const {
    std::lock_guard lock(rectsMutex_);
    return lastCapturedRect_;
}

void DisplaysProvider::setLastCapturedRect(const NSRect& r) {
    std::lock_guard lock(rectsMutex_);
    lastCapturedRect_ = r;
}

NSRect DisplaysProvider::allScreensFrameOrCapturedArea() {
    if (!captured()) {
        std::lock_guard lock(rectsMutex_);
        return allScreensFrame_;
    }
    monitorForCaptureResChange();
    const CGDirectDisplayID id = displayIDToBeMonitored_.load(std::memory_order_relaxed);
    if (id != 0) {
        if (auto state = stateForDisplayWithID(displayIDValue(id))) return displayRectForDisplayMetadata(state);
    }
    return lastCapturedRectValue();
}

NSRect DisplaysProvider::allScreensFrameForRenderer(const Value& rendererID) {
    {
        std::lock_guard lock(rectsMutex_);
        if (!NSIsEmptyRect(allScreensFrameCache_)) return allScreensFrameCache_;
    }
    std::unique_lock cacheLock(dataCacheLock_, std::try_to_lock);
    if (!cacheLock.owns_lock()) {
        std::lock_guard lock(rectsMutex_);
        return allScreensFrameCache_;
    }
    const auto displays = activeDisplaysOnRenderer(rendererID);
    if (displays.empty()) {
        QRLLogInfo("No active displays for renderer: %@", rendererID);
        return NSZeroRect;
    }
    NSRect all;
    {
        std::lock_guard lock(rectsMutex_);
        all = allScreensFrameCache_;
    }
    for (const auto& display : displays) all = NSUnionRect(all, displayRectForDisplayMetadata(display));
    std::lock_guard lock(rectsMutex_);
    allScreensFrameCache_ = all;
    return all;
}

NSRect DisplaysProvider::capturedRect() {
    monitorForCaptureResChange();
    return lastCapturedRectValue();
}

// ---------------------------------------------------------------- capture

bool DisplaysProvider::monitorDisplayIDForCapture(CGDirectDisplayID display) {
    const CGDirectDisplayID current = displayIDToBeMonitored_.load(std::memory_order_relaxed);
    if (current != 0) {
        QRLLogWarn("Cannot monitor display %ld for capture since one (ID: %ld) is already being captured",
                   static_cast<long>(display), static_cast<long>(current));
        return false;
    }
    displayIDToBeMonitored_.store(display, std::memory_order_relaxed);
    return true;
}

bool DisplaysProvider::monitorMainDisplayForCapture() {
    return monitorDisplayIDForCapture(VideoPlatform::displayServer()->mainDisplayID());
}

bool DisplaysProvider::monitorDisplayForCapture(const DisplayMetadata& metadata) {
    if (!metadata) {
        QRLLogWarn("You must specify a display to be monitored - you passed in nil");
        return false;
    }
    const CGDirectDisplayID id = displayIDForMetadata(metadata);
    if (id == 0) {
        QRLLogWarn("Could not get a displayID from the given metadata (%@). Monitoring failde.", Value(metadata));
        return false;
    }
    return monitorDisplayIDForCapture(id);
}

void DisplaysProvider::stopMonitoringForCapturedDisplay() { displayIDToBeMonitored_.store(0, std::memory_order_relaxed); }

bool DisplaysProvider::captured() {
    const CGDirectDisplayID id = displayIDToBeMonitored_.load(std::memory_order_relaxed);
    if (id == 0) return false;
    bool isCaptured;
    {
        std::lock_guard lock(monitor_);
        isCaptured = VideoPlatform::displayServer()->displayIsCaptured(id);
    }
    if (isCaptured) QRLDomainLogVerbose(kLoggingDebug, "Display ID %ld now captured", static_cast<long>(id));
    return isCaptured;
}

void DisplaysProvider::monitorForCaptureResChange() {
    const CGDirectDisplayID id = displayIDToBeMonitored_.load(std::memory_order_relaxed);
    if (id == 0) return;
    if (!captured()) {
        setLastCapturedRect(NSZeroRect);
        return;
    }
    NSRect pixels;
    {
        std::lock_guard lock(monitor_);
        const auto screen = screenForDisplayID(id);
        pixels = displayBoundsInPixelsForScreen(screen.get());
    }
    const uint32_t width = truncToUInt32(pixels.size.width);
    const uint32_t height = truncToUInt32(pixels.size.height);
    const NSRect last = lastCapturedRectValue();
    // The stored rectangle is not truncated: a fractional size differs every time.
    if (static_cast<double>(width) == last.size.width && static_cast<double>(height) == last.size.height) return;
    QRLLogVerbose("Resolution change - refreshing displays");
    refreshCachedDisplays();
}

void DisplaysProvider::checkCaptureState() {
    uint32_t online = 0;
    CGError err;
    {
        std::lock_guard lock(monitor_);
        err = VideoPlatform::displayServer()->getOnlineDisplayCount(online);
    }
    monitorForCaptureResChange();
    const int32_t count = displayCount();
    QRLDomainLogInfo(kLoggingDebug, "Have %d current displays. Change in capture state this time : %@", count,
                     captured() != previousCaptureState_.load(std::memory_order_relaxed) ? "Yes" : "No");
    if (err == kCGErrorSuccess && static_cast<int64_t>(online) != static_cast<int64_t>(count)) {
        QRLDomainLogInfo(kLoggingDebug, "Screen count changed from %ld to %d, refreshing displays",
                         static_cast<long>(count), online);
        refreshCachedDisplays();
    }
    const bool now = captured();
    const bool before = previousCaptureState_.load(std::memory_order_relaxed);
    if (now != before) {
        QRLDomainLogInfo(kLoggingDebug, "Capture state changed (was %d, now %d), refreshing displays",
                         static_cast<int>(before), static_cast<int>(now));
        RunLoop& loop = RunLoop::current();
        {
            std::lock_guard lock(delayedMutex_);
            delayedLoop_ = &loop;
        }
        std::weak_ptr<DisplaysProvider> weak = weak_from_this();
        loop.performAfterDelay(
            kSettleDelay,
            [weak] {
                if (auto self = weak.lock()) self->refreshCachedDisplays();
            },
            this);
        previousCaptureState_.store(now, std::memory_order_relaxed);
    }
}

// ---------------------------------------------------------------- conversions

float DisplaysProvider::scaleFactorForScreen(const NSScreen* screen) {
    if (!screen) return 0.0f;
    return Utils::systemVersion().isLionOrAbove() ? screen->backingScaleFactor() : screen->userSpaceScaleFactor();
}

float DisplaysProvider::scaleFactorForDisplay(CGDirectDisplayID display) {
    return scaleFactorForScreen(screenForDisplayID(display).get());
}

bool DisplaysProvider::screenIsScaled(const NSScreen* screen) { return scaleFactorForScreen(screen) != 1.0f; }

NSScreenRef DisplaysProvider::screenForDisplayID(CGDirectDisplayID display) {
    return screenForCGDirectDisplayID(display);
}

CGDirectDisplayID DisplaysProvider::displayIDForNSPoint(NSPoint point) {
    const auto displays = VideoPlatform::displayServer();
    for (const auto& screen : NSScreen::screens()) {
        if (!NSPointInRect(point, screen->frame())) continue;
        const CGDirectDisplayID id = directDisplayID(*screen);
        if (displays->displayIsActive(id)) return id;
    }
    return displays->mainDisplayID();
}

NSRect DisplaysProvider::displayBoundsForScreen(const NSScreen* screen) {
    return screen ? screen->frame() : NSZeroRect;
}

NSRect DisplaysProvider::displayBounds(CGDirectDisplayID display) {
    return displayBoundsForScreen(screenForDisplayID(display).get());
}

NSRect DisplaysProvider::displayBoundsInPixelsForScreen(const NSScreen* screen) {
    return convertRectToBacking(displayBoundsForScreen(screen), screen);
}

NSRect DisplaysProvider::displayBoundsInPixels(CGDirectDisplayID display) {
    const auto screen = screenForDisplayID(display);
    return displayBoundsInPixelsForScreen(screen.get());
}

NSRect DisplaysProvider::convertRectToBackingUsingScaleFactor(float scaleFactor, NSRect rect) {
    const double f = scaleFactor;
    return NSMakeRect(rect.origin.x * f, rect.origin.y * f, rect.size.width * f, rect.size.height * f);
}

NSRect DisplaysProvider::convertRectFromBackingUsingScaleFactor(float scaleFactor, NSRect rect) {
    const double f = scaleFactor;
    return NSMakeRect(rect.origin.x / f, rect.origin.y / f, rect.size.width / f, rect.size.height / f);
}

NSPoint DisplaysProvider::convertPointToBacking(NSPoint point, const NSScreen* screen) {
    const double f = scaleFactorForScreen(screen);
    return NSMakePoint(point.x * f, point.y * f);
}

namespace {

enum class Direction { ToBacking, FromBacking };

NSRect convertWithScreen(NSRect rect, const NSScreen* screen, Direction direction) {
    const NSPoint origin = screen ? screen->frame().origin : NSZeroPoint;
    NSRect r = rect;
    r.origin.x -= origin.x;
    r.origin.y -= origin.y;
    if (Utils::systemVersion().isLionOrAbove()) {
        if (!screen) r = NSZeroRect;
        else r = direction == Direction::ToBacking ? screen->convertRectToBacking(r) : screen->convertRectFromBacking(r);
    } else {
        const float f = DisplaysProvider::scaleFactorForDisplay(DisplaysProvider::displayIDForNSPoint(origin));
        r = direction == Direction::ToBacking ? DisplaysProvider::convertRectToBackingUsingScaleFactor(f, r)
                                              : DisplaysProvider::convertRectFromBackingUsingScaleFactor(f, r);
    }
    r.origin.x += origin.x;
    r.origin.y += origin.y;
    return r;
}

}  // namespace

NSRect DisplaysProvider::convertRectToBacking(NSRect rect, const NSScreen* screen) {
    return convertWithScreen(rect, screen, Direction::ToBacking);
}

NSRect DisplaysProvider::convertRectFromBacking(NSRect rect, const NSScreen* screen) {
    return convertWithScreen(rect, screen, Direction::FromBacking);
}

NSRect DisplaysProvider::convertRectToBacking(NSRect rect) {
    const auto screen = screenForDisplayID(displayIDForNSPoint(rect.origin));
    return convertRectToBacking(rect, screen.get());
}

NSRect DisplaysProvider::convertRectFromBacking(NSRect rect) {
    const auto screen = screenForDisplayID(displayIDForNSPoint(rect.origin));
    return convertRectFromBacking(rect, screen.get());
}

// ---------------------------------------------------------------- monitors

std::recursive_mutex& DisplaysProvider::mapMonitor(const Dictionary* map) {
    // A fixed table of monitors, picked by the map's address.
    static std::array<std::recursive_mutex, 64> monitors;
    const auto bits = reinterpret_cast<uintptr_t>(map);
    return monitors[(bits >> 4) % monitors.size()];
}

}  // namespace qrl
