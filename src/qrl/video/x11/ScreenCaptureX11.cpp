#include "qrl/video/x11/ScreenCaptureX11.h"

#include <sys/ipc.h>
#include <sys/shm.h>

#include "qrl/foundation/Format.h"
// Xlib last: its macros clash with ordinary names.
#include "qrl/video/x11/X11Buffers.h"
#include <X11/Xutil.h>
#include <X11/extensions/XShm.h>


namespace qrl {

struct ScreenCaptureX11::Shm {
    XShmSegmentInfo info{};
};

namespace {

bool supportedVisual(const Visual* v, const XImage* probe) {
    return v && v->red_mask == 0xFF0000 && v->green_mask == 0xFF00 && v->blue_mask == 0xFF && probe &&
           probe->bits_per_pixel == 32 && probe->byte_order == LSBFirst;
}

}  // namespace

std::unique_ptr<ScreenCaptureX11> ScreenCaptureX11::open(const char* displayName, CGDirectDisplayID display,
                                                         std::string* whyNot) {
    auto fail = [&](std::string why) -> std::unique_ptr<ScreenCaptureX11> {
        if (whyNot) *whyNot = std::move(why);
        return nullptr;
    };
    std::unique_ptr<ScreenCaptureX11> c(new ScreenCaptureX11());
    c->display_ = x11::openDisplay(displayName, &c->dead_);
    if (!c->display_) return fail(qrl::format("cannot open X display %@", displayName ? displayName : "$DISPLAY"));
    Display* d = c->display_.get();
    const int screen = DefaultScreen(d);
    c->root_ = RootWindow(d, screen);
    c->monitor_ = display;
    int x = 0, y = 0, w = 0, h = 0;
    bool found = false;
    if (!c->locate(x, y, w, h, found)) return fail("the X server lists no monitors");
    if (!found) return fail(qrl::format("the X server has no monitor %u", display));
    c->width_ = w;
    c->height_ = h;
    c->depth_ = DefaultDepth(d, screen);
    Visual* visual = DefaultVisual(d, screen);
    c->visual_ = visual;

    // The layout of a 1x1 image tells how pixels arrive.
    XImage* probe = nullptr;
    {
        x11::XErrorTrap trap(d);
        probe = XGetImage(d, c->root_, x, y, 1, 1, AllPlanes, ZPixmap);
        trap.sync();
    }
    const bool supported = supportedVisual(visual, probe);
    if (probe) XDestroyImage(probe);
    if (!supported || (c->depth_ != 24 && c->depth_ != 32)) {
        return fail(qrl::format("the X screen's pixels (depth %d) are not 8-bit BGRA in 32 bits", c->depth_));
    }

    if (XShmQueryExtension(d)) {
        auto shm = std::make_unique<Shm>();
        XImage* image = XShmCreateImage(d, visual, static_cast<unsigned>(c->depth_), ZPixmap, nullptr, &shm->info,
                                        static_cast<unsigned>(w), static_cast<unsigned>(h));
        if (image) {
            shm->info.shmid = shmget(IPC_PRIVATE, static_cast<size_t>(image->bytes_per_line) * h, IPC_CREAT | 0600);
            if (shm->info.shmid >= 0) {
                shm->info.shmaddr = static_cast<char*>(shmat(shm->info.shmid, nullptr, 0));
                // Gone as soon as both sides have let go of it.
                if (shm->info.shmaddr != reinterpret_cast<char*>(-1)) {
                    image->data = shm->info.shmaddr;
                    shm->info.readOnly = False;
                    x11::XErrorTrap trap(d);
                    XShmAttach(d, &shm->info);
                    c->shmAttached_ = trap.sync() == 0;
                } else {
                    shm->info.shmaddr = nullptr;
                }
                shmctl(shm->info.shmid, IPC_RMID, nullptr);
            }
            if (c->shmAttached_) {
                c->image_ = image;
                c->shm_ = std::move(shm);
            } else {
                image->data = nullptr;
                XDestroyImage(image);
                if (shm->info.shmaddr) shmdt(shm->info.shmaddr);
            }
        }
    }
    return c;
}

ScreenCaptureX11::~ScreenCaptureX11() { releaseImage(); }

void ScreenCaptureX11::releaseImage() {
    Display* d = display_.get();
    if (copied_) {
        XDestroyImage(copied_);
        copied_ = nullptr;
    }
    if (image_) {
        if (d && shmAttached_ && !dead_.load()) {
            XShmDetach(d, &shm_->info);
            XSync(d, False);
        }
        image_->data = nullptr;
        XDestroyImage(image_);
        image_ = nullptr;
    }
    if (shm_ && shm_->info.shmaddr) shmdt(shm_->info.shmaddr);
    shm_.reset();
    shmAttached_ = false;
}

bool ScreenCaptureX11::locate(int& x, int& y, int& w, int& h, bool& found) {
    found = false;
    Display* d = display_.get();
    int count = 0;
    x11::XMonitorList monitors(XRRGetMonitors(d, root_, True, &count));
    if (!monitors) return false;
    for (int i = 0; i < count; ++i) {
        const XRRMonitorInfo& m = monitors.get()[i];
        if (static_cast<CGDirectDisplayID>(m.name) != monitor_) continue;
        x = m.x, y = m.y, w = m.width, h = m.height;
        found = true;
        break;
    }
    return true;
}

ScreenCapture::Result ScreenCaptureX11::capture() {
    if (dead_.load()) {
        failure_ = "the connection to the X server was lost";
        return Result::Failed;
    }
    int x = 0, y = 0, w = 0, h = 0;
    bool found = false;
    if (!locate(x, y, w, h, found)) {
        failure_ = dead_.load() ? "the connection to the X server was lost" : "the X server lists no monitors";
        return dead_.load() ? Result::Failed : Result::Gone;
    }
    if (!found) {
        failure_ = qrl::format("monitor %u is gone", monitor_);
        return Result::Gone;
    }
    if (w != width_ || h != height_) {
        failure_ = qrl::format("monitor %u changed from %d x %d to %d x %d", monitor_, width_, height_, w, h);
        return Result::Changed;
    }
    Display* d = display_.get();
    x11::XErrorTrap trap(d);
    if (shmAttached_) {
        XShmGetImage(d, root_, image_, x, y, AllPlanes);
    } else {
        if (copied_) XDestroyImage(copied_);
        copied_ = XGetImage(d, root_, x, y, static_cast<unsigned>(w), static_cast<unsigned>(h), AllPlanes, ZPixmap);
    }
    const int error = trap.sync();
    if (error != 0 || (!shmAttached_ && !copied_) || dead_.load()) {
        failure_ = dead_.load() ? std::string("the connection to the X server was lost")
                                : qrl::format("the X server refused the picture (error %d)", error);
        return Result::Failed;
    }
    failure_.clear();
    return Result::Captured;
}

const uint8_t* ScreenCaptureX11::pixels() const {
    const XImage* image = shmAttached_ ? image_ : copied_;
    return image ? reinterpret_cast<const uint8_t*>(image->data) : nullptr;
}

size_t ScreenCaptureX11::stride() const {
    const XImage* image = shmAttached_ ? image_ : copied_;
    return image ? static_cast<size_t>(image->bytes_per_line) : 0;
}

}  // namespace qrl
