// The port through which log files are marked: named, empty extended
// attributes, read, set and removed by path, and kept with the file when it
// is moved or deleted.
#pragma once

#include <memory>
#include <string>

namespace qrl::detail {

// Names are full attribute names ("user.qrl.log.archived"). Every call
// answers 0 or an errno: get answers ENODATA for an attribute that is
// absent and ENOENT for a file that is absent; remove answers ENODATA when
// there was nothing to remove. Implementations are thread-safe.
class LogFileAttributes {
public:
    virtual ~LogFileAttributes() = default;

    virtual int get(const std::string& path, const std::string& name) = 0;
    // Sets the attribute with an empty value; setting it again is no error.
    virtual int set(const std::string& path, const std::string& name) = 0;
    virtual int remove(const std::string& path, const std::string& name) = 0;

    // The file at `from` has just been renamed to `to`: marks kept beside
    // the file go with it.
    virtual void moved(const std::string& from, const std::string& to) = 0;
    // The file at `path` has been deleted, or is about to be made afresh:
    // marks kept beside it go too.
    virtual void removed(const std::string& path) = 0;
};

// The port in use: chosen on first use from the logging backend list
// ($QRL_ARCHIVE_MARK_PLATFORM, else $QRL_PLATFORM, may name "xattr" or
// "sidecar"; unnamed, "xattr"), until another is installed.
std::shared_ptr<LogFileAttributes> logFileAttributes();
// Installs `port` (null: the automatic choice on next use) and answers the
// one it replaces.
std::shared_ptr<LogFileAttributes> installLogFileAttributes(std::shared_ptr<LogFileAttributes> port);

}  // namespace qrl::detail
