#include "qrl/video/x11/X11Handles.h"

#include <atomic>
#include <map>
#include <mutex>
#include <vector>

#include <X11/Xlib.h>

namespace qrl::x11 {

namespace {

// Connections opened here, with the flag to raise when each is lost.
std::mutex gConnectionsMutex;
std::map<Display*, std::atomic<bool>*>& connections() {
    static auto* m = new std::map<Display*, std::atomic<bool>*>();
    return *m;
}
XIOErrorHandler gPreviousIOHandler = nullptr;

int onIOError(Display* display) {
    {
        std::lock_guard lock(gConnectionsMutex);
        const auto it = connections().find(display);
        if (it != connections().end()) {
            it->second->store(true);
            return 0;  // Xlib goes on to the connection's exit handler below
        }
    }
    return gPreviousIOHandler ? gPreviousIOHandler(display) : 0;
}

void onIOErrorExit(Display*, void* dead) {
    // Returning leaves the connection marked broken; every later call on it
    // returns at once.
    static_cast<std::atomic<bool>*>(dead)->store(true);
}

// The trap in force: one at a time, process-wide.
std::mutex gTrapMutex;
Display* gTrapDisplay = nullptr;
int gTrapError = 0;
XErrorHandler gTrapPrevious = nullptr;

int onTrappedError(Display* display, XErrorEvent* event) {
    if (display == gTrapDisplay) {
        if (gTrapError == 0) gTrapError = event->error_code;
        return 0;
    }
    return gTrapPrevious ? gTrapPrevious(display, event) : 0;
}

}  // namespace

void DisplayCloser::operator()(Display* d) const noexcept {
    if (!d) return;
    bool lost = false;
    {
        std::lock_guard lock(gConnectionsMutex);
        const auto it = connections().find(d);
        if (it != connections().end()) {
            lost = it->second->load();
            connections().erase(it);
        }
        if (lost) {
            // Closing a connection after its loss can hang inside Xlib (its
            // internal lock is left taken by the failed call), so a lost
            // connection is parked for the rest of the process instead.
            static auto* parked = new std::vector<Display*>();
            parked->push_back(d);
            return;
        }
    }
    XCloseDisplay(d);
}

XDisplayHandle openDisplay(const char* name, std::atomic<bool>* dead) {
    Display* d = XOpenDisplay(name);
    if (!d) return nullptr;
    std::lock_guard lock(gConnectionsMutex);
    static std::once_flag installed;
    std::call_once(installed, [] { gPreviousIOHandler = XSetIOErrorHandler(onIOError); });
    connections()[d] = dead;
    XSetIOErrorExitHandler(d, onIOErrorExit, dead);
    return XDisplayHandle(d);
}

XErrorTrap::XErrorTrap(Display* display) : display_(display) {
    gTrapMutex.lock();
    XSync(display_, False);  // errors of earlier requests are not ours to trap
    gTrapDisplay = display_;
    gTrapError = 0;
    gTrapPrevious = XSetErrorHandler(onTrappedError);
}

int XErrorTrap::sync() {
    XSync(display_, False);
    const int e = gTrapError;
    gTrapError = 0;
    return e;
}

XErrorTrap::~XErrorTrap() {
    XSync(display_, False);
    XSetErrorHandler(gTrapPrevious);
    gTrapDisplay = nullptr;
    gTrapPrevious = nullptr;
    gTrapMutex.unlock();
}

}  // namespace qrl::x11
