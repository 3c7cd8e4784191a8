#include "qrl/video/x11/DisplayServerX11.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/video/SleepWatcher.h"

// Last: Xlib's macros clash with ordinary names.
#include "qrl/video/x11/X11Buffers.h"
#include <X11/Xatom.h>
#include <X11/extensions/scrnsaver.h>

namespace qrl {

using x11::XBuffer;
using x11::XErrorTrap;
using x11::XMonitorList;

namespace {

bool covers(int x, int y, int w, int h, const int mx, const int my, const int mw, const int mh) {
    return x <= mx && y <= my && x + w >= mx + mw && y + h >= my + mh;
}

}  // namespace

std::shared_ptr<DisplayServerX11> DisplayServerX11::open(const char* displayName, NotificationCenter& center,
                                                         std::string* whyNot) {
    return open(displayName, center, Options{}, whyNot);
}

std::shared_ptr<DisplayServerX11> DisplayServerX11::open(const char* displayName, NotificationCenter& center,
                                                         const Options& options, std::string* whyNot) {
    std::shared_ptr<DisplayServerX11> server(new DisplayServerX11(center));
    if (!server->connect(displayName, options, whyNot)) return nullptr;
    server->startThreads(options);
    return server;
}

DisplayServerX11::DisplayServerX11(NotificationCenter& center) : center_(center) {}

bool DisplayServerX11::connect(const char* displayName, const Options&, std::string* whyNot) {
    auto fail = [&](std::string why) {
        if (whyNot) *whyNot = std::move(why);
        return false;
    };
    const char* name = displayName ? displayName : std::getenv("DISPLAY");
    if (!name || !*name) return fail("DISPLAY is not set");
    displayName_ = name;
    query_ = x11::openDisplay(name, &queryDead_);
    if (!query_) return fail(qrl::format("cannot open X display \"%@\"", name));
    int eventBase = 0, errorBase = 0, major = 0, minor = 0;
    if (!XRRQueryExtension(query_.get(), &eventBase, &errorBase) || !XRRQueryVersion(query_.get(), &major, &minor) ||
        major < 1 || (major == 1 && minor < 5)) {
        return fail(qrl::format("X display \"%@\" has no XRandR 1.5 (found %d.%d)", name, major, minor));
    }
    screenNumber_ = DefaultScreen(query_.get());
    root_ = RootWindow(query_.get(), screenNumber_);
    int ssEvent = 0, ssError = 0;
    hasScreenSaver_ = XScreenSaverQueryExtension(query_.get(), &ssEvent, &ssError);
    netClientList_ = XInternAtom(query_.get(), "_NET_CLIENT_LIST", False);
    netWmState_ = XInternAtom(query_.get(), "_NET_WM_STATE", False);
    netWmStateFullscreen_ = XInternAtom(query_.get(), "_NET_WM_STATE_FULLSCREEN", False);
    netWmStateHidden_ = XInternAtom(query_.get(), "_NET_WM_STATE_HIDDEN", False);
    netWmPid_ = XInternAtom(query_.get(), "_NET_WM_PID", False);

    // The event connection: only reads events, on its own thread.
    events_ = x11::openDisplay(name, &eventsDead_);
    if (!events_) return fail(qrl::format("cannot open a second connection to X display \"%@\"", name));
    int eventErrorBase = 0;
    XRRQueryExtension(events_.get(), &rrEventBase_, &eventErrorBase);
    const Window eventRoot = RootWindow(events_.get(), screenNumber_);
    XRRSelectInput(events_.get(), eventRoot,
                   RRScreenChangeNotifyMask | RRCrtcChangeNotifyMask | RROutputChangeNotifyMask |
                       RROutputPropertyNotifyMask);
    XSelectInput(events_.get(), eventRoot, StructureNotifyMask);
    XSync(events_.get(), False);
    wakeFd_ = detail::makeWakeFd();
    if (!wakeFd_) return fail(qrl::format("cannot make an eventfd (errno %d)", errno));

    std::lock_guard lock(mutex_);
    std::vector<Monitor> monitors;
    if (!queryMonitorsLocked(true, monitors)) return fail("XRRGetMonitors failed");
    return true;
}

void DisplayServerX11::startThreads(const Options& options) {
    std::weak_ptr<DisplayServerX11> weak = weak_from_this();
    eventThread_ = std::thread([this] { eventLoop(); });
    if (options.watchSleep) {
        std::string why;
        sleepWatcher_ = SleepWatcher::start(
            [weak](bool goingToSleep) {
                if (auto self = weak.lock()) {
                    self->handOver(goingToSleep ? kNSWorkspaceWillSleepNotification : kNSWorkspaceDidWakeNotification);
                }
            },
            options.sleepBusAddress, &why);
        if (!sleepWatcher_) QRLLogInfo("No sleep and wake notifications: %@", why);
    }
}

DisplayServerX11::~DisplayServerX11() {
    sleepWatcher_.reset();
    detail::signalWakeFd(wakeFd_);
    if (eventThread_.joinable()) eventThread_.join();
}

void DisplayServerX11::handOver(std::string_view notification) {
    std::weak_ptr<DisplayServerX11> weak = weak_from_this();
    const std::string name(notification);
    RunLoop::main().post([weak, name] {
        auto self = weak.lock();
        if (!self) return;
        if (name == kNSApplicationDidChangeScreenParametersNotification) self->changePending_.store(false);
        self->center_.post(name, static_cast<const void*>(self.get()));
    });
}

void DisplayServerX11::eventLoop() noexcept {
    try {
        Display* d = events_.get();
        const int xfd = ConnectionNumber(d);
        for (;;) {
            bool changed = false;
            while (!eventsDead_.load() && XPending(d) > 0) {
                XEvent event;
                XNextEvent(d, &event);
                if (event.type == ConfigureNotify || event.type == rrEventBase_ + RRScreenChangeNotify ||
                    event.type == rrEventBase_ + RRNotify) {
                    XRRUpdateConfiguration(&event);
                    changed = true;
                }
            }
            if (eventsDead_.load()) {
                QRLLogError("X connection lost; display changes are no longer followed");
                return;
            }
            if (changed) {
                stale_.store(true);
                ++changeBatches_;
                if (!changePending_.exchange(true)) handOver(kNSApplicationDidChangeScreenParametersNotification);
            }
            pollfd fds[2] = {{xfd, POLLIN, 0}, {wakeFd_.get(), POLLIN, 0}};
            const int n = ::poll(fds, 2, -1);
            if (n < 0 && errno != EINTR) {
                QRLLogError("Polling the X connection failed (errno %d); display changes are no longer followed", errno);
                return;
            }
            if (fds[1].revents) return;
        }
    } catch (const std::exception& e) {
        platformLogFormat("X event thread ended: %@", e.what());
    } catch (...) {
        platformLog("X event thread ended by an unknown exception");
    }
}

// ---------------------------------------------------------------- snapshot

bool DisplayServerX11::queryMonitorsLocked(bool active, std::vector<Monitor>& out) {
    out.clear();
    if (queryDead_.load()) return false;
    int n = 0;
    XMonitorList list(XRRGetMonitors(query_.get(), root_, active ? True : False, &n));
    if (!list || n < 0) return false;
    out.reserve(static_cast<size_t>(n));
    for (int i = 0; i < n; ++i) {
        const XRRMonitorInfo& m = list.get()[i];
        out.push_back({static_cast<CGDirectDisplayID>(m.name), m.x, m.y, m.width, m.height, m.mwidth, m.mheight,
                       m.primary != 0});
    }
    if (active) {
        active_ = out;
        stale_.store(false);
    }
    return true;
}

void DisplayServerX11::ensureSnapshotLocked() {
    if (!stale_.load()) return;
    std::vector<Monitor> monitors;
    queryMonitorsLocked(true, monitors);
}

const DisplayServerX11::Monitor* DisplayServerX11::findLocked(CGDirectDisplayID id) const {
    for (const Monitor& m : active_) {
        if (m.id == id) return &m;
    }
    return nullptr;
}

const DisplayServerX11::Monitor* DisplayServerX11::primaryLocked() const {
    for (const Monitor& m : active_) {
        if (m.primary) return &m;
    }
    return active_.empty() ? nullptr : &active_.front();
}

NSRect DisplayServerX11::cocoaFrameLocked(const Monitor& m) const {
    const Monitor* p = primaryLocked();
    const int px = p ? p->x : 0;
    const int bottom = p ? p->y + p->height : 0;
    return NSMakeRect(m.x - px, bottom - (m.y + m.height), m.width, m.height);
}

std::string DisplayServerX11::atomNameLocked(unsigned long atom) {
    if (const auto it = atomNames_.find(atom); it != atomNames_.end()) return it->second;
    XErrorTrap trap(query_.get());
    XBuffer<char> name(XGetAtomName(query_.get(), atom));
    std::string text = name ? std::string(name.get()) : std::string();
    if (trap.sync() == 0 && !text.empty()) atomNames_[atom] = text;
    return text;
}

// ---------------------------------------------------------------- queries

CGError DisplayServerX11::getActiveDisplayList(uint32_t maxDisplays, std::vector<CGDirectDisplayID>& displays) {
    displays.clear();
    std::lock_guard lock(mutex_);
    std::vector<Monitor> monitors;
    if (!queryMonitorsLocked(true, monitors)) return kCGErrorInvalidConnection;
    for (const Monitor& m : monitors) {
        if (displays.size() >= maxDisplays) break;
        displays.push_back(m.id);
    }
    return kCGErrorSuccess;
}

CGError DisplayServerX11::getOnlineDisplayCount(uint32_t& count) {
    count = 0;
    std::lock_guard lock(mutex_);
    std::vector<Monitor> monitors;
    if (!queryMonitorsLocked(false, monitors)) return kCGErrorInvalidConnection;
    online_.clear();
    for (const Monitor& m : monitors) online_.push_back(m.id);
    count = static_cast<uint32_t>(monitors.size());
    return kCGErrorSuccess;
}

uint32_t DisplayServerX11::displayIDToOpenGLDisplayMask(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    ensureSnapshotLocked();
    const bool known = findLocked(display) || std::find(online_.begin(), online_.end(), display) != online_.end();
    return known && screenNumber_ < 32 ? (1u << screenNumber_) : 0u;
}

CGDirectDisplayID DisplayServerX11::mainDisplayID() {
    std::lock_guard lock(mutex_);
    ensureSnapshotLocked();
    const Monitor* p = primaryLocked();
    return p ? p->id : 0;
}

bool DisplayServerX11::displayIsActive(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    ensureSnapshotLocked();
    return findLocked(display) != nullptr;
}

std::vector<NSScreenRef> DisplayServerX11::screens() {
    std::lock_guard lock(mutex_);
    ensureSnapshotLocked();
    std::vector<NSScreenRef> out;
    out.reserve(active_.size());
    for (const Monitor& m : active_) {
        out.push_back(std::make_shared<const NSScreen>(NSScreen::Description{
            .displayID = m.id,
            .frame = cocoaFrameLocked(m),
            .backingScaleFactor = 1.0f,
            .userSpaceScaleFactor = 1.0f,
            .physicalSizeMillimetres = NSMakeSize(m.mmWidth, m.mmHeight),
            .name = atomNameLocked(static_cast<Atom>(m.id)),
        }));
    }
    return out;
}

NSPoint DisplayServerX11::mouseLocation() {
    std::lock_guard lock(mutex_);
    if (queryDead_.load()) return NSZeroPoint;
    ensureSnapshotLocked();
    Window rootReturn = 0, child = 0;
    int rootX = 0, rootY = 0, winX = 0, winY = 0;
    unsigned int mask = 0;
    if (!XQueryPointer(query_.get(), root_, &rootReturn, &child, &rootX, &rootY, &winX, &winY, &mask)) {
        return NSZeroPoint;  // the pointer is on another X screen
    }
    const Monitor* p = primaryLocked();
    const int px = p ? p->x : 0;
    const int bottom = p ? p->y + p->height : 0;
    return NSMakePoint(rootX - px, bottom - rootY);
}

CGError DisplayServerX11::moveCursorToPoint(CGDirectDisplayID display, CGPoint point) {
    std::lock_guard lock(mutex_);
    if (queryDead_.load()) return kCGErrorInvalidConnection;
    ensureSnapshotLocked();
    const Monitor* m = findLocked(display);
    if (!m) return kCGErrorIllegalArgument;
    const double x = m->x + point.x;
    const double y = m->y + point.y;
    if (!(x >= -32768 && x <= 32767 && y >= -32768 && y <= 32767)) return kCGErrorIllegalArgument;
    XErrorTrap trap(query_.get());
    XWarpPointer(query_.get(), None, root_, 0, 0, 0, 0, static_cast<int>(x), static_cast<int>(y));
    return trap.sync() == 0 ? kCGErrorSuccess : kCGErrorFailure;
}

void DisplayServerX11::updateSystemActivity(uint8_t) {
    std::lock_guard lock(mutex_);
    if (queryDead_.load()) return;
    XForceScreenSaver(query_.get(), ScreenSaverReset);
    XFlush(query_.get());
}

// ---------------------------------------------------------------- capture

bool DisplayServerX11::displayIsCaptured(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    if (queryDead_.load()) return false;
    ensureSnapshotLocked();
    const Monitor* m = findLocked(display);
    if (!m) return false;
    if (hasScreenSaver_) {
        XBuffer<XScreenSaverInfo> info(XScreenSaverAllocInfo());
        if (info && XScreenSaverQueryInfo(query_.get(), root_, info.get()) && info->state == ScreenSaverOn) return true;
    }
    const Monitor monitor = *m;
    return coveredByForeignWindowLocked(monitor);
}

bool DisplayServerX11::coveredByForeignWindowLocked(const Monitor& m) {
    Display* d = query_.get();
    XErrorTrap trap(d);  // windows of other clients may vanish at any moment
    const auto pid = static_cast<unsigned long>(::getpid());

    auto foreign = [&](Window w) {
        Atom type = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* raw = nullptr;
        if (XGetWindowProperty(d, w, netWmPid_, 0, 1, False, XA_CARDINAL, &type, &format, &count, &after, &raw) !=
            Success) {
            return true;
        }
        XBuffer<unsigned char> data(raw);
        if (type != XA_CARDINAL || format != 32 || count < 1) return true;
        return reinterpret_cast<unsigned long*>(data.get())[0] != pid;
    };
    auto fullScreenState = [&](Window w) {
        Atom type = None;
        int format = 0;
        unsigned long count = 0, after = 0;
        unsigned char* raw = nullptr;
        if (XGetWindowProperty(d, w, netWmState_, 0, 64, False, XA_ATOM, &type, &format, &count, &after, &raw) !=
            Success) {
            return false;
        }
        XBuffer<unsigned char> data(raw);
        if (type != XA_ATOM || format != 32) return false;
        const auto* atoms = reinterpret_cast<const unsigned long*>(data.get());
        bool full = false, hidden = false;
        for (unsigned long i = 0; i < count; ++i) {
            full = full || atoms[i] == netWmStateFullscreen_;
            hidden = hidden || atoms[i] == netWmStateHidden_;
        }
        return full && !hidden;
    };
    // The window's outer rectangle in root coordinates, and whether it is viewable.
    auto coversMonitor = [&](Window w, bool& overrideRedirect) {
        XWindowAttributes a;
        if (!XGetWindowAttributes(d, w, &a) || a.map_state != IsViewable) return false;
        overrideRedirect = a.override_redirect != 0;
        int rx = 0, ry = 0;
        Window child = 0;
        if (!XTranslateCoordinates(d, w, root_, -a.border_width, -a.border_width, &rx, &ry, &child)) return false;
        return covers(rx, ry, a.width + 2 * a.border_width, a.height + 2 * a.border_width, m.x, m.y, m.width,
                      m.height);
    };

    // Top-level windows: a cheap geometry look first, the rest only for those that cover.
    Window rootReturn = 0, parent = 0;
    Window* rawChildren = nullptr;
    unsigned int n = 0;
    if (XQueryTree(d, root_, &rootReturn, &parent, &rawChildren, &n)) {
        XBuffer<Window> children(rawChildren);
        for (unsigned int i = n; i-- > 0;) {  // top of the stack first
            const Window w = children.get()[i];
            Window r = 0;
            int x = 0, y = 0;
            unsigned int width = 0, height = 0, border = 0, depth = 0;
            if (!XGetGeometry(d, w, &r, &x, &y, &width, &height, &border, &depth)) continue;
            if (!covers(x, y, static_cast<int>(width + 2 * border), static_cast<int>(height + 2 * border), m.x, m.y,
                        m.width, m.height)) {
                continue;
            }
            bool overrideRedirect = false;
            if (!coversMonitor(w, overrideRedirect)) continue;
            if ((overrideRedirect || fullScreenState(w)) && foreign(w)) return true;
        }
    }
    // Managed windows inside window manager frames.
    Atom type = None;
    int format = 0;
    unsigned long count = 0, after = 0;
    unsigned char* raw = nullptr;
    if (XGetWindowProperty(d, root_, netClientList_, 0, 4096, False, XA_WINDOW, &type, &format, &count, &after,
                           &raw) == Success) {
        XBuffer<unsigned char> data(raw);
        if (type == XA_WINDOW && format == 32) {
            const auto* clients = reinterpret_cast<const unsigned long*>(data.get());
            for (unsigned long i = 0; i < count; ++i) {
                const Window w = static_cast<Window>(clients[i]);
                if (!fullScreenState(w)) continue;
                bool overrideRedirect = false;
                if (coversMonitor(w, overrideRedirect) && foreign(w)) return true;
            }
        }
    }
    return false;
}

}  // namespace qrl
