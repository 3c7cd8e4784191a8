// ScreenEnvironment: what the system utilities need of the screens, without
// reaching up into the display layer: the union of the screens' frames, the
// pointer, the number of graphics cards, and the nudges that wake a sleeping
// display. The display layer provides the implementation over its display
// provider and display server, and makes it the automatic choice when the
// library is loaded; with no display layer every answer is empty.
#pragma once

#include <cstddef>
#include <memory>

#include "qrl/foundation/Geometry.h"

namespace qrl {

class ScreenEnvironment {
public:
    virtual ~ScreenEnvironment() = default;

    // The union of every screen's frame, floored; NSZeroRect with no screens.
    virtual NSRect allScreensFrame() = 0;
    // The pointer, in the screens' coordinates.
    virtual NSPoint mouseLocation() = 0;
    // The graphics cards the display provider lists now.
    virtual std::size_t graphicsCardCount() = 0;
    // Moves the pointer to `point` on the main display.
    virtual void moveCursorOnMainDisplay(CGPoint point) = 0;
    // Tells the system the user is active (user activity, then overall).
    virtual void reportUserActivity() = 0;

    // The installed environment: the display layer's unless another was
    // installed. Never null.
    static std::shared_ptr<ScreenEnvironment> installed();
    // Replaces it (null: the automatic choice on next use).
    static void install(std::shared_ptr<ScreenEnvironment> environment);
    // The automatic choice; the display layer sets it at load.
    using Maker = std::shared_ptr<ScreenEnvironment> (*)();
    static void setAutomaticChoice(Maker maker);
};

}  // namespace qrl
