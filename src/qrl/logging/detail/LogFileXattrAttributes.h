// The real form of log file marks: user extended attributes
// (getxattr/setxattr/removexattr), with the sidecar form standing in on a
// file system that refuses them.
#pragma once

#include <string>

#include "qrl/logging/detail/LogFileAttributes.h"
#include "qrl/logging/detail/LogFileSidecarAttributes.h"

namespace qrl::detail {

// On Linux user attributes live in the "user." namespace. When a call on a
// "user." name fails with ENOTSUP or EOPNOTSUPP (a file system without user
// attributes, such as an older tmpfs), the mark is kept by the sidecar form
// instead, and read back from there in the same way; marks of other
// namespaces never fall back. Marks kept by the sidecar form are moved and
// deleted with their file whatever the file system.
class LogFileXattrAttributes : public LogFileAttributes {
public:
    int get(const std::string& path, const std::string& name) override;
    int set(const std::string& path, const std::string& name) override;
    int remove(const std::string& path, const std::string& name) override;
    void moved(const std::string& from, const std::string& to) override;
    void removed(const std::string& path) override;

protected:
    // The system calls, each answering 0 or an errno; tests replace them to
    // play a file system without user attributes.
    virtual int systemGet(const std::string& path, const std::string& name);
    virtual int systemSet(const std::string& path, const std::string& name);
    virtual int systemRemove(const std::string& path, const std::string& name);

private:
    static bool fallsBack(int error, const std::string& name);

    LogFileSidecarAttributes sidecar_;
};

}  // namespace qrl::detail
