// Points, sizes and rectangles of doubles (CG and NS spellings are the same
// types), the basic rectangle operations every caller needs, and a boxed
// rectangle for metadata maps.
#pragma once

#include <cmath>
#include <limits>
#include <optional>
#include <string>

#include "qrl/foundation/Value.h"

namespace qrl {

struct CGPoint {
    double x = 0.0;
    double y = 0.0;
    // "{x, y}".
    std::string description() const;
    friend bool operator==(const CGPoint&, const CGPoint&) = default;
};

struct CGSize {
    double width = 0.0;
    double height = 0.0;
    // "{width, height}".
    std::string description() const;
    friend bool operator==(const CGSize&, const CGSize&) = default;
};

// Origin and size; screen rectangles are in points, bottom-left origin, y up.
struct CGRect {
    CGPoint origin;
    CGSize size;
    // "{{x, y}, {width, height}}".
    std::string description() const;
    friend bool operator==(const CGRect&, const CGRect&) = default;
};

using NSPoint = CGPoint;
using NSSize = CGSize;
using NSRect = CGRect;

inline constexpr NSPoint NSZeroPoint{};
inline constexpr NSSize NSZeroSize{};
inline constexpr NSRect NSZeroRect{};
inline constexpr CGRect CGRectZero{};

constexpr NSPoint NSMakePoint(double x, double y) { return {x, y}; }
constexpr NSSize NSMakeSize(double w, double h) { return {w, h}; }
constexpr NSRect NSMakeRect(double x, double y, double w, double h) { return {{x, y}, {w, h}}; }
constexpr CGRect CGRectMake(double x, double y, double w, double h) { return {{x, y}, {w, h}}; }
constexpr CGPoint CGPointMake(double x, double y) { return {x, y}; }
constexpr CGSize CGSizeMake(double w, double h) { return {w, h}; }

constexpr double NSMinX(const NSRect& r) { return r.origin.x; }
constexpr double NSMinY(const NSRect& r) { return r.origin.y; }
constexpr double NSMaxX(const NSRect& r) { return r.origin.x + r.size.width; }
constexpr double NSMaxY(const NSRect& r) { return r.origin.y + r.size.height; }
constexpr double NSWidth(const NSRect& r) { return r.size.width; }
constexpr double NSHeight(const NSRect& r) { return r.size.height; }

// True unless both sides are above 0 (a NaN side makes it empty).
bool NSIsEmptyRect(const NSRect& r);
// The smallest rectangle holding both; an empty rectangle adds nothing, and
// two empty ones give NSZeroRect.
NSRect NSUnionRect(const NSRect& a, const NSRect& b);
// Half-open on both axes: a point on the right or top edge is outside.
bool NSPointInRect(const NSPoint& p, const NSRect& r);
// Origin floored and far edges raised to whole numbers; an empty rectangle
// gives NSZeroRect.
NSRect NSIntegralRect(const NSRect& r);
bool NSEqualRects(const NSRect& a, const NSRect& b);

// "{{%g, %g}, {%g, %g}}" and its point and size forms.
std::string NSStringFromRect(const NSRect& r);
std::string NSStringFromPoint(const NSPoint& p);
std::string NSStringFromSize(const NSSize& s);

// A double narrowed to a float the way the hardware does it: out-of-range
// values become infinities (a plain conversion would be undefined), NaN stays NaN.
inline float narrowToFloat(double v) {
    if (v > static_cast<double>(std::numeric_limits<float>::max())) return std::numeric_limits<float>::infinity();
    if (v < -static_cast<double>(std::numeric_limits<float>::max())) return -std::numeric_limits<float>::infinity();
    return static_cast<float>(v);
}

// A rectangle boxed for a Value (the "frame" of a display metadata map).
// Compares equal to another box holding the same rectangle.
class BoxedRect final : public Object {
public:
    explicit BoxedRect(NSRect rect) : rect_(rect) {}
    const NSRect& rect() const { return rect_; }
    std::string description() const override { return NSStringFromRect(rect_); }
    bool isEqual(const Object& other) const override;

private:
    NSRect rect_;
};

Value boxRect(const NSRect& r);
// The rectangle of a boxed one; nullopt for anything else.
std::optional<NSRect> rectValue(const Value& v);

}  // namespace qrl
