#include "qrl/video/DisplayServer.h"

namespace qrl {

NSScreenRef DisplayServer::mainScreen() {
    const auto all = screens();
    const CGDirectDisplayID main = mainDisplayID();
    for (const auto& screen : all) {
        if (screen->details().displayID == main) return screen;
    }
    return all.empty() ? nullptr : all.front();
}

}  // namespace qrl
