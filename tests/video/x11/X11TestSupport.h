// An X client of the test's own, loaded with dlopen so that the test links
// nothing from X: it makes monitors and windows on the private Xvfb as
// another program would.
#pragma once

#include <dlfcn.h>

#include <X11/Xatom.h>
#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <string>

#include "support/PrivateServer.h"

namespace qrl::test {

// libX11 and libXrandr functions, loaded for the test's own client.
#define QRL_X_FUNCTIONS(X)                                                                                       \
    X(x11, XOpenDisplay) X(x11, XCloseDisplay) X(x11, XDefaultRootWindow) X(x11, XInternAtom)                  \
    X(x11, XCreateWindow) X(x11, XMapWindow) X(x11, XDestroyWindow) X(x11, XChangeProperty) X(x11, XSync)      \
    X(x11, XForceScreenSaver) X(x11, XFree) X(xrandr, XRRAllocateMonitor) X(xrandr, XRRSetMonitor)              \
    X(xrandr, XRRDeleteMonitor) X(xrandr, XRRGetScreenResourcesCurrent) X(xrandr, XRRFreeScreenResources)      \
    X(xrandr, XRRGetOutputInfo) X(xrandr, XRRFreeOutputInfo)

struct XLib {
    XLib() {
        x11 = ::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
        xrandr = ::dlopen("libXrandr.so.2", RTLD_NOW | RTLD_LOCAL);
        if (!x11 || !xrandr) return;
#define QRL_X_LOAD(lib, name) name = reinterpret_cast<decltype(&::name)>(::dlsym(lib, #name));
        QRL_X_FUNCTIONS(QRL_X_LOAD)
#undef QRL_X_LOAD
    }
    bool loaded() const { return XOpenDisplay && XRRSetMonitor && XFree; }

    void* x11 = nullptr;
    void* xrandr = nullptr;
#define QRL_X_DECLARE(lib, name) decltype(&::name) name = nullptr;
    QRL_X_FUNCTIONS(QRL_X_DECLARE)
#undef QRL_X_DECLARE
};

// One connection of the test's own, with the operations the tests need.
class XClient {
public:
    XClient(XLib& x, const std::string& display) : x_(x) {
        if (x_.loaded()) d_ = x_.XOpenDisplay(display.c_str());
    }
    ~XClient() {
        if (d_) x_.XCloseDisplay(d_);
    }
    bool open() const { return d_ != nullptr; }
    Atom atom(const char* name) { return x_.XInternAtom(d_, name, False); }

    // A monitor with no outputs, or with the output named (which hides the
    // server's automatic monitor for it).
    void setMonitor(const char* name, int x, int y, int w, int h, bool primary, RROutput output = 0) {
        XRRMonitorInfo* m = x_.XRRAllocateMonitor(d_, output ? 1 : 0);
        m->name = atom(name);
        m->primary = primary;
        m->x = x;
        m->y = y;
        m->width = w;
        m->height = h;
        m->mwidth = w / 4;
        m->mheight = h / 4;
        if (output) m->outputs[0] = output;
        x_.XRRSetMonitor(d_, x_.XDefaultRootWindow(d_), m);
        x_.XFree(m);
        x_.XSync(d_, False);
    }
    // The output of that name, 0 when there is none.
    RROutput output(const std::string& name) {
        XRRScreenResources* res = x_.XRRGetScreenResourcesCurrent(d_, x_.XDefaultRootWindow(d_));
        RROutput found = 0;
        for (int i = 0; res && i < res->noutput && !found; ++i) {
            XRROutputInfo* info = x_.XRRGetOutputInfo(d_, res, res->outputs[i]);
            if (info && name == info->name) found = res->outputs[i];
            if (info) x_.XRRFreeOutputInfo(info);
        }
        if (res) x_.XRRFreeScreenResources(res);
        return found;
    }
    void deleteMonitor(const char* name) {
        x_.XRRDeleteMonitor(d_, x_.XDefaultRootWindow(d_), atom(name));
        x_.XSync(d_, False);
    }
    // A mapped top-level window; override-redirect windows bypass any window
    // manager. A background pixel (0xRRGGBB) paints it.
    Window window(int x, int y, int w, int h, bool overrideRedirect, long background = -1) {
        XSetWindowAttributes a{};
        a.override_redirect = overrideRedirect;
        a.background_pixel = static_cast<unsigned long>(background);
        const Window win = x_.XCreateWindow(d_, x_.XDefaultRootWindow(d_), x, y, w, h, 0, CopyFromParent, InputOutput,
                                            nullptr, CWOverrideRedirect | (background >= 0 ? CWBackPixel : 0), &a);
        x_.XMapWindow(d_, win);
        x_.XSync(d_, False);
        return win;
    }
    // One 32-bit value of type XA_CARDINAL or XA_ATOM.
    void setProperty(Window w, const char* property, Atom type, unsigned long value) {
        x_.XChangeProperty(d_, w, atom(property), type, 32, PropModeReplace, reinterpret_cast<unsigned char*>(&value), 1);
        x_.XSync(d_, False);
    }
    void destroy(Window w) {
        x_.XDestroyWindow(d_, w);
        x_.XSync(d_, False);
    }
    void screenSaver(int mode) {
        x_.XForceScreenSaver(d_, mode);
        x_.XSync(d_, False);
    }

private:
    XLib& x_;
    Display* d_ = nullptr;
};

}  // namespace qrl::test
