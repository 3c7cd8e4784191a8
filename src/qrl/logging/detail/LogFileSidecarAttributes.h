// The fallback form of log file marks, for file systems that refuse user
// extended attributes: one hidden file per mark in a hidden folder beside
// the marked file.
#pragma once

#include <string>

#include "qrl/logging/detail/LogFileAttributes.h"

namespace qrl::detail {

// The marks of "<folder>/<name>" are files in "<folder>/.<name>.xattr/", one
// per attribute, named after the attribute without its "user." prefix: the
// archive mark of log-3F29AB.txt is ".log-3F29AB.txt.xattr/qrl.log.archived".
// The folder goes when its last mark does. Names that start with "." never
// count as log files, so the marks do not show up in the list of logs.
//
// Answers as extended attributes do: ENOENT when the marked file is absent,
// ENODATA for an absent mark, EINVAL for a name that cannot be a file name
// (empty, or holding a '/').
class LogFileSidecarAttributes : public LogFileAttributes {
public:
    int get(const std::string& path, const std::string& name) override;
    int set(const std::string& path, const std::string& name) override;
    int remove(const std::string& path, const std::string& name) override;
    void moved(const std::string& from, const std::string& to) override;
    void removed(const std::string& path) override;

    // Where the marks of `path` are kept.
    static std::string markFolder(const std::string& path);
    // The file that holds the mark `name` of `path`; empty for a name that
    // cannot be a file name.
    static std::string markFile(const std::string& path, const std::string& name);
};

}  // namespace qrl::detail
