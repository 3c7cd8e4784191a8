// VideoPlatform: the one place that chooses the display server and the
// graphics devices of the process, from an ordered list of backends each of
// which checks at run time whether it can work, or installs given ones.
#pragma once

#include <memory>
#include <string>

namespace qrl {

class DisplayServer;
class GraphicsDevices;

// Choice, on first use of each port:
// - displays: $QRL_DISPLAY_PLATFORM, else $QRL_PLATFORM, may name "x11",
//   "sim" or "none"; unnamed, the list is [x11] (an X server reachable
//   through $DISPLAY with RandR 1.5).
// - renderers: $QRL_RENDERER_PLATFORM, else $QRL_PLATFORM, may name "egl",
//   "sim" or "none"; unnamed, the list is [egl] (EGL device enumeration
//   with at least one device).
// The simulated backends are only used when named; they then hold one
// 1920 by 1080 display driven by one accelerated renderer. When no entry
// works the port is "none": every query fails with its error code, and the
// reason is written once to the platform log. A name that no backend has is
// reported and treated as unnamed.
class VideoPlatform {
public:
    VideoPlatform() = delete;

    static std::shared_ptr<DisplayServer> displayServer();
    static std::shared_ptr<GraphicsDevices> graphicsDevices();

    // Replaces the installed ports; a null one goes back to the automatic
    // choice on next use.
    static void install(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers);

    // Why the automatic choice ended where it did, one line per port ("" before).
    static std::string choiceReport();
};

// Installs ports for the lifetime of the object (tests, simulations) and puts
// the previous ones back.
class ScopedVideoPlatform {
public:
    ScopedVideoPlatform(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers);
    ~ScopedVideoPlatform();
    ScopedVideoPlatform(const ScopedVideoPlatform&) = delete;
    ScopedVideoPlatform& operator=(const ScopedVideoPlatform&) = delete;

private:
    std::shared_ptr<DisplayServer> previousDisplays_;
    std::shared_ptr<GraphicsDevices> previousRenderers_;
};

}  // namespace qrl
