// Move-only owners of X connections, a scoped trap for X protocol errors,
// and the handling that keeps a lost X connection from ending the process.
// Includes no Xlib header (its macros clash with ordinary names); the
// owners of Xlib buffers are in X11Buffers.h.
#pragma once

#include <atomic>
#include <memory>

struct _XDisplay;

namespace qrl::x11 {

struct DisplayCloser {
    void operator()(_XDisplay* d) const noexcept;
};
// An X connection; closing it is the owner's last act on it. A connection
// that was lost is parked rather than closed (see openDisplay).
using XDisplayHandle = std::unique_ptr<_XDisplay, DisplayCloser>;

// Opens a connection whose loss (server gone) marks it dead instead of
// ending the process, which is what Xlib's default I/O error path does.
// Such a connection is never closed: Xlib can hang when asked to, so it stays
// allocated for the rest of the process.
// `dead` is set from inside Xlib when that happens and must outlive the
// connection. Null when the display cannot be opened.
XDisplayHandle openDisplay(const char* name, std::atomic<bool>* dead);

// While alive, X protocol errors on `display` are recorded instead of going
// to the process's error handler (whose default ends the process); errors on
// other connections still go there. Traps on any thread are serialised, and
// must not nest.
class XErrorTrap {
public:
    explicit XErrorTrap(_XDisplay* display);
    ~XErrorTrap();
    XErrorTrap(const XErrorTrap&) = delete;
    XErrorTrap& operator=(const XErrorTrap&) = delete;

    // Syncs with the server and answers the first error code seen so far
    // (0 when none), then starts counting afresh.
    int sync();

private:
    _XDisplay* display_;
};

}  // namespace qrl::x11
