// DisplayServerX11: displays from an X server with XRandR 1.5. A display is
// an XRandR monitor, identified by its name atom (stable and non-zero, never
// a list index); the active list asks for active monitors only, the online
// list for all. The primary monitor is the main display, and frames are
// turned into bottom-left, y-up points relative to it. X11 has no per-screen
// backing scale, so every scale factor is 1.0. Change events (XRandR
// notifications and the root window's ConfigureNotify, which is all a
// monitor change sends) are read on a thread of this object and handed to
// the main run loop, which posts the screen parameter change.
//
// "Captured" has no exact X11 counterpart. A display counts as captured
// while a window of another process covers its whole monitor rectangle and
// is either override-redirect or in the EWMH full-screen state
// (_NET_WM_STATE_FULLSCREEN), or while the screen saver is active. Another
// process's window is one whose _NET_WM_PID differs from ours or is absent.
//
// Sleep and wake come from logind's PrepareForSleep signal on the system bus;
// where no system bus can be reached there are none, which is said once in
// the log.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "qrl/video/DisplayServer.h"
#include "qrl/foundation/detail/UniqueFd.h"
#include "qrl/video/x11/X11Handles.h"

namespace qrl {

class SleepWatcher;

class DisplayServerX11 final : public DisplayServer, public std::enable_shared_from_this<DisplayServerX11> {
public:
    struct Options {
        // Watch logind for sleep and wake (off for private test servers).
        bool watchSleep = true;
        // A D-Bus address to watch instead of the system bus.
        std::optional<std::string> sleepBusAddress;
    };

    // Connects to `displayName` (null: $DISPLAY). Null, with the reason at
    // *whyNot when given, when the server cannot be reached or lacks
    // XRandR 1.5. Notifications go to `center`, which must outlive this object.
    static std::shared_ptr<DisplayServerX11> open(const char* displayName, NotificationCenter& center,
                                                  std::string* whyNot = nullptr);
    static std::shared_ptr<DisplayServerX11> open(const char* displayName, NotificationCenter& center,
                                                  const Options& options, std::string* whyNot = nullptr);
    // Stops the event and sleep threads and closes both connections.
    ~DisplayServerX11() override;

    std::string_view backendName() const override { return "x11"; }
    // The X display this server is connected to (":99", or $DISPLAY's value).
    const std::string& displayName() const { return displayName_; }
    CGError getActiveDisplayList(uint32_t maxDisplays, std::vector<CGDirectDisplayID>& displays) override;
    CGError getOnlineDisplayCount(uint32_t& count) override;
    // Bit n for X screen n (the screen that holds the monitors); 0 for an
    // unknown display.
    uint32_t displayIDToOpenGLDisplayMask(CGDirectDisplayID display) override;
    CGDirectDisplayID mainDisplayID() override;
    bool displayIsCaptured(CGDirectDisplayID display) override;
    bool displayIsActive(CGDirectDisplayID display) override;
    std::vector<NSScreenRef> screens() override;
    NSPoint mouseLocation() override;
    // Warps the pointer; the point is in pixels from the monitor's top-left.
    CGError moveCursorToPoint(CGDirectDisplayID display, CGPoint point) override;
    // The server's screen saver reset, which also turns display power back on.
    void updateSystemActivity(uint8_t activity) override;

    // Change batches the event thread has handed to the main run loop.
    uint64_t changeBatches() const { return changeBatches_.load(); }
    // Whether a connection to the server was lost.
    bool connectionLost() const { return queryDead_.load() || eventsDead_.load(); }

private:
    struct Monitor {
        CGDirectDisplayID id = 0;  // the name atom
        int x = 0, y = 0, width = 0, height = 0;  // pixels, top-left origin
        int mmWidth = 0, mmHeight = 0;
        bool primary = false;
    };

    DisplayServerX11(NotificationCenter& center);
    bool connect(const char* displayName, const Options& options, std::string* whyNot);
    void startThreads(const Options& options);
    void eventLoop() noexcept;
    void handOver(std::string_view notification);

    // With mutex_ held.
    bool queryMonitorsLocked(bool active, std::vector<Monitor>& out);
    void ensureSnapshotLocked();
    const Monitor* findLocked(CGDirectDisplayID id) const;
    const Monitor* primaryLocked() const;
    NSRect cocoaFrameLocked(const Monitor& m) const;
    std::string atomNameLocked(unsigned long atom);
    bool coveredByForeignWindowLocked(const Monitor& m);

    NotificationCenter& center_;
    std::atomic<bool> queryDead_{false};
    std::atomic<bool> eventsDead_{false};

    mutable std::mutex mutex_;  // the query connection and the snapshot
    x11::XDisplayHandle query_;
    unsigned long root_ = 0;  // the root window
    std::string displayName_;
    int screenNumber_ = 0;
    bool hasScreenSaver_ = false;
    std::vector<Monitor> active_;  // the last active list
    std::vector<CGDirectDisplayID> online_;  // the last online list
    std::map<unsigned long, std::string> atomNames_;
    unsigned long netClientList_ = 0, netWmState_ = 0, netWmStateFullscreen_ = 0, netWmStateHidden_ = 0, netWmPid_ = 0;

    std::atomic<bool> stale_{true};  // the snapshot is older than the last change event
    x11::XDisplayHandle events_;
    int rrEventBase_ = 0;
    detail::UniqueFd wakeFd_;
    std::thread eventThread_;
    std::atomic<bool> changePending_{false};
    std::atomic<uint64_t> changeBatches_{0};

    std::unique_ptr<SleepWatcher> sleepWatcher_;
};

}  // namespace qrl
