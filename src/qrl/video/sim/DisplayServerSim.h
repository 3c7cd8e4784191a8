// DisplayServerSim: a scriptable display server for tests and simulations:
// displays with IDs, frames in points, scale factors, active and online
// states, screens, capture flags; sleep, wake and change notifications;
// fault injection for each query and counters of every call.
#pragma once

#include <cstdint>
#include <functional>
#include <mutex>
#include <optional>
#include <vector>

#include "qrl/video/DisplayServer.h"

namespace qrl {

struct SimDisplay {
    CGDirectDisplayID id = 0;
    NSRect frame;                               // points
    float scale = 1.0f;                         // backing scale factor
    std::optional<float> userSpaceScale;        // defaults to `scale`
    bool active = true;                         // listed as active (active displays count as online)
    bool online = true;                         // counted online while inactive
    bool hasScreen = true;                      // an NSScreen carries it
    bool captured = false;                      // taken over by another party
    uint32_t openGLMask = 1;                    // renderers that can drive it
    NSSize physicalSizeMillimetres;
};

// Thread-safe. Notifications are posted at once, on the calling thread, on
// the centre given at construction (which must outlive this object), with
// this object as sender.
class DisplayServerSim final : public DisplayServer {
public:
    explicit DisplayServerSim(NotificationCenter& center);

    std::string_view backendName() const override { return "sim"; }
    CGError getActiveDisplayList(uint32_t maxDisplays, std::vector<CGDirectDisplayID>& displays) override;
    CGError getOnlineDisplayCount(uint32_t& count) override;
    uint32_t displayIDToOpenGLDisplayMask(CGDirectDisplayID display) override;
    CGDirectDisplayID mainDisplayID() override;
    bool displayIsCaptured(CGDirectDisplayID display) override;
    bool displayIsActive(CGDirectDisplayID display) override;
    std::vector<NSScreenRef> screens() override;
    NSPoint mouseLocation() override;
    CGError moveCursorToPoint(CGDirectDisplayID display, CGPoint point) override;
    void updateSystemActivity(uint8_t activity) override;

    // Scripting. The main display is the one set, else the first display.
    void setDisplays(std::vector<SimDisplay> displays);
    std::vector<SimDisplay> displays() const;
    // Changes one display in place; false when there is no such ID.
    bool updateDisplay(CGDirectDisplayID id, const std::function<void(SimDisplay&)>& change);
    bool removeDisplay(CGDirectDisplayID id);
    void setMainDisplay(std::optional<CGDirectDisplayID> id);
    bool setCaptured(CGDirectDisplayID id, bool captured);
    void setMouseLocation(NSPoint p);

    // Faults: a non-zero code makes the query fail with it until cleared (0).
    void failActiveDisplayList(CGError error);
    void failOnlineDisplayCount(CGError error);
    void failMoveCursor(CGError error);

    // Called (without the lock) on each updateSystemActivity, after counting it.
    void setSystemActivityHook(std::function<void(uint8_t activity)> hook);

    // Events.
    void postScreenParametersChanged();
    void sleep();
    void wake();

    struct Counters {
        int activeListQueries = 0;
        int onlineCountQueries = 0;
        int capturedQueries = 0;
        int screensQueries = 0;
        int cursorMoves = 0;
        int activityUpdates = 0;
    };
    Counters counters() const;
    // Where the pointer was last moved to: display and point.
    std::optional<std::pair<CGDirectDisplayID, CGPoint>> lastCursorMove() const;

private:
    NotificationCenter& center_;
    mutable std::mutex mutex_;
    std::vector<SimDisplay> displays_;
    std::optional<CGDirectDisplayID> main_;
    NSPoint mouse_;
    CGError activeListError_ = 0;
    CGError onlineCountError_ = 0;
    CGError moveCursorError_ = 0;
    std::function<void(uint8_t)> activityHook_;
    Counters counters_;
    std::optional<std::pair<CGDirectDisplayID, CGPoint>> lastMove_;
};

}  // namespace qrl
