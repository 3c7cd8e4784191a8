// DisplaysProvider: the one place that knows which displays are attached,
// which renderer drives each, and whether the display being recorded has
// been taken over; keeps a cache of display metadata maps, refreshes it on
// platform notifications and from a one-second check on the run loop, and
// posts kDPNDisplayListChanged after each rebuild. Also the conversions
// between screen points and backing pixels.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/KeyObservation.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/foundation/Value.h"
#include "qrl/foundation/Geometry.h"
#include "qrl/video/NSScreen.h"
#include "qrl/video/detail/RecursiveTimedLock.h"

namespace qrl {

inline constexpr std::string_view kDPNDisplayListChanged = "kDPNDisplayListChanged";
// For the application; the framework itself never reads it.
inline constexpr std::string_view kDPActiveGrabberRenderer = "activeGrabberRenderer";
inline constexpr std::string_view kDPRendererID = "rendererID";
inline constexpr std::string_view kDPDisplayID = "displayID";
inline constexpr std::string_view kDPCanCreateContextOnCard = "canCreateContextOnCard";
inline constexpr std::string_view kDPCardName = "card";
inline constexpr std::string_view kDPMatchedToScreen = "matchedToScreen";
inline constexpr std::string_view kDPRenderers = "renderers";
inline constexpr std::string_view kDPFrame = "frame";
// Written into the shared maps by the context manager, not here.
inline constexpr std::string_view kSGAssociatedOpenGLContext = "kSGAssociatedOpenGLContext";

// A display metadata map, shared ("live"): the maps handed out are the
// cached ones, and a holder sees what others write into them later. Keys:
// "displayID", "displayMask", "width", "height", "origin.x", "origin.y",
// "size.width", "size.height" (signed 32-bit; pixel bounds, origin in
// points), "matchedToScreen", "frame" (a boxed rectangle in points),
// "renderers" (maps of "rendererID", "fullscreen", "video.memory",
// "texture.memory"), "card", "canCreateContextOnCard". A display ID is
// unsigned but boxed as a signed 32-bit number, so IDs at and above 2^31 read
// back negative. Writers other than this class lock the map's monitor
// (mapMonitor) around changes.
using DisplayMetadata = std::shared_ptr<Dictionary>;

// Thread-safe. Lock order: dataCacheLock, then the object's monitor or the
// class monitor, then a map's monitor. Notifications and key changes are
// sent with no lock held. The platform is the installed one
// (VideoPlatform), read on each query.
class DisplaysProvider : public KeyObservable, public std::enable_shared_from_this<DisplaysProvider> {
public:
    // The shared provider, made on first call (on a thread whose run loop
    // keeps running: the main thread) and kept for the life of the process.
    static std::shared_ptr<DisplaysProvider> defaultProvider();
    // A provider of its own (tests, tools): refreshes once, observes the
    // platform's change, sleep and wake notifications on `center` (which must
    // outlive it), and starts the check timer on the calling thread's run loop.
    static std::shared_ptr<DisplaysProvider> create(NotificationCenter& center = NotificationCenter::defaultCenter());
    // Stops the timer and any delayed refresh, and the observations.
    ~DisplaysProvider() override;

    // --- Lifecycle and timer ---
    // Checks every 1.0 s on the run loop of the calling thread, which must
    // outlive the timer (or stop it first). A second start leaves one timer.
    void startCheckTimer();
    void stopCheckTimer();
    // True while checking is off.
    bool asleep() const;
    void goingToSleep(const Notification* notification = nullptr);
    void wakingUp(const Notification* notification = nullptr);

    // --- Cache ---
    // The cached maps, built first when needed; the list is a copy, the maps
    // are shared.
    std::vector<DisplayMetadata> metadataForAllConnectedDisplays();
    std::vector<DisplayMetadata> monitoredDisplays() { return metadataForAllConnectedDisplays(); }
    // Rebuilds now and posts kDPNDisplayListChanged (provider as sender)
    // outside the lock. Ignored, with a verbose line, while a refresh is in
    // progress, including one asked for by an observer of that notification.
    // When the build throws, the exception goes on, nothing is posted, and
    // every later refresh is ignored.
    void refreshCachedDisplays();
    // Receiver of the screen parameter change: refresh between the
    // will-change and did-change of key "monitoredDisplays".
    void resetDisplays(const Notification* notification = nullptr);
    // Number of cached displays; 0 when dataCacheLock is busy or nothing is cached.
    int32_t displayCount();

