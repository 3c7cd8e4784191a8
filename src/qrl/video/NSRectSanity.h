// Rectangles stored under a key: in a preference store as four float values
// (".x", ".y", ".width", ".height" added to the key), and the map form,
// which stores zeros whatever the rectangle holds.
#pragma once

#include <string_view>

#include "qrl/foundation/Value.h"
#include "qrl/foundation/Geometry.h"

namespace qrl {

class QRLDefaults;

// Four values, each narrowed to a float, under "<key>.x", "<key>.y",
// "<key>.width", "<key>.height".
void setRect(QRLDefaults& defaults, const NSRect& rect, std::string_view key);
// The rectangle from those four values (each read as a float and widened;
// a missing value reads 0), so precision beyond a float is lost.
NSRect rectForKey(const QRLDefaults& defaults, std::string_view key);
// Stores the float 0.0 under the four suffixed keys, whatever the rectangle
// holds. Nothing reads those values back.
void setRect(Dictionary& map, const NSRect& rect, std::string_view key);

}  // namespace qrl
