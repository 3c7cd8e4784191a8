#include "qrl/foundation/RectFunctions.h"

#include <cmath>

#include "qrl/foundation/Format.h"

namespace qrl {

NSPoint NSCenterOfRect(const NSRect& r) { return {r.origin.x + r.size.width * 0.5, r.origin.y + r.size.height * 0.5}; }

NSRect NSFloorIntegralRect(const NSRect& r) {
    return NSMakeRect(std::floor(r.origin.x), std::floor(r.origin.y), std::floor(r.size.width),
                      std::floor(r.size.height));
}

int32_t MultipleOf32(double value) {
    const double v = std::round(value * 0.03125) * 32.0;
    if (std::isnan(v)) return 0;
    if (v >= 2147483647.0) return INT32_MAX;
    if (v <= -2147483648.0) return INT32_MIN;
    return static_cast<int32_t>(v);
}

NSPoint NSMultipleOf32Point(const NSPoint& p) { return {double(MultipleOf32(p.x)), double(MultipleOf32(p.y))}; }

NSSize NSMultipleOf32Size(const NSSize& s) {
    return {double(MultipleOf32(s.width)), double(MultipleOf32(s.height))};
}

NSRect NSMultipleOf32Rect(const NSRect& r) { return {r.origin, NSMultipleOf32Size(r.size)}; }

std::string NSStringFromCGRect(const CGRect& r) {
    return qrl::format("{{%1.0f,%1.0f}, {%1.0f,%1.0f}}", r.origin.x, r.origin.y, r.size.width, r.size.height);
}

bool NSIsEmptySize(const NSSize& s) { return s.width <= 0.0 || s.height <= 0.0; }

namespace {
bool pairFails(double a, double b, float tolerance) { return std::fabs(a - b) > static_cast<double>(tolerance); }
}  // namespace

bool NSSizeEqualWithTolerance(const NSSize& a, const NSSize& b, float tolerance) {
    return !pairFails(a.width, b.width, tolerance) && !pairFails(a.height, b.height, tolerance);
}

bool NSRectEqualToRectWithTolerance(const NSRect& a, const NSRect& b, float tolerance) {
    return !pairFails(a.origin.x, b.origin.x, tolerance) && !pairFails(a.origin.y, b.origin.y, tolerance) &&
           !pairFails(a.size.width, b.size.width, tolerance) && !pairFails(a.size.height, b.size.height, tolerance);
}

bool CGRectEqualToRectWithTolerance(const CGRect& a, const CGRect& b, float tolerance) {
    return NSRectEqualToRectWithTolerance(a, b, tolerance);
}

}  // namespace qrl
