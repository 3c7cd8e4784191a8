#include "qrl/system/Utils.h"

#include <algorithm>
#include <cmath>
#include <limits>

#include "qrl/foundation/Clock.h"
#include "qrl/foundation/FourCC.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/RectFunctions.h"
#include "qrl/system/ScreenEnvironment.h"
#include "qrl/system/SystemFacts.h"

namespace qrl {

namespace {

int16_t truncToInt16(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 32767.0) return std::numeric_limits<int16_t>::max();
    if (v <= -32768.0) return std::numeric_limits<int16_t>::min();
    return static_cast<int16_t>(v);
}

int64_t truncToInt64(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 9.2e18) return std::numeric_limits<int64_t>::max();
    if (v <= -9.2e18) return std::numeric_limits<int64_t>::min();
    return static_cast<int64_t>(v);
}

int32_t truncToInt32(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return std::numeric_limits<int32_t>::max();
    if (v <= -2147483648.0) return std::numeric_limits<int32_t>::min();
    return static_cast<int32_t>(v);
}

}  // namespace

NSRect RectToNSRect(const Rect& r) {
    return NSMakeRect(r.left, r.top, static_cast<double>(r.right) - r.left, static_cast<double>(r.bottom) - r.top);
}

Rect NSRectToRect(const NSRect& r) {
    Rect out;
    out.top = truncToInt16(r.origin.x);
    out.left = truncToInt16(r.origin.y);
    out.right = truncToInt16(r.origin.x + r.size.width);
    out.bottom = truncToInt16(r.origin.y + r.size.height);
    return out;
}

Version Utils::versionFromPackedValue(int32_t v) {
    Version version;
    const auto u = static_cast<uint32_t>(v);
    version.setMajor(static_cast<int32_t>((u >> 24) & 0xF));
    version.setMinor(static_cast<int32_t>((u >> 20) & 0xF));
    version.setBuild(static_cast<int32_t>((u >> 16) & 0xF));
    version.setVersion(static_cast<int64_t>(v));
    return version;
}

Version Utils::quickTimeVersion() {
    const auto answer = SystemFacts::installed()->gestalt(fourCC("qtim"));
    if (!answer) return Version();
    return versionFromPackedValue(*answer);
}

Version Utils::systemVersion() {
    const auto text = SystemFacts::installed()->productVersion();
    if (!text) return Version();
    // The release text as far as it has components; a fourth is ignored.
    return Version::initWithVersionString(std::string_view(*text)).value_or(Version());
}

bool Utils::upgradeQuickTime() { return quickTimeVersion().version() < 0x7138000; }

void Utils::dumpRect(std::string_view label, const Rect& r) {
    platformLogFormat("[Rect] %@  %d,%d,%d,%d", label, r.top, r.left, r.right, r.bottom);
}

void Utils::dumpRectNsRect(std::string_view label, const NSRect& r) {
    platformLogFormat("[NSRect] %@  %f,%f,%f,%f", label, r.origin.x, r.origin.y, r.size.width, r.size.height);
}

void Utils::dumpRectCgRect(std::string_view label, const CGRect& r) {
    platformLogFormat("[CGRect] %@  %f,%f,%f,%f", label, r.origin.x, r.origin.y, r.size.width, r.size.height);
}

CGRect Utils::centreAroundScreenPoint(const CGRect& rect, const CGPoint& point) {
    const NSRect frame = ScreenEnvironment::installed()->allScreensFrame();
    const double w = rect.size.width;
    const double h = rect.size.height;
    int64_t x = truncToInt64(point.x - w * 0.5);
    x = std::max<int64_t>(x, 0);
    x = std::min<int64_t>(x, truncToInt64(frame.size.width - w));
    int64_t y = truncToInt64(point.y - h * 0.5);
    y = std::max<int64_t>(y, 0);
    y = std::min<int64_t>(y, truncToInt64(frame.size.height - h));
    return CGRectMake(static_cast<double>(x), static_cast<double>(y), w, h);
}

CGRect Utils::getScaledRect(const CGRect& rect, float scale) {
    const float w = static_cast<float>(truncToInt32(rect.size.width)) / scale;
    const float h = static_cast<float>(truncToInt32(rect.size.height)) / scale;
    const NSPoint mouse = ScreenEnvironment::installed()->mouseLocation();
    return NSFloorIntegralRect(CGRectMake(mouse.x - w * 0.5, mouse.y - h * 0.5, w, h));
}

CGRect Utils::integralizeAndFloorForView(const CGRect& rect, const CoordinateView* view) {
    if (!view) return NSZeroRect;
    return view->convertRectFromWindow(NSFloorIntegralRect(view->convertRectToWindow(rect)));
}

CGRect Utils::integralizeForView(const CGRect& rect, const CoordinateView* view) {
    if (!view) return NSZeroRect;
    return view->convertRectFromWindow(NSIntegralRect(view->convertRectToWindow(rect)));
}

namespace {

// The fit of centerSizeWithinRect; `widthDecides` tells which side did.
CGRect fit(const CGSize& size, CGRect r, bool& widthDecides) {
    const double w = size.width;
    const double h = size.height;
    const float a = narrowToFloat(r.size.height / r.size.width);
    const float b = narrowToFloat(h / w);
    widthDecides = a > b;
    if (widthDecides) {
        const double k = r.size.width / w;
        const float d = narrowToFloat(r.size.height - k * h);
        r.size.height -= d;
        r.origin.y += d * 0.5;
    } else {
        const double k = r.size.height / h;
        const float d = narrowToFloat(r.size.width - k * w);
        r.size.width -= d;
        r.origin.x += d * 0.5;
    }
    return r;
}

}  // namespace

CGRect Utils::centerSizeWithinRect(const CGSize& size, const CGRect& rect) {
    bool widthDecides = false;
    return fit(size, rect, widthDecides);
}

CGRect Utils::center(const CGSize& size, const CGRect& bounds, double* reductionFactor) {
    if (size.width > bounds.size.width || size.height > bounds.size.height) {
        bool widthDecides = false;
        const CGRect r = fit(size, bounds, widthDecides);
        if (reductionFactor) *reductionFactor = widthDecides ? r.size.width / size.width : r.size.height / size.height;
        return r;
    }
    if (reductionFactor) *reductionFactor = 1.0;
    return CGRectMake(static_cast<double>(truncToInt64(bounds.size.width * 0.5 - size.width * 0.5)),
                      static_cast<double>(truncToInt64(bounds.size.height * 0.5 - size.height * 0.5)), size.width,
                      size.height);
}

void Utils::wakeUpIfASleep() { wakeUpIfASleep(*ScreenEnvironment::installed()); }

void Utils::wakeUpIfASleep(ScreenEnvironment& screens) {
    std::size_t cards = screens.graphicsCardCount();
    if (cards > 0) platformLogFormat("Card count is %d. Not bothering to wake displays...", static_cast<int>(cards));
    Clock& clock = installedClock();
    const uint64_t start = clock.now();
    while (cards == 0 && static_cast<double>(clock.now() - start) / clock.frequency() < 15.0) {
        screens.moveCursorOnMainDisplay(CGPoint{0, 0});
        screens.reportUserActivity();
        sleepForTimeInterval(1.0);
        screens.moveCursorOnMainDisplay(CGPoint{1, 1});
        platformLog("Waiting for display to wake up...");
        // The provider's current list, so that a card that appears ends the wait.
        cards = screens.graphicsCardCount();
    }
}

void Utils::sleepForTimeInterval(double seconds) { qrl::sleepForTimeInterval(seconds); }

}  // namespace qrl
