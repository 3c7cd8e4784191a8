// The system subsystem's backend lists (SystemBackends.cpp).
#pragma once

#include <memory>
#include <span>

#include "qrl/foundation/BackendChooser.h"

namespace qrl {
class SystemFacts;
}

namespace qrl::detail {

using SystemFactsEntry = BackendEntry<std::shared_ptr<SystemFacts>>;
inline constexpr BackendPort kSystemFactsPort{"system", "QRL_SYSTEM_PLATFORM"};
std::span<const SystemFactsEntry> systemFactsBackends();

}  // namespace qrl::detail