    // --- Lookups ---
    // A fresh map for one display, without "card" and "canCreateContextOnCard".
    static DisplayMetadata detailFor(CGDirectDisplayID display);
    // The cached map whose "displayID" equals the number, or null.
    DisplayMetadata stateForDisplayWithID(const Value& displayID);
    // "displayID" as an unsigned ID; 0 for null or a missing key.
    CGDirectDisplayID displayIDForMetadata(const DisplayMetadata& metadata) const;
    // "frame"; NSZeroRect for null or when "displayID" or "frame" is missing.
    NSRect displayRectForDisplayMetadata(const DisplayMetadata& metadata) const;
    // "rendererID" of the first renderer, under the map's monitor; null when
    // there is no renderer list; raises "NSRangeException" for an empty one.
    Value renderIDForActiveDisplay(const DisplayMetadata& metadata) const;
    // The cached displays whose first renderer is the given one. Empty when
    // dataCacheLock cannot be had within 1/30 s.
    std::vector<DisplayMetadata> activeDisplaysOnRenderer(const Value& rendererID);
    // As above; when empty, polls every 0.5 s (rebuilding the cache without
    // notification) until `wait` seconds have passed, always running out the
    // wait once begun. Sleeps on the calling thread (on a simulated clock the
    // sleep moves the clock).
    std::vector<DisplayMetadata> activeDisplaysOnRenderer(const Value& rendererID, float wait);
    // One map {"name", "rendererID"} per distinct renderer ID (by its text),
    // the name being "card" with its first " OpenGL Engine" taken out.
    std::vector<DisplayMetadata> graphicsCardsByRenderID();
    // "rendererID" of the first card map; null when none.
    Value firstGraphicsCardRendererID();
    // {"name": "Display %d, %ld x %ld", "displayID"} per display, for menus.
    std::vector<DisplayMetadata> displaysByDisplayID();
    // The renderer of a cached display, looked up by the ID boxed as a
    // 64-bit number; raises "NoState" ("Can't find anything for display ID:
    // %ld") when none matches, which is always the case for IDs at and above
    // 2^31 (the maps hold them as negative 32-bit numbers).
    Value rendererForDisplayID(CGDirectDisplayID display);
    // "name" of the card map of the renderer (the last match); "Unknown" when none.
    std::string cardNameForRendererID(const Value& rendererID);
    // Pixel bounds of the main display.
    NSRect mainDisplay();

    // --- Rectangles of the desktop ---
    // allScreensFrame (points) when not captured; otherwise the monitored
    // display's "frame" (points) when it is cached, else lastCapturedRect (pixels).
    NSRect allScreensFrameOrCapturedArea();
    // The union of the frames of the displays on a renderer, built once
    // after each refresh and then answered for every renderer alike; empty
    // when dataCacheLock is busy.
    NSRect allScreensFrameForRenderer(const Value& rendererID);
    // monitorForCaptureResChange, then lastCapturedRect.
    NSRect capturedRect();

    // --- Capture monitoring ---
    // Refused (false, warning) while another display is monitored, even the same one.
    bool monitorDisplayIDForCapture(CGDirectDisplayID display);
    bool monitorMainDisplayForCapture();
    bool monitorDisplayForCapture(const DisplayMetadata& metadata);
    // Forgets the monitored display; lastCapturedRect stays until the next refresh.
    void stopMonitoringForCapturedDisplay();
    CGDirectDisplayID displayBeingMonitored() const { return displayIDToBeMonitored_.load(std::memory_order_relaxed); }
    bool monitoringDisplay() const { return displayBeingMonitored() != 0; }
    // Whether the monitored display is captured; false when none is monitored.
    bool captured();
    // Refreshes when the monitored display is captured and its pixel size
    // (truncated) differs from lastCapturedRect; clears the rectangle when not captured.
    void monitorForCaptureResChange();
    // The one-second tick.
    void checkCaptureState();

