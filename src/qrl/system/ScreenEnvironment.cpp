#include "qrl/system/ScreenEnvironment.h"

#include <atomic>

#include "qrl/foundation/InstalledPort.h"

namespace qrl {

namespace {

// No screens, no pointer, no cards; nudges do nothing.
class NoScreens final : public ScreenEnvironment {
public:
    NSRect allScreensFrame() override { return NSZeroRect; }
    NSPoint mouseLocation() override { return NSZeroPoint; }
    std::size_t graphicsCardCount() override { return 0; }
    void moveCursorOnMainDisplay(CGPoint) override {}
    void reportUserActivity() override {}
};

std::atomic<ScreenEnvironment::Maker> gAutomatic{nullptr};

std::shared_ptr<ScreenEnvironment> choose() {
    const ScreenEnvironment::Maker maker = gAutomatic.load(std::memory_order_acquire);
    if (auto made = maker ? maker() : nullptr) return made;
    return std::make_shared<NoScreens>();
}

InstalledPort<ScreenEnvironment>& slot() {
    static auto* s = new InstalledPort<ScreenEnvironment>(&choose);
    return *s;
}

}  // namespace

std::shared_ptr<ScreenEnvironment> ScreenEnvironment::installed() { return slot().get(); }

void ScreenEnvironment::install(std::shared_ptr<ScreenEnvironment> environment) {
    slot().install(std::move(environment));
}

void ScreenEnvironment::setAutomaticChoice(Maker maker) { gAutomatic.store(maker, std::memory_order_release); }

}  // namespace qrl
