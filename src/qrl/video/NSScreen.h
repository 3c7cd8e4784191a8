// NSScreen: an immutable snapshot of one screen as the display server
// reports it (its display ID, frame in points, scale factors), and the
// process's screen list.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "qrl/foundation/Value.h"
#include "qrl/foundation/Geometry.h"

namespace qrl {

// A display's identifier: unsigned 32-bit, 0 for none.
using CGDirectDisplayID = uint32_t;

class NSScreen {
public:
    struct Description {
        CGDirectDisplayID displayID = 0;
        NSRect frame;                      // points, bottom-left origin of the main display, y up
        float backingScaleFactor = 1.0f;   // pixels per point
        float userSpaceScaleFactor = 1.0f;
        NSSize physicalSizeMillimetres;    // 0 by 0 when unknown
        std::string name;                  // the display server's name for it, may be empty
    };

    explicit NSScreen(Description d) : d_(std::move(d)) {}

    NSRect frame() const { return d_.frame; }
    float backingScaleFactor() const { return d_.backingScaleFactor; }
    float userSpaceScaleFactor() const { return d_.userSpaceScaleFactor; }
    const Description& details() const { return d_; }

    // "NSScreenNumber" (the display ID), "NSDeviceSize" and
    // "NSDeviceResolution" (as text), "NSDeviceIsScreen" ("YES"), and
    // "NSDeviceName" when the display server names the screen.
    Dictionary deviceDescription() const;

    // All four values times (or divided by) the backing scale factor.
    NSRect convertRectToBacking(const NSRect& r) const;
    NSRect convertRectFromBacking(const NSRect& r) const;

    // "<NSScreen id=%u frame={{...}} scale=%g>".
    std::string description() const;

    // The installed display server's screens, in its order; empty when it
    // has none.
    static std::vector<std::shared_ptr<const NSScreen>> screens();
    // The screen of the main display; else the first screen; else null.
    static std::shared_ptr<const NSScreen> mainScreen();

private:
    Description d_;
};

using NSScreenRef = std::shared_ptr<const NSScreen>;

}  // namespace qrl
