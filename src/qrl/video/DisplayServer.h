// DisplayServer: the port through which the video subsystem asks the
// platform about displays: the active and online lists, the main display,
// screens, capture, the pointer, and the change, sleep and wake
// notifications. Backends: sim/ (scriptable), x11/ (Xlib and XRandR).
#pragma once

#include <cstdint>
#include <memory>
#include <string_view>
#include <vector>

#include "qrl/foundation/Geometry.h"
#include "qrl/video/NSScreen.h"

namespace qrl {

class NotificationCenter;

// Result codes of the display queries: 0 is success.
using CGError = int32_t;
inline constexpr CGError kCGErrorSuccess = 0;
inline constexpr CGError kCGErrorFailure = 1000;
inline constexpr CGError kCGErrorIllegalArgument = 1001;
inline constexpr CGError kCGErrorInvalidConnection = 1002;
inline constexpr CGError kCGErrorNoneAvailable = 1011;

// Posted by display servers, with the server as sender, on the centre they
// were made with, on the main thread (the thread of RunLoop::main()).
inline constexpr std::string_view kNSApplicationDidChangeScreenParametersNotification =
    "NSApplicationDidChangeScreenParametersNotification";
inline constexpr std::string_view kNSWorkspaceWillSleepNotification = "NSWorkspaceWillSleepNotification";
inline constexpr std::string_view kNSWorkspaceDidWakeNotification = "NSWorkspaceDidWakeNotification";

// Activity kinds of updateSystemActivity.
inline constexpr uint8_t kOverallAct = 0;
inline constexpr uint8_t kUsrActivity = 1;

// Every operation may be called from any thread; backends serialise their
// own connection.
class DisplayServer {
public:
    virtual ~DisplayServer() = default;

    // "sim", "x11", "none".
    virtual std::string_view backendName() const = 0;

    // The active displays in the platform's order, at most maxDisplays of
    // them, into `displays` (replaced). Non-zero on failure.
    virtual CGError getActiveDisplayList(uint32_t maxDisplays, std::vector<CGDirectDisplayID>& displays) = 0;
    // The number of online displays (active or not). Non-zero on failure.
    virtual CGError getOnlineDisplayCount(uint32_t& count) = 0;
    // The renderers that can drive the display, one bit each; 0 for an
    // unknown display.
    virtual uint32_t displayIDToOpenGLDisplayMask(CGDirectDisplayID display) = 0;
    virtual CGDirectDisplayID mainDisplayID() = 0;
    // Whether another party has taken the display over.
    virtual bool displayIsCaptured(CGDirectDisplayID display) = 0;
    virtual bool displayIsActive(CGDirectDisplayID display) = 0;

    // The screens, in the platform's order.
    virtual std::vector<NSScreenRef> screens() = 0;
    // The screen of the main display; else the first; else null.
    virtual NSScreenRef mainScreen();

    // The pointer, in screen points (bottom-left origin, y up).
    virtual NSPoint mouseLocation() = 0;
    // Moves the pointer to `point`, in pixels from the display's top-left
    // corner. Non-zero on failure.
    virtual CGError moveCursorToPoint(CGDirectDisplayID display, CGPoint point) = 0;
    // Tells the system that there was activity, so that a sleeping display wakes.
    virtual void updateSystemActivity(uint8_t activity) = 0;
};

}  // namespace qrl
