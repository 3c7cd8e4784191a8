// Rectangle arithmetic for the whole system: centres, flooring, rounding to
// multiples of 32, comparison with a tolerance and the text form.
#pragma once

#include <cstdint>
#include <string>

#include "qrl/foundation/Geometry.h"

namespace qrl {

// x + width * 0.5, y + height * 0.5.
NSPoint NSCenterOfRect(const NSRect& r);
// Floor of each of x, y, width and height.
NSRect NSFloorIntegralRect(const NSRect& r);

// The value times 0.03125, rounded to the nearest whole number with halves
// away from zero, times 32: 15.9 gives 0, 16 gives 32, -16 gives -32. A
// non-zero value can give 0. Beyond the 32-bit range the answer saturates;
// NaN gives 0.
int32_t MultipleOf32(double value);
// The same per coordinate, as doubles.
NSPoint NSMultipleOf32Point(const NSPoint& p);
NSSize NSMultipleOf32Size(const NSSize& s);
// The origin as it stands; width and height to multiples of 32.
NSRect NSMultipleOf32Rect(const NSRect& r);

// "{{%1.0f,%1.0f}, {%1.0f,%1.0f}}" with x, y, width, height.
std::string NSStringFromCGRect(const CGRect& r);

// True when width or height is 0 or less.
bool NSIsEmptySize(const NSSize& s);

// Each pair of values fails when fabs(a - b) is strictly greater than the
// tolerance (widened to a double): a difference of exactly the tolerance is
// equal, and a NaN on either side never fails its pair.
bool NSSizeEqualWithTolerance(const NSSize& a, const NSSize& b, float tolerance);
// x, y, width and height, in that order.
bool NSRectEqualToRectWithTolerance(const NSRect& a, const NSRect& b, float tolerance);
bool CGRectEqualToRectWithTolerance(const CGRect& a, const CGRect& b, float tolerance);

}  // namespace qrl
