#include "qrl/video/DisplaysScreenEnvironment.h"

#include "qrl/video/DisplayServer.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/ScreenFrameUnion.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

DisplaysScreenEnvironment::DisplaysScreenEnvironment(std::shared_ptr<DisplaysProvider> provider)
    : provider_(std::move(provider)) {}

NSRect DisplaysScreenEnvironment::allScreensFrame() { return qrl::allScreensFrame(); }

NSPoint DisplaysScreenEnvironment::mouseLocation() { return VideoPlatform::displayServer()->mouseLocation(); }

std::size_t DisplaysScreenEnvironment::graphicsCardCount() {
    const auto provider = provider_ ? provider_ : DisplaysProvider::defaultProvider();
    return provider->graphicsCardsByRenderID().size();
}

void DisplaysScreenEnvironment::moveCursorOnMainDisplay(CGPoint point) {
    const auto displays = VideoPlatform::displayServer();
    displays->moveCursorToPoint(displays->mainDisplayID(), point);
}

void DisplaysScreenEnvironment::reportUserActivity() {
    const auto displays = VideoPlatform::displayServer();
    displays->updateSystemActivity(kUsrActivity);
    displays->updateSystemActivity(kOverallAct);
}

}  // namespace qrl
