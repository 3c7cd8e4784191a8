// CGUtils: path helpers drawn through a small drawing-context interface
// (translate, scale, move, arc to point, close), which a painter adapter
// implements.
#pragma once

#include "qrl/foundation/Geometry.h"

namespace qrl {

// The drawing operations a path helper needs; coordinates are in the
// context's current user space.
class CGContext {
public:
    virtual ~CGContext() = default;
    virtual void translateCTM(double tx, double ty) = 0;
    virtual void scaleCTM(double sx, double sy) = 0;
    virtual void moveToPoint(double x, double y) = 0;
    virtual void addArcToPoint(double x1, double y1, double x2, double y2, double radius) = 0;
    virtual void closePath() = 0;
};

class CGUtils {
public:
    CGUtils() = delete;

    // Adds a rounded rectangle: translates to the rectangle's lower left and
    // scales by the oval sizes (both left in the context: the state is not
    // saved), then one move, four arcs of radius 1 and a close. A zero oval
    // size is not special-cased.
    static void createRoundedPath(CGContext& context, const CGRect& rect, float ovalWidth, float ovalHeight);
};

}  // namespace qrl