    // --- Conversions between points and pixels (the installed platform) ---
    // Backing factor, or the user-space one on systems before 10.7 (which
    // Linux counts as); 0.0 for null.
    static float scaleFactorForScreen(const NSScreen* screen);
    static float scaleFactorForDisplay(CGDirectDisplayID display);
    static bool screenIsScaled(const NSScreen* screen);
    static NSScreenRef screenForDisplayID(CGDirectDisplayID display);
    // The first active display whose screen frame holds the point (right and
    // top edges excluded); the main display when none does.
    static CGDirectDisplayID displayIDForNSPoint(NSPoint point);
    static NSRect displayBoundsForScreen(const NSScreen* screen);
    static NSRect displayBounds(CGDirectDisplayID display);
    // The frame through convertRectToBacking(frame, screen): size in pixels,
    // origin in points.
    static NSRect displayBoundsInPixelsForScreen(const NSScreen* screen);
    static NSRect displayBoundsInPixels(CGDirectDisplayID display);
    static NSRect convertRectToBackingUsingScaleFactor(float scaleFactor, NSRect rect);
    static NSRect convertRectFromBackingUsingScaleFactor(float scaleFactor, NSRect rect);
    static NSPoint convertPointToBacking(NSPoint point, const NSScreen* screen);
    // The offset from the screen's origin is scaled, the origin itself is
    // added back unscaled.
    static NSRect convertRectToBacking(NSRect rect, const NSScreen* screen);
    static NSRect convertRectFromBacking(NSRect rect, const NSScreen* screen);
    // The screen is the one of the display under the rectangle's origin as
    // it stands (also when that origin is in pixels).
    static NSRect convertRectToBacking(NSRect rect);
    static NSRect convertFromScreenRectToBackingRect(NSRect rect) { return convertRectToBacking(rect); }
    static NSRect convertRectFromBacking(NSRect rect);
    static NSRect convertFromBackingRectToScreenRect(NSRect rect) { return convertRectFromBacking(rect); }

    // --- Locks, for callers that coordinate with the cache ---
    // The recursive lock around the cache; holding it elsewhere makes the
    // non-blocking answers empty.
    detail::RecursiveTimedLock& dataCacheLock() { return dataCacheLock_; }
    // The monitor of a metadata map (shared by all code that touches the map).
    static std::recursive_mutex& mapMonitor(const Dictionary* map);

protected:
    explicit DisplaysProvider(NotificationCenter& center);

private:
    void start();
    NSRect lastCapturedRectValue() const;
    void setLastCapturedRect(const NSRect& r);

    NotificationCenter& center_;
    detail::RecursiveTimedLock dataCacheLock_;
    mutable std::recursive_mutex monitor_;  // the object's monitor: platform queries and the timer

    // Guarded by dataCacheLock_.
    std::optional<std::vector<DisplayMetadata>> cards_;

    // The rectangles are also guarded by a leaf lock of their own, since the
    // capture check writes lastCapturedRect without dataCacheLock.
    mutable std::mutex rectsMutex_;
    NSRect lastCapturedRect_;
    NSRect allScreensFrame_;
    NSRect allScreensFrameCache_;

    std::atomic<bool> previousCaptureState_{false};
    std::atomic<bool> refreshInProgress_{false};  // tested and set separately, as a plain flag
    std::atomic<CGDirectDisplayID> displayIDToBeMonitored_{0};

    // Guarded by monitor_.
    RunLoop* timerLoop_ = nullptr;
    RunLoop::Token timer_ = 0;
    std::mutex delayedMutex_;
    RunLoop* delayedLoop_ = nullptr;  // where the delayed refreshes were scheduled

    std::vector<NotificationCenter::Token> observations_;
};

}  // namespace qrl
