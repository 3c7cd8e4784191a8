#include "qrl/video/ScreenCapture.h"

#include "qrl/video/DisplayServer.h"
#if QRL_HAVE_X11
#include "qrl/video/x11/ScreenCaptureX11.h"
#endif

namespace qrl {

std::unique_ptr<ScreenCapture> openScreenCapture(DisplayServer& server, CGDirectDisplayID display,
                                                 std::string* whyNot) {
#if QRL_HAVE_X11
    // The X server of the display server: the one $DISPLAY names.
    if (server.backendName() == "x11") return ScreenCaptureX11::open(nullptr, display, whyNot);
#endif
    if (whyNot) *whyNot = "the \"" + std::string(server.backendName()) + "\" display server has no screen capture";
    return nullptr;
}

}  // namespace qrl
