// Utils: the system and media framework versions, rectangle conversions and
// centring arithmetic, the classic 16-bit Rect record, and the wake-up of a
// sleeping display.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "qrl/foundation/Geometry.h"
#include "qrl/system/Version.h"

namespace qrl {

class ScreenEnvironment;

// The classic rectangle record: word 0 top, word 1 left, word 2 bottom, word 3 right.
struct Rect {
    int16_t top = 0;
    int16_t left = 0;
    int16_t bottom = 0;
    int16_t right = 0;
    friend bool operator==(const Rect&, const Rect&) = default;
};

// x = word 1, y = word 0, width = word 3 - word 1, height = word 2 - word 0.
NSRect RectToNSRect(const Rect& r);
// word 0 = x, word 1 = y, word 3 = x + width, word 2 = y + height, each
// truncated (saturating at the 16-bit limits; NaN gives 0). The origin goes
// in the other way round from RectToNSRect: a round trip exchanges x and y
// while the far edges stay.
Rect NSRectToRect(const NSRect& r);

// A view that converts rectangles to and from its window's coordinates
// (implemented by the interface layer's adapters).
class CoordinateView {
public:
    virtual ~CoordinateView() = default;
    virtual NSRect convertRectToWindow(const NSRect& r) const = 0;
    virtual NSRect convertRectFromWindow(const NSRect& r) const = 0;
};

class Utils {
public:
    Utils() = delete;

    // The media framework's packed version from the 'qtim' selector: major
    // bits 24-27, minor 20-23, build 16-19, version the whole value widened
    // with its sign. 0.0.0 with version 0 when the query fails, which it
    // always does on Linux.
    static Version quickTimeVersion();
    // The packed form of a selector answer, as above.
    static Version versionFromPackedValue(int32_t value);
    // The running system's release, as far as it has components (missing
    // ones 0; version 0). On Linux, VERSION_ID of os-release: "12" is 12.0.0,
    // so every named release test is false there.
    static Version systemVersion();
    // True when the packed media framework version is below 0x7138000; a
    // failed query (0) asks for an upgrade.
    static bool upgradeQuickTime();

    static CGRect nsRectToCGRect(const NSRect& r) { return r; }
    static NSRect cgRectToNSRect(const CGRect& r) { return r; }

    // One line on the platform log: "[Rect] %@  %d,%d,%d,%d" (words 0, 1, 3,
    // 2), "[NSRect] %@  %f,%f,%f,%f", "[CGRect] %@  %f,%f,%f,%f".
    static void dumpRect(std::string_view label, const Rect& r);
    static void dumpRectNsRect(std::string_view label, const NSRect& r);
    static void dumpRectCgRect(std::string_view label, const CGRect& r);

    // The rectangle's size centred on the point, kept within the size of the
    // union of all screens (its origin does not come into it): x is
    // trunc(p.x - w / 2), at least 0 (applied first), at most trunc(F.width - w).
    static CGRect centreAroundScreenPoint(const CGRect& rect, const CGPoint& point);
    // Truncated width and height, each divided by the scale, centred on the
    // pointer, then floored.
    static CGRect getScaledRect(const CGRect& rect, float scale);
    // Through the view's window coordinates, floored; NSZeroRect for no view.
    static CGRect integralizeAndFloorForView(const CGRect& rect, const CoordinateView* view);
    // Through the view's window coordinates, made integral; NSZeroRect for no view.
    static CGRect integralizeForView(const CGRect& rect, const CoordinateView* view);
    // The screen's user-space scale factor; 1.0 for null. Any screen type
    // with userSpaceScaleFactor() (the display layer's NSScreen).
    template <class Screen>
    static float scaleFactor(const Screen* object) {
        return object ? object->userSpaceScaleFactor() : 1.0f;
    }
    static float scaleFactor(std::nullptr_t) { return 1.0f; }
    // An aspect-preserving fit when the size is larger than the bounds (the
    // factor is the final width or height over the size's); otherwise the
    // size centred relative to the bounds (origin ignored) with factor 1.0.
    // The factor is written only when the pointer is given.
    static CGRect center(const CGSize& size, const CGRect& bounds, double* reductionFactor);
    // Aspect-preserving fit of the size into the rectangle.
    static CGRect centerSizeWithinRect(const CGSize& size, const CGRect& rect);

    // When the default provider lists no graphics card, moves the pointer on
    // the main display and reports activity, once a second for up to 15
    // seconds, until one appears. Blocks its thread meanwhile.
    static void wakeUpIfASleep();
    // The same against a given environment (tests, tools; the display
    // layer's DisplaysScreenEnvironment wraps a given provider).
    static void wakeUpIfASleep(ScreenEnvironment& screens);

    // qrl::sleepForTimeInterval (foundation/Clock.h): blocks the calling
    // thread for `seconds`; on a virtual clock it moves that clock instead.
    static void sleepForTimeInterval(double seconds);
};

}  // namespace qrl
