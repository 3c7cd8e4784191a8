#include "qrl/foundation/Geometry.h"

#include <algorithm>
#include <cmath>

#include "qrl/foundation/Format.h"

namespace qrl {

std::string CGPoint::description() const { return NSStringFromPoint(*this); }
std::string CGSize::description() const { return NSStringFromSize(*this); }
std::string CGRect::description() const { return NSStringFromRect(*this); }

bool NSIsEmptyRect(const NSRect& r) { return !(r.size.width > 0.0 && r.size.height > 0.0); }

NSRect NSUnionRect(const NSRect& a, const NSRect& b) {
    const bool aEmpty = NSIsEmptyRect(a);
    const bool bEmpty = NSIsEmptyRect(b);
    if (aEmpty && bEmpty) return NSZeroRect;
    if (aEmpty) return b;
    if (bEmpty) return a;
    const double minX = std::min(NSMinX(a), NSMinX(b));
    const double minY = std::min(NSMinY(a), NSMinY(b));
    const double maxX = std::max(NSMaxX(a), NSMaxX(b));
    const double maxY = std::max(NSMaxY(a), NSMaxY(b));
    return NSMakeRect(minX, minY, maxX - minX, maxY - minY);
}

bool NSPointInRect(const NSPoint& p, const NSRect& r) {
    return p.x >= NSMinX(r) && p.x < NSMaxX(r) && p.y >= NSMinY(r) && p.y < NSMaxY(r);
}

NSRect NSIntegralRect(const NSRect& r) {
    if (NSIsEmptyRect(r)) return NSZeroRect;
    const double x = std::floor(NSMinX(r));
    const double y = std::floor(NSMinY(r));
    return NSMakeRect(x, y, std::ceil(NSMaxX(r)) - x, std::ceil(NSMaxY(r)) - y);
}

bool NSEqualRects(const NSRect& a, const NSRect& b) { return a == b; }

std::string NSStringFromRect(const NSRect& r) {
    return qrl::format("{{%g, %g}, {%g, %g}}", r.origin.x, r.origin.y, r.size.width, r.size.height);
}

std::string NSStringFromPoint(const NSPoint& p) { return qrl::format("{%g, %g}", p.x, p.y); }

std::string NSStringFromSize(const NSSize& s) { return qrl::format("{%g, %g}", s.width, s.height); }

bool BoxedRect::isEqual(const Object& other) const {
    const auto* box = dynamic_cast<const BoxedRect*>(&other);
    return box && box->rect_ == rect_;
}

Value boxRect(const NSRect& r) { return Value(std::shared_ptr<Object>(std::make_shared<BoxedRect>(r))); }

std::optional<NSRect> rectValue(const Value& v) {
    const auto& object = v.asObject();
    if (!object) return std::nullopt;
    const auto* box = dynamic_cast<const BoxedRect*>(object.get());
    if (!box) return std::nullopt;
    return box->rect();
}

}  // namespace qrl
