#include "qrl/system/sim/SystemFactsSim.h"

namespace qrl {

std::optional<std::string> SystemFactsSim::productVersion() const {
    ++productVersionQueries_;
    std::lock_guard lock(mutex_);
    return productVersion_;
}

std::optional<int32_t> SystemFactsSim::gestalt(uint32_t selector) const {
    ++gestaltQueries_;
    std::lock_guard lock(mutex_);
    const auto it = gestalt_.find(selector);
    if (it == gestalt_.end()) return std::nullopt;
    return it->second;
}

void SystemFactsSim::setProductVersion(std::optional<std::string> version) {
    std::lock_guard lock(mutex_);
    productVersion_ = std::move(version);
}

void SystemFactsSim::setGestalt(uint32_t selector, std::optional<int32_t> answer) {
    std::lock_guard lock(mutex_);
    if (answer) gestalt_[selector] = *answer;
    else gestalt_.erase(selector);
}

}  // namespace qrl
