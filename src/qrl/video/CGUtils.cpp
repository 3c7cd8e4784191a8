#include "qrl/video/CGUtils.h"

namespace qrl {

void CGUtils::createRoundedPath(CGContext& context, const CGRect& rect, float ovalWidth, float ovalHeight) {
    context.translateCTM(NSMinX(rect), NSMinY(rect));
    context.scaleCTM(ovalWidth, ovalHeight);
    const double fw = NSWidth(rect) / ovalWidth;
    const double fh = NSHeight(rect) / ovalHeight;
    context.moveToPoint(fw, fh / 2);
    context.addArcToPoint(fw, fh, fw / 2, fh, 1);
    context.addArcToPoint(0, fh, 0, fh / 2, 1);
    context.addArcToPoint(0, 0, fw / 2, 0, 1);
    context.addArcToPoint(fw, 0, fw, fh / 2, 1);
    context.closePath();
}

}  // namespace qrl
