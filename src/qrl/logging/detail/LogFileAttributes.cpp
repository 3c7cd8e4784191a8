#include "qrl/logging/detail/LogFileAttributes.h"

#include <mutex>

#include "qrl/logging/detail/LogFileXattrAttributes.h"

namespace qrl::detail {

namespace {

struct Installed {
    std::mutex mutex;
    std::shared_ptr<LogFileAttributes> port = std::make_shared<LogFileXattrAttributes>();
};

Installed& installed() {
    static Installed* const instance = new Installed;  // used by loggers during static destruction
    return *instance;
}

}  // namespace

std::shared_ptr<LogFileAttributes> logFileAttributes() {
    Installed& i = installed();
    std::lock_guard lock(i.mutex);
    return i.port;
}

std::shared_ptr<LogFileAttributes> installLogFileAttributes(std::shared_ptr<LogFileAttributes> port) {
    if (!port) port = std::make_shared<LogFileXattrAttributes>();
    Installed& i = installed();
    std::lock_guard lock(i.mutex);
    std::swap(i.port, port);
    return port;
}

}  // namespace qrl::detail
