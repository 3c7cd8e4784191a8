// DisplaysScreenEnvironment: the screens as the system utilities see them,
// answered by the installed display server and a display provider (the
// default provider unless one is given). The automatic ScreenEnvironment
// of a process that links the display layer.
#pragma once

#include <memory>

#include "qrl/system/ScreenEnvironment.h"

namespace qrl {

class DisplaysProvider;

class DisplaysScreenEnvironment final : public ScreenEnvironment {
public:
    // Null: DisplaysProvider::defaultProvider(), asked on each call.
    explicit DisplaysScreenEnvironment(std::shared_ptr<DisplaysProvider> provider = nullptr);

    NSRect allScreensFrame() override;
    NSPoint mouseLocation() override;
    std::size_t graphicsCardCount() override;
    void moveCursorOnMainDisplay(CGPoint point) override;
    void reportUserActivity() override;

private:
    std::shared_ptr<DisplaysProvider> provider_;
};

}  // namespace qrl
