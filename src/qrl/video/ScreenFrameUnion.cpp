#include "qrl/video/ScreenFrameUnion.h"

#include <algorithm>

#include "qrl/video/DisplayServer.h"
#include "qrl/foundation/RectFunctions.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

CGDirectDisplayID directDisplayID(const NSScreen& screen) { return screen.details().displayID; }

NSRect constrainRect(const NSScreen&, NSRect r, NSRect b) {
    double x = std::max(r.origin.x, b.origin.x);
    double y = std::max(r.origin.y, b.origin.y);
    const double limitX = b.origin.x + b.size.width - r.size.width;
    if (x > limitX) x = std::max(b.origin.x, limitX);
    const double limitY = b.origin.y + b.size.height - r.size.height;
    if (y > limitY) y = std::max(b.origin.y, limitY);
    return NSMakeRect(x, y, std::min(r.size.width, b.size.width), std::min(r.size.height, b.size.height));
}

NSRect constrainRect(const NSScreen& screen, NSRect rect) { return constrainRect(screen, rect, screen.frame()); }

NSRect constrainRelativeRect(const NSScreen& screen, NSRect rect) {
    NSRect bounds = screen.frame();
    bounds.origin = NSZeroPoint;
    return constrainRect(screen, rect, bounds);
}

NSRect constrainRect(NSRect rect, CGDirectDisplayID display) {
    const auto screen = screenForCGDirectDisplayID(display);
    return screen ? constrainRect(*screen, rect) : rect;
}

NSScreenRef screenForCGDirectDisplayID(CGDirectDisplayID display) {
    for (auto& screen : NSScreen::screens()) {
        if (directDisplayID(*screen) == display) return screen;
    }
    return nullptr;
}

NSScreenRef screenUnderPoint(NSPoint point) {
    for (auto& screen : NSScreen::screens()) {
        if (NSPointInRect(point, screen->frame())) return screen;
    }
    return NSScreen::mainScreen();
}

NSScreenRef screenUnderMouse() { return screenUnderPoint(VideoPlatform::displayServer()->mouseLocation()); }

NSScreenRef screenContainingRect(NSRect rect) { return screenUnderPoint(NSCenterOfRect(rect)); }

NSRect allScreensFrame() {
    NSRect all = NSZeroRect;
    for (const auto& screen : NSScreen::screens()) all = NSUnionRect(all, screen->frame());
    return NSFloorIntegralRect(all);
}

NSPoint QRLFlipFromCocoaToQuartzCoords(const NSPoint& p) {
    const auto screen = DisplaysProvider::screenForDisplayID(VideoPlatform::displayServer()->mainDisplayID());
    const double height = screen ? screen->frame().size.height : 0.0;
    return {p.x, height - p.y};
}

}  // namespace qrl
