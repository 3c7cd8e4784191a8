#include "qrl/video/NSScreen.h"

#include "qrl/foundation/Format.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/VideoPlatform.h"

namespace qrl {

Dictionary NSScreen::deviceDescription() const {
    Dictionary d;
    d.set("NSScreenNumber", Value(static_cast<long long>(d_.displayID)));
    d.set("NSDeviceSize", Value(NSStringFromSize(d_.frame.size)));
    double dpiX = 72.0 * d_.backingScaleFactor;
    double dpiY = dpiX;
    if (d_.physicalSizeMillimetres.width > 0 && d_.physicalSizeMillimetres.height > 0) {
        dpiX = d_.frame.size.width * d_.backingScaleFactor * 25.4 / d_.physicalSizeMillimetres.width;
        dpiY = d_.frame.size.height * d_.backingScaleFactor * 25.4 / d_.physicalSizeMillimetres.height;
    }
    d.set("NSDeviceResolution", Value(NSStringFromSize({dpiX, dpiY})));
    d.set("NSDeviceIsScreen", Value("YES"));
    if (!d_.name.empty()) d.set("NSDeviceName", Value(d_.name));
    return d;
}

NSRect NSScreen::convertRectToBacking(const NSRect& r) const {
    const double f = d_.backingScaleFactor;
    return NSMakeRect(r.origin.x * f, r.origin.y * f, r.size.width * f, r.size.height * f);
}

NSRect NSScreen::convertRectFromBacking(const NSRect& r) const {
    const double f = d_.backingScaleFactor;
    return NSMakeRect(r.origin.x / f, r.origin.y / f, r.size.width / f, r.size.height / f);
}

std::string NSScreen::description() const {
    return qrl::format("<NSScreen id=%u frame=%@ scale=%g>", d_.displayID, d_.frame, d_.backingScaleFactor);
}

std::vector<std::shared_ptr<const NSScreen>> NSScreen::screens() {
    return VideoPlatform::displayServer()->screens();
}

std::shared_ptr<const NSScreen> NSScreen::mainScreen() { return VideoPlatform::displayServer()->mainScreen(); }

}  // namespace qrl
