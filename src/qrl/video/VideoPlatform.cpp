#include "qrl/video/VideoPlatform.h"

#include <cstdlib>
#include <mutex>
#include <utility>
#include <string>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/sim/DisplayServerSim.h"
#include "qrl/video/sim/GraphicsDevicesSim.h"
#if QRL_HAVE_X11
#include "qrl/video/x11/DisplayServerX11.h"
#endif
#if QRL_HAVE_EGL
#include "qrl/video/egl/GraphicsDevicesEGL.h"
#endif

namespace qrl {

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

std::mutex gMutex;
std::shared_ptr<DisplayServer> gDisplays;
std::shared_ptr<GraphicsDevices> gRenderers;
std::string gDisplayReport;
std::string gRendererReport;

std::string named(const char* specific) {
    const char* v = std::getenv(specific);
    if (!v || !*v) v = std::getenv("QRL_PLATFORM");
    return v ? std::string(v) : std::string();
}

std::shared_ptr<DisplayServer> chooseDisplays(std::string& report) {
    const std::string name = named("QRL_DISPLAY_PLATFORM");
    if (name == "sim") {
        auto sim = std::make_shared<DisplayServerSim>(NotificationCenter::defaultCenter());
        sim->setDisplays({SimDisplay{.id = 1, .frame = NSMakeRect(0, 0, 1920, 1080)}});
        report = "displays: sim (named)";
        return sim;
    }
    if (name == "none") {
        report = "displays: none (named)";
        return std::make_shared<DisplayServerNone>();
    }
    std::string why;
    if (!name.empty() && name != "x11") why = "no display backend named \"" + name + "\"; ";
#if QRL_HAVE_X11
    std::string x11Why;
    if (auto x11 = DisplayServerX11::open(nullptr, NotificationCenter::defaultCenter(), &x11Why)) {
        report = "displays: x11";
        return x11;
    }
    why += "x11: " + x11Why;
#else
    why += "x11: not built (Xlib or XRandR missing at build time)";
#endif
    report = "displays: none (" + why + ")";
    platformLogFormat("No display server: %@", why);
    return std::make_shared<DisplayServerNone>();
}

std::shared_ptr<GraphicsDevices> chooseRenderers(std::string& report) {
    const std::string name = named("QRL_RENDERER_PLATFORM");
    if (name == "sim") {
        auto sim = std::make_shared<GraphicsDevicesSim>();
        sim->setRenderers({SimRenderer{.rendererID = 0x21000, .displayMask = 0xffffffffu, .cardName = "Simulated Renderer"}});
        report = "renderers: sim (named)";
        return sim;
    }
    if (name == "none") {
        report = "renderers: none (named)";
        return std::make_shared<GraphicsDevicesNone>();
    }
    std::string why;
    if (!name.empty() && name != "egl") why = "no renderer backend named \"" + name + "\"; ";
#if QRL_HAVE_EGL
    std::string eglWhy;
    if (auto egl = GraphicsDevicesEGL::open(&eglWhy)) {
        report = "renderers: egl";
        return egl;
    }
    why += "egl: " + eglWhy;
#else
    why += "egl: not built (libEGL missing at build time)";
#endif
    report = "renderers: none (" + why + ")";
    platformLogFormat("No graphics renderers: %@", why);
    return std::make_shared<GraphicsDevicesNone>();
}

}  // namespace

std::shared_ptr<DisplayServer> VideoPlatform::displayServer() {
    std::lock_guard lock(gMutex);
    if (!gDisplays) gDisplays = chooseDisplays(gDisplayReport);
    return gDisplays;
}

std::shared_ptr<GraphicsDevices> VideoPlatform::graphicsDevices() {
    std::lock_guard lock(gMutex);
    if (!gRenderers) gRenderers = chooseRenderers(gRendererReport);
    return gRenderers;
}

void VideoPlatform::install(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers) {
    std::shared_ptr<DisplayServer> oldDisplays;
    std::shared_ptr<GraphicsDevices> oldRenderers;
    std::lock_guard lock(gMutex);
    oldDisplays = std::exchange(gDisplays, std::move(displays));
    oldRenderers = std::exchange(gRenderers, std::move(renderers));
    // The old ones are released after the lock: a backend's teardown may
    // join its threads.
    (void)oldDisplays;
    (void)oldRenderers;
}

std::string VideoPlatform::choiceReport() {
    std::lock_guard lock(gMutex);
    std::string out = gDisplayReport;
    if (!gRendererReport.empty()) out += (out.empty() ? "" : "\n") + gRendererReport;
    return out;
}

ScopedVideoPlatform::ScopedVideoPlatform(std::shared_ptr<DisplayServer> displays,
                                         std::shared_ptr<GraphicsDevices> renderers) {
    std::lock_guard lock(gMutex);
    previousDisplays_ = std::exchange(gDisplays, std::move(displays));
    previousRenderers_ = std::exchange(gRenderers, std::move(renderers));
}

ScopedVideoPlatform::~ScopedVideoPlatform() {
    std::shared_ptr<DisplayServer> oldDisplays;
    std::shared_ptr<GraphicsDevices> oldRenderers;
    {
        std::lock_guard lock(gMutex);
        oldDisplays = std::exchange(gDisplays, std::move(previousDisplays_));
        oldRenderers = std::exchange(gRenderers, std::move(previousRenderers_));
    }
}

}  // namespace qrl
