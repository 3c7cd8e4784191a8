#include "qrl/logging/detail/LogFileAttributes.h"

#include "qrl/foundation/InstalledPort.h"
#include "qrl/logging/detail/LoggingBackends.h"

namespace qrl::detail {

namespace {

InstalledPort<LogFileAttributes>& slot() {
    // Never destroyed: loggers mark files during static destruction.
    static auto* s = new InstalledPort<LogFileAttributes>([] {
        return chooseBackend(kArchiveMarkPort, archiveMarkBackends(), nullptr);
    });
    return *s;
}

}  // namespace

std::shared_ptr<LogFileAttributes> logFileAttributes() { return slot().get(); }

std::shared_ptr<LogFileAttributes> installLogFileAttributes(std::shared_ptr<LogFileAttributes> port) {
    return slot().exchange(std::move(port));
}

}  // namespace qrl::detail
