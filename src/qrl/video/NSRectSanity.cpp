#include "qrl/video/NSRectSanity.h"

#include <string>

#include "qrl/logging/QRLDefaults.h"

namespace qrl {

namespace {
constexpr std::string_view kSuffixes[4] = {".x", ".y", ".width", ".height"};

std::string suffixed(std::string_view key, std::string_view suffix) {
    std::string k(key);
    k += suffix;
    return k;
}
}  // namespace

void setRect(QRLDefaults& defaults, const NSRect& rect, std::string_view key) {
    const double values[4] = {rect.origin.x, rect.origin.y, rect.size.width, rect.size.height};
    for (int i = 0; i < 4; ++i) {
        defaults.setObject(Value(static_cast<double>(narrowToFloat(values[i]))), suffixed(key, kSuffixes[i]));
    }
}

NSRect rectForKey(const QRLDefaults& defaults, std::string_view key) {
    double values[4];
    for (int i = 0; i < 4; ++i) {
        values[i] = static_cast<double>(narrowToFloat(defaults.objectForKey(suffixed(key, kSuffixes[i])).doubleValue()));
    }
    return NSMakeRect(values[0], values[1], values[2], values[3]);
}

void setRect(Dictionary& map, const NSRect&, std::string_view key) {
    for (const std::string_view suffix : kSuffixes) map.set(suffixed(key, suffix), Value(0.0));
}

}  // namespace qrl
