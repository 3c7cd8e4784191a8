// The logging subsystem's backend lists (LoggingBackends.cpp).
#pragma once

#include <memory>
#include <span>

#include "qrl/foundation/BackendChooser.h"

namespace qrl {
class DistributedNotificationCenter;
}

namespace qrl::detail {

class LogFileAttributes;

using DistributedCenterEntry = BackendEntry<std::shared_ptr<DistributedNotificationCenter>>;
using ArchiveMarkEntry = BackendEntry<std::shared_ptr<LogFileAttributes>>;

inline constexpr BackendPort kNotificationPort{"notifications", "QRL_NOTIFICATION_PLATFORM"};
inline constexpr BackendPort kArchiveMarkPort{"archive mark", "QRL_ARCHIVE_MARK_PLATFORM"};

std::span<const DistributedCenterEntry> distributedCenterBackends();
std::span<const ArchiveMarkEntry> archiveMarkBackends();

}  // namespace qrl::detail
