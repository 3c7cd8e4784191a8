// VideoPlatform: the process's display server and graphics devices, each
// chosen on first use from the video backend list (VideoBackends.cpp), asked
// for by name, or installed.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "qrl/foundation/InstalledPort.h"

namespace qrl {

class DisplayServer;
class GraphicsDevices;

// Choice, on first use of each port: a name asked for with request(), else
// $QRL_DISPLAY_PLATFORM (displays) or $QRL_RENDERER_PLATFORM (renderers),
// else $QRL_PLATFORM.
// - displays: "x11" (an X server reachable through $DISPLAY with RandR
//   1.5), "sim" (one 1920 by 1080 display), "none";
// - renderers: "egl" (EGL device enumeration with at least one device),
//   "sim" (one accelerated renderer), "none".
// Unnamed, the real backends are tried in order; the simulated ones are
// only used when named. When nothing works the port is "none": every query
// fails with its error code, and the reasons are written once to the
// platform log. A named backend that fails falls to "none" too.
class VideoPlatform {
public:
    VideoPlatform() = delete;

    static std::shared_ptr<DisplayServer> displayServer();
    static std::shared_ptr<GraphicsDevices> graphicsDevices();

    // Asks for the backend `name` on every video port that has one ("x11":
    // displays; "egl": renderers; "sim", "none": both) and drops those
    // ports' current choice, so that the next use chooses again. False, and
    // nothing changes, when no video port has such a backend. An empty name
    // withdraws the requests.
    static bool request(std::string_view name);

    // Replaces the installed ports; a null one goes back to the automatic
    // choice on next use.
    static void install(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers);

    // Why the automatic choice ended where it did, one line per port ("" before).
    static std::string choiceReport();

    static InstalledPort<DisplayServer>& displaysSlot();
    static InstalledPort<GraphicsDevices>& renderersSlot();
};

// Installs ports for the lifetime of the object (tests, simulations) and puts
// the previous ones back.
class ScopedVideoPlatform {
public:
    ScopedVideoPlatform(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers);
    ScopedVideoPlatform(const ScopedVideoPlatform&) = delete;
    ScopedVideoPlatform& operator=(const ScopedVideoPlatform&) = delete;

private:
    ScopedPort<DisplayServer> displays_;
    ScopedPort<GraphicsDevices> renderers_;
};

}  // namespace qrl
