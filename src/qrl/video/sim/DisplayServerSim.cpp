#include "qrl/video/sim/DisplayServerSim.h"

#include <algorithm>

#include "qrl/foundation/NotificationCenter.h"

namespace qrl {

DisplayServerSim::DisplayServerSim(NotificationCenter& center) : center_(center) {}

CGError DisplayServerSim::getActiveDisplayList(uint32_t maxDisplays, std::vector<CGDirectDisplayID>& displays) {
    std::lock_guard lock(mutex_);
    ++counters_.activeListQueries;
    displays.clear();
    if (activeListError_ != 0) return activeListError_;
    for (const SimDisplay& d : displays_) {
        if (displays.size() >= maxDisplays) break;
        if (d.active) displays.push_back(d.id);
    }
    return kCGErrorSuccess;
}

CGError DisplayServerSim::getOnlineDisplayCount(uint32_t& count) {
    std::lock_guard lock(mutex_);
    ++counters_.onlineCountQueries;
    count = 0;
    if (onlineCountError_ != 0) return onlineCountError_;
    count = static_cast<uint32_t>(std::count_if(displays_.begin(), displays_.end(),
                                                [](const SimDisplay& d) { return d.active || d.online; }));
    return kCGErrorSuccess;
}

uint32_t DisplayServerSim::displayIDToOpenGLDisplayMask(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    for (const SimDisplay& d : displays_) {
        if (d.id == display) return d.openGLMask;
    }
    return 0;
}

CGDirectDisplayID DisplayServerSim::mainDisplayID() {
    std::lock_guard lock(mutex_);
    if (main_) return *main_;
    return displays_.empty() ? 0 : displays_.front().id;
}

bool DisplayServerSim::displayIsCaptured(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    ++counters_.capturedQueries;
    for (const SimDisplay& d : displays_) {
        if (d.id == display) return d.captured;
    }
    return false;
}

bool DisplayServerSim::displayIsActive(CGDirectDisplayID display) {
    std::lock_guard lock(mutex_);
    for (const SimDisplay& d : displays_) {
        if (d.id == display) return d.active;
    }
    return false;
}

std::vector<NSScreenRef> DisplayServerSim::screens() {
    std::lock_guard lock(mutex_);
    ++counters_.screensQueries;
    std::vector<NSScreenRef> out;
    for (const SimDisplay& d : displays_) {
        if (!d.hasScreen) continue;
        out.push_back(std::make_shared<const NSScreen>(NSScreen::Description{
            .displayID = d.id,
            .frame = d.frame,
            .backingScaleFactor = d.scale,
            .userSpaceScaleFactor = d.userSpaceScale.value_or(d.scale),
            .physicalSizeMillimetres = d.physicalSizeMillimetres,
            .name = "SIM-" + std::to_string(d.id),
        }));
    }
    return out;
}

NSPoint DisplayServerSim::mouseLocation() {
    std::lock_guard lock(mutex_);
    return mouse_;
}

CGError DisplayServerSim::moveCursorToPoint(CGDirectDisplayID display, CGPoint point) {
    std::lock_guard lock(mutex_);
    ++counters_.cursorMoves;
    if (moveCursorError_ != 0) return moveCursorError_;
    const auto it = std::find_if(displays_.begin(), displays_.end(), [&](const SimDisplay& d) { return d.id == display; });
    if (it == displays_.end()) return kCGErrorIllegalArgument;
    lastMove_ = {display, point};
    // Pixels from the display's top-left corner, back to points from the bottom left.
    const float f = it->scale > 0 ? it->scale : 1.0f;
    mouse_ = NSMakePoint(it->frame.origin.x + point.x / f, NSMaxY(it->frame) - point.y / f);
    return kCGErrorSuccess;
}

void DisplayServerSim::updateSystemActivity(uint8_t activity) {
    std::function<void(uint8_t)> hook;
    {
        std::lock_guard lock(mutex_);
        ++counters_.activityUpdates;
        hook = activityHook_;
    }
    if (hook) hook(activity);
}

void DisplayServerSim::setDisplays(std::vector<SimDisplay> displays) {
    std::lock_guard lock(mutex_);
    displays_ = std::move(displays);
}

std::vector<SimDisplay> DisplayServerSim::displays() const {
    std::lock_guard lock(mutex_);
    return displays_;
}

bool DisplayServerSim::updateDisplay(CGDirectDisplayID id, const std::function<void(SimDisplay&)>& change) {
    std::lock_guard lock(mutex_);
    for (SimDisplay& d : displays_) {
        if (d.id == id) {
            change(d);
            return true;
        }
    }
    return false;
}

bool DisplayServerSim::removeDisplay(CGDirectDisplayID id) {
    std::lock_guard lock(mutex_);
    return std::erase_if(displays_, [&](const SimDisplay& d) { return d.id == id; }) > 0;
}

void DisplayServerSim::setMainDisplay(std::optional<CGDirectDisplayID> id) {
    std::lock_guard lock(mutex_);
    main_ = id;
}

bool DisplayServerSim::setCaptured(CGDirectDisplayID id, bool captured) {
    return updateDisplay(id, [&](SimDisplay& d) { d.captured = captured; });
}

void DisplayServerSim::setMouseLocation(NSPoint p) {
    std::lock_guard lock(mutex_);
    mouse_ = p;
}

void DisplayServerSim::failActiveDisplayList(CGError error) {
    std::lock_guard lock(mutex_);
    activeListError_ = error;
}

void DisplayServerSim::failOnlineDisplayCount(CGError error) {
    std::lock_guard lock(mutex_);
    onlineCountError_ = error;
}

void DisplayServerSim::failMoveCursor(CGError error) {
    std::lock_guard lock(mutex_);
    moveCursorError_ = error;
}

void DisplayServerSim::setSystemActivityHook(std::function<void(uint8_t)> hook) {
    std::lock_guard lock(mutex_);
    activityHook_ = std::move(hook);
}

void DisplayServerSim::postScreenParametersChanged() {
    center_.post(kNSApplicationDidChangeScreenParametersNotification, static_cast<const void*>(this));
}

void DisplayServerSim::sleep() { center_.post(kNSWorkspaceWillSleepNotification, static_cast<const void*>(this)); }

void DisplayServerSim::wake() { center_.post(kNSWorkspaceDidWakeNotification, static_cast<const void*>(this)); }

DisplayServerSim::Counters DisplayServerSim::counters() const {
    std::lock_guard lock(mutex_);
    return counters_;
}

std::optional<std::pair<CGDirectDisplayID, CGPoint>> DisplayServerSim::lastCursorMove() const {
    std::lock_guard lock(mutex_);
    return lastMove_;
}

}  // namespace qrl
