// The video subsystem's backend lists. Adding a backend: write it in its
// technology's folder, add its entry to the port's list below (inside
// `#if QRL_HAVE_<LIB>` when its library may be missing at build time), and
// name the library in src/CMakeLists.txt. Nothing else chooses backends.
#include "qrl/video/detail/VideoBackends.h"

#include <string>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/DisplaysScreenEnvironment.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/ScreenCapture.h"
#include "qrl/video/sim/DisplayServerSim.h"
#include "qrl/video/sim/GraphicsDevicesSim.h"
#if QRL_HAVE_X11
#include "qrl/video/x11/DisplayServerX11.h"
#include "qrl/video/x11/ScreenCaptureX11.h"
#endif
#if QRL_HAVE_EGL
#include "qrl/video/egl/GraphicsDevicesEGL.h"
#endif
#if QRL_HAVE_SDBUS
#include "qrl/video/dbus/SleepWatcherDBus.h"
#endif

namespace qrl::detail {

namespace {

// Where no display server can be reached: every query fails, nothing is listed.
class DisplayServerNone final : public DisplayServer {
public:
    std::string_view backendName() const override { return "none"; }
    CGError getActiveDisplayList(uint32_t, std::vector<CGDirectDisplayID>& displays) override {
        displays.clear();
        return kCGErrorNoneAvailable;
    }
    CGError getOnlineDisplayCount(uint32_t& count) override {
        count = 0;
        return kCGErrorNoneAvailable;
    }
    uint32_t displayIDToOpenGLDisplayMask(CGDirectDisplayID) override { return 0; }
    CGDirectDisplayID mainDisplayID() override { return 0; }
    bool displayIsCaptured(CGDirectDisplayID) override { return false; }
    bool displayIsActive(CGDirectDisplayID) override { return false; }
    std::vector<NSScreenRef> screens() override { return {}; }
    NSPoint mouseLocation() override { return NSZeroPoint; }
    CGError moveCursorToPoint(CGDirectDisplayID, CGPoint) override { return kCGErrorNoneAvailable; }
    void updateSystemActivity(uint8_t) override {}
};

// Where no renderer can be reached: every query fails, no context is made.
class GraphicsDevicesNone final : public GraphicsDevices {
public:
    std::string_view backendName() const override { return "none"; }
    bool drawsPixels() const override { return false; }
    CGLError queryRendererInfo(uint32_t, std::vector<RendererDescription>& renderers) override {
        renderers.clear();
        return kCGLBadDisplay;
    }
    CGLError choosePixelFormat(std::span<const int32_t>, std::unique_ptr<GLPixelFormat>& format) override {
        format.reset();
        return kCGLBadDisplay;
    }
    std::unique_ptr<GLContext> createContext(const GLPixelFormat&, GLContext*) override { return nullptr; }
};

// Displays: the X server of $DISPLAY (XRandR 1.5); a simulated 1920 by 1080
// display when named; none when nothing else works.
const DisplayServerEntry kDisplayServers[] = {
#if QRL_HAVE_X11
    {.name = "x11",
     .make = [](std::string* whyNot) -> std::shared_ptr<DisplayServer> {
         return DisplayServerX11::open(nullptr, NotificationCenter::defaultCenter(), whyNot);
     }},
#endif
    {.name = "sim",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) -> std::shared_ptr<DisplayServer> {
         auto sim = std::make_shared<DisplayServerSim>(NotificationCenter::defaultCenter());
         sim->setDisplays({SimDisplay{.id = 1, .frame = NSMakeRect(0, 0, 1920, 1080)}});
         return sim;
     }},
    {.name = "none",
     .use = BackendUse::LastResort,
     .make = [](std::string*) -> std::shared_ptr<DisplayServer> { return std::make_shared<DisplayServerNone>(); }},
};

// Renderers: EGL device enumeration; one simulated accelerated renderer when
// named; none when nothing else works.
const GraphicsDevicesEntry kGraphicsDevices[] = {
#if QRL_HAVE_EGL
    {.name = "egl",
     .make = [](std::string* whyNot) -> std::shared_ptr<GraphicsDevices> { return GraphicsDevicesEGL::open(whyNot); }},
#endif
    {.name = "sim",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) -> std::shared_ptr<GraphicsDevices> {
         auto sim = std::make_shared<GraphicsDevicesSim>();
         sim->setRenderers(
             {SimRenderer{.rendererID = 0x21000, .displayMask = 0xffffffffu, .cardName = "Simulated Renderer"}});
         return sim;
     }},
    {.name = "none",
     .use = BackendUse::LastResort,
     .make = [](std::string*) -> std::shared_ptr<GraphicsDevices> { return std::make_shared<GraphicsDevicesNone>(); }},
};

// Screen capture: MIT-SHM images from the X server the display server is
// connected to.
const ScreenCaptureEntry kScreenCaptures[] = {
#if QRL_HAVE_X11
    {.name = "x11",
     .unavailable = [](DisplayServer& server, CGDirectDisplayID) -> std::string {
         return dynamic_cast<DisplayServerX11*>(&server) ? std::string() : std::string("the display server is not an X server");
     },
     .make = [](DisplayServer& server, CGDirectDisplayID display, std::string* whyNot) -> std::unique_ptr<ScreenCapture> {
         const auto& x11 = dynamic_cast<DisplayServerX11&>(server);
         return ScreenCaptureX11::open(x11.displayName().c_str(), display, whyNot);
     }},
#endif
    {.name = "none",
     .use = BackendUse::WhenNamed,
     .make = [](DisplayServer&, CGDirectDisplayID, std::string* whyNot) -> std::unique_ptr<ScreenCapture> {
         *whyNot = "screen capture is switched off";
         return nullptr;
     }},
};

// Sleep and wake: logind's PrepareForSleep on the system bus.
const SleepWatcherEntry kSleepWatchers[] = {
#if QRL_HAVE_SDBUS
    {.name = "dbus",
     .make = [](const SleepWatcher::Handler& handler, const std::optional<std::string>& bus,
                std::string* whyNot) -> std::unique_ptr<SleepWatcher> {
         return SleepWatcherDBus::start(bus, handler, whyNot);
     }},
#endif
    {.name = "none",
     .use = BackendUse::WhenNamed,
     .make = [](const SleepWatcher::Handler&, const std::optional<std::string>&,
                std::string* whyNot) -> std::unique_ptr<SleepWatcher> {
         *whyNot = "sleep and wake are not followed";
         return nullptr;
     }},
};

// The system utilities ask the display layer for the screens through this.
[[maybe_unused]] const bool kScreenEnvironmentSet = [] {
    ScreenEnvironment::setAutomaticChoice(
        []() -> std::shared_ptr<ScreenEnvironment> { return std::make_shared<DisplaysScreenEnvironment>(); });
    return true;
}();

}  // namespace

std::span<const DisplayServerEntry> displayServerBackends() { return kDisplayServers; }
std::span<const GraphicsDevicesEntry> graphicsDevicesBackends() { return kGraphicsDevices; }
std::span<const ScreenCaptureEntry> screenCaptureBackends() { return kScreenCaptures; }
std::span<const SleepWatcherEntry> sleepWatcherBackends() { return kSleepWatchers; }

}  // namespace qrl::detail
