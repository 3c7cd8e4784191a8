#include "qrl/video/VideoPlatform.h"

#include <string>
#include <utility>

#include "qrl/foundation/BackendChooser.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/detail/VideoBackends.h"

namespace qrl {

namespace {

// Walks the port's list; says once why nothing better than "none" was found.
template <class Port>
std::shared_ptr<Port> choose(const BackendPort& port, std::span<const BackendEntry<std::shared_ptr<Port>>> entries,
                             const char* failure) {
    BackendChoice choice;
    std::shared_ptr<Port> made = chooseBackend(port, entries, &choice);
    QRLLogInfo("Video backend chosen, %@: %@", std::string(port.name), choice.describe());
    if (choice.chosen == "none" && choice.named != "none") platformLogFormat("%@: %@", failure, choice.reasons());
    return made;
}

bool hasBackend(auto entries, std::string_view name) {
    for (const auto& entry : entries)
        if (entry.name == name) return true;
    return false;
}

}  // namespace

InstalledPort<DisplayServer>& VideoPlatform::displaysSlot() {
    static auto* slot = new InstalledPort<DisplayServer>([] {
        return choose<DisplayServer>(detail::kDisplaysPort, detail::displayServerBackends(), "No display server");
    });
    return *slot;
}

InstalledPort<GraphicsDevices>& VideoPlatform::renderersSlot() {
    static auto* slot = new InstalledPort<GraphicsDevices>([] {
        return choose<GraphicsDevices>(detail::kRenderersPort, detail::graphicsDevicesBackends(),
                                       "No graphics renderers");
    });
    return *slot;
}

std::shared_ptr<DisplayServer> VideoPlatform::displayServer() { return displaysSlot().get(); }

std::shared_ptr<GraphicsDevices> VideoPlatform::graphicsDevices() { return renderersSlot().get(); }

bool VideoPlatform::request(std::string_view name) {
    const bool displays = name.empty() || hasBackend(detail::displayServerBackends(), name);
    const bool renderers = name.empty() || hasBackend(detail::graphicsDevicesBackends(), name);
    if (!displays && !renderers) return false;
    if (displays) {
        requestBackend(detail::kDisplaysPort.name, name);
        displaysSlot().install(nullptr);
    }
    if (renderers) {
        requestBackend(detail::kRenderersPort.name, name);
        renderersSlot().install(nullptr);
    }
    return true;
}

void VideoPlatform::install(std::shared_ptr<DisplayServer> displays, std::shared_ptr<GraphicsDevices> renderers) {
    // The old ones are released here, outside the slots' locks: a backend's
    // teardown may join its threads.
    auto oldDisplays = displaysSlot().exchange(std::move(displays));
    auto oldRenderers = renderersSlot().exchange(std::move(renderers));
}

std::string VideoPlatform::choiceReport() {
    std::string out;
    for (const BackendPort& port : {detail::kDisplaysPort, detail::kRenderersPort}) {
        const std::string line = backendChoiceFor(port.name);
        if (!line.empty()) out += (out.empty() ? "" : "\n") + std::string(port.name) + ": " + line;
    }
    return out;
}

ScopedVideoPlatform::ScopedVideoPlatform(std::shared_ptr<DisplayServer> displays,
                                         std::shared_ptr<GraphicsDevices> renderers)
    : displays_(VideoPlatform::displaysSlot(), std::move(displays)),
      renderers_(VideoPlatform::renderersSlot(), std::move(renderers)) {}

}  // namespace qrl
