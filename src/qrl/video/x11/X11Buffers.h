// Owners of memory that Xlib and XRandR hand out. Include after every other
// header: Xlib's macros (None, Bool, Status...) clash with ordinary names.
#pragma once

#include <X11/Xlib.h>
#include <X11/extensions/Xrandr.h>

#include <memory>

namespace qrl::x11 {

struct MonitorsFree {
    void operator()(XRRMonitorInfo* m) const noexcept {
        if (m) XRRFreeMonitors(m);
    }
};
using XMonitorList = std::unique_ptr<XRRMonitorInfo, MonitorsFree>;

struct XFreeDeleter {
    void operator()(void* p) const noexcept {
        if (p) XFree(p);
    }
};
template <class T>
using XBuffer = std::unique_ptr<T, XFreeDeleter>;

}  // namespace qrl::x11
