// File-system calls of the rolling file logger: a file's status with its
// birth time, folder creation and listing, and POSIX errors as error objects.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/Error.h"
#include "qrl/foundation/Value.h"

namespace qrl::detail {

// What statx(2) tells of a file.
struct LogFileStatus {
    uint64_t size = 0;
    Date modificationDate;
    // The birth time where the file system keeps one, else the modification time.
    Date creationDate;
    bool birthTimeKnown = false;
    uint32_t mode = 0;  // type and permission bits
    uint32_t ownerID = 0;
    uint32_t groupID = 0;
    uint64_t linkCount = 0;
    uint64_t deviceNumber = 0;
    uint64_t fileNumber = 0;

    bool isRegularFile() const { return S_ISREG(mode); }
    bool isDirectory() const { return S_ISDIR(mode); }
};

// The creation date statx gave: the birth time when its mask has
// STATX_BTIME, else the modification time.
Date creationDateFromStatx(const struct statx& status);
// The status of the file at `path` (symbolic links followed), or nullopt
// with the errno in `*error` (when given). Falls back to stat(2) where the
// kernel has no statx.
std::optional<LogFileStatus> statLogFile(const std::string& path, int* error = nullptr);

// Makes `path` and the folders above it that are missing (mode 0755 less
// the umask). 0, or the errno of the step that failed (ENOTDIR when a part
// of the path is not a folder).
int makeDirectories(const std::string& path);

// Names of the regular files in `folder`, in the folder's order, "." and
// ".." left out. 0, or the errno of opendir/readdir.
int listRegularFiles(const std::string& folder, std::vector<std::string>& names);

// The folder part of `path` ("." when there is none) and the last part.
std::string folderOfPath(std::string_view path);
std::string lastPathComponent(std::string_view path);

// The platform's description of errno `error` ("No such file or directory").
std::string errnoDescription(int error);
// An error of the domain "NSPOSIXErrorDomain" with code `error`, its
// description as the localized description and `path` under "NSFilePath".
std::shared_ptr<Error> posixError(int error, std::string_view path);

}  // namespace qrl::detail
