// The video subsystem's backend lists, one per port, in the order they are
// tried. The lists live in VideoBackends.cpp, the one place that knows which
// backends were built.
#pragma once

#include <memory>
#include <optional>
#include <span>
#include <string>

#include "qrl/foundation/BackendChooser.h"
#include "qrl/video/NSScreen.h"
#include "qrl/video/SleepWatcher.h"

namespace qrl {
class DisplayServer;
class GraphicsDevices;
class ScreenCapture;
}  // namespace qrl

namespace qrl::detail {

using DisplayServerEntry = BackendEntry<std::shared_ptr<DisplayServer>>;
using GraphicsDevicesEntry = BackendEntry<std::shared_ptr<GraphicsDevices>>;
using ScreenCaptureEntry = BackendEntry<std::unique_ptr<ScreenCapture>, DisplayServer&, CGDirectDisplayID>;
using SleepWatcherEntry =
    BackendEntry<std::unique_ptr<SleepWatcher>, const SleepWatcher::Handler&, const std::optional<std::string>&>;

inline constexpr BackendPort kDisplaysPort{"displays", "QRL_DISPLAY_PLATFORM"};
inline constexpr BackendPort kRenderersPort{"renderers", "QRL_RENDERER_PLATFORM"};
inline constexpr BackendPort kScreenCapturePort{"capture", "QRL_CAPTURE_PLATFORM"};
inline constexpr BackendPort kSleepPort{"sleep", "QRL_SLEEP_PLATFORM"};

std::span<const DisplayServerEntry> displayServerBackends();
std::span<const GraphicsDevicesEntry> graphicsDevicesBackends();
std::span<const ScreenCaptureEntry> screenCaptureBackends();
std::span<const SleepWatcherEntry> sleepWatcherBackends();

}  // namespace qrl::detail
