#include "qrl/logging/detail/LogFileXattrAttributes.h"

#include <sys/xattr.h>

#include <cerrno>

namespace qrl::detail {

bool LogFileXattrAttributes::fallsBack(int error, const std::string& name) {
    return (error == ENOTSUP || error == EOPNOTSUPP) && name.starts_with("user.");
}

int LogFileXattrAttributes::get(const std::string& path, const std::string& name) {
    const int error = systemGet(path, name);
    return fallsBack(error, name) ? sidecar_.get(path, name) : error;
}

int LogFileXattrAttributes::set(const std::string& path, const std::string& name) {
    const int error = systemSet(path, name);
    return fallsBack(error, name) ? sidecar_.set(path, name) : error;
}

int LogFileXattrAttributes::remove(const std::string& path, const std::string& name) {
    const int error = systemRemove(path, name);
    return fallsBack(error, name) ? sidecar_.remove(path, name) : error;
}

void LogFileXattrAttributes::moved(const std::string& from, const std::string& to) { sidecar_.moved(from, to); }

void LogFileXattrAttributes::removed(const std::string& path) { sidecar_.removed(path); }

int LogFileXattrAttributes::systemGet(const std::string& path, const std::string& name) {
    return ::getxattr(path.c_str(), name.c_str(), nullptr, 0) >= 0 ? 0 : errno;
}

int LogFileXattrAttributes::systemSet(const std::string& path, const std::string& name) {
    return ::setxattr(path.c_str(), name.c_str(), "", 0, 0) == 0 ? 0 : errno;
}

int LogFileXattrAttributes::systemRemove(const std::string& path, const std::string& name) {
    return ::removexattr(path.c_str(), name.c_str()) == 0 ? 0 : errno;
}

}  // namespace qrl::detail
