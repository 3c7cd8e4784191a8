#include "qrl/video/ScreenCapture.h"

#include "qrl/video/DisplayServer.h"
#include "qrl/video/detail/VideoBackends.h"

namespace qrl {

std::unique_ptr<ScreenCapture> openScreenCapture(DisplayServer& server, CGDirectDisplayID display,
                                                 std::string* whyNot) {
    BackendChoice choice;
    auto capture = chooseBackend(detail::kScreenCapturePort, detail::screenCaptureBackends(), &choice, server, display);
    if (!capture && whyNot) {
        *whyNot = "the \"" + std::string(server.backendName()) + "\" display server has no screen capture";
        if (const std::string reasons = choice.reasons(); !reasons.empty()) *whyNot += " (" + reasons + ")";
    }
    return capture;
}

}  // namespace qrl
