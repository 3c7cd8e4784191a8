// Screen helpers: a screen's display ID, keeping rectangles within a
// screen, finding the screen under a point, a rectangle or the pointer, and
// the union of all screens' frames.
#pragma once

#include "qrl/foundation/Geometry.h"
#include "qrl/video/NSScreen.h"

namespace qrl {

// "NSScreenNumber" of the screen's device description.
CGDirectDisplayID directDisplayID(const NSScreen& screen);

// `rect` moved inside `bounds`, and cut to their size when larger: inside
// stays unchanged, sticking out is moved in, larger is set at the bounds'
// origin with the bounds' size.
NSRect constrainRect(const NSScreen& screen, NSRect rect, NSRect bounds);
// Within the screen's frame.
NSRect constrainRect(const NSScreen& screen, NSRect rect);
// Within the screen's frame moved to the origin.
NSRect constrainRelativeRect(const NSScreen& screen, NSRect rect);
// Within the frame of the display's screen; unchanged when there is no such screen.
NSRect constrainRect(NSRect rect, CGDirectDisplayID display);

// The screen of the display, or null.
NSScreenRef screenForCGDirectDisplayID(CGDirectDisplayID display);
// The first screen whose frame holds the point (right and top edges
// excluded); else the main screen, which may be null.
NSScreenRef screenUnderPoint(NSPoint point);
NSScreenRef screenUnderMouse();
// The screen under the centre of the rectangle.
NSScreenRef screenContainingRect(NSRect rect);
// The union of every screen's frame, floored; NSZeroRect with no screens.
NSRect allScreensFrame();

// y becomes the height of the main display's screen minus y; x stays. With
// no such screen the height counts as 0.
NSPoint QRLFlipFromCocoaToQuartzCoords(const NSPoint& p);

}  // namespace qrl
