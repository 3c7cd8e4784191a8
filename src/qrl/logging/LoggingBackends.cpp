// The logging subsystem's backend lists. Adding a backend: write it in its
// technology's folder, add its entry below (inside `#if QRL_HAVE_<LIB>` when
// its library may be missing at build time), and name the library in
// src/CMakeLists.txt.
#include "qrl/logging/detail/LoggingBackends.h"

#include <optional>
#include <string>

#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/DistributedNotificationCenter.h"
#include "qrl/logging/detail/LogFileSidecarAttributes.h"
#include "qrl/logging/detail/LogFileXattrAttributes.h"
#include "qrl/logging/sim/SimDistributedNotificationCenter.h"
#if QRL_HAVE_SDBUS
#include "qrl/logging/dbus/DBusDistributedNotificationCenter.h"
#endif

namespace qrl::detail {

namespace {

// Cross-process notifications: the session bus; a simulated centre joined to
// nobody when named; this process alone ("local", also named "none") when
// no bus can be reached.
const DistributedCenterEntry kDistributedCenters[] = {
#if QRL_HAVE_SDBUS
    {.name = "dbus",
     .make = [](std::string* whyNot) -> std::shared_ptr<DistributedNotificationCenter> {
         return DBusDistributedNotificationCenter::open(std::nullopt, RunLoop::main(), whyNot);
     }},
#endif
    {.name = "sim",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) -> std::shared_ptr<DistributedNotificationCenter> {
         return SimDistributedNotificationCenter::create(RunLoop::main());
     }},
    {.name = "none",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) { return DistributedNotificationCenter::makeLocal(RunLoop::main()); }},
    {.name = "local",
     .use = BackendUse::LastResort,
     .make = [](std::string*) { return DistributedNotificationCenter::makeLocal(RunLoop::main()); }},
};

// Log-file archive marks: user extended attributes (which keep a mark in a
// hidden folder beside the file on a file system that refuses them); the
// hidden folder alone when named.
const ArchiveMarkEntry kArchiveMarks[] = {
    {.name = "xattr",
     .make = [](std::string*) -> std::shared_ptr<LogFileAttributes> {
         return std::make_shared<LogFileXattrAttributes>();
     }},
    {.name = "sidecar",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) -> std::shared_ptr<LogFileAttributes> {
         return std::make_shared<LogFileSidecarAttributes>();
     }},
};

}  // namespace

std::span<const DistributedCenterEntry> distributedCenterBackends() { return kDistributedCenters; }
std::span<const ArchiveMarkEntry> archiveMarkBackends() { return kArchiveMarks; }

}  // namespace qrl::detail
