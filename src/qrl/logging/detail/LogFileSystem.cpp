#include "qrl/logging/detail/LogFileSystem.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <cerrno>
#include <cstring>

namespace qrl::detail {

namespace {

Date dateOf(const struct statx_timestamp& t) {
    return Date{static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + static_cast<int64_t>(t.tv_nsec)};
}

Date dateOf(const struct timespec& t) {
    return Date{static_cast<int64_t>(t.tv_sec) * 1'000'000'000 + static_cast<int64_t>(t.tv_nsec)};
}

// Where the kernel has no statx: the same from stat(2), with no birth time.
std::optional<LogFileStatus> statFallback(const std::string& path, int* error) {
    struct stat s {};
    if (::stat(path.c_str(), &s) != 0) {
        if (error) *error = errno;
        return std::nullopt;
    }
    LogFileStatus out;
    out.size = static_cast<uint64_t>(s.st_size);
    out.modificationDate = dateOf(s.st_mtim);
    out.creationDate = out.modificationDate;
    out.mode = s.st_mode;
    out.ownerID = s.st_uid;
    out.groupID = s.st_gid;
    out.linkCount = s.st_nlink;
    out.deviceNumber = s.st_dev;
    out.fileNumber = s.st_ino;
    return out;
}

}  // namespace

Date creationDateFromStatx(const struct statx& status) {
    if ((status.stx_mask & STATX_BTIME) != 0) return dateOf(status.stx_btime);
    return dateOf(status.stx_mtime);
}

std::optional<LogFileStatus> statLogFile(const std::string& path, int* error) {
    struct statx s {};
    if (::statx(AT_FDCWD, path.c_str(), AT_STATX_SYNC_AS_STAT, STATX_BASIC_STATS | STATX_BTIME, &s) != 0) {
        if (errno == ENOSYS) return statFallback(path, error);
        if (error) *error = errno;
        return std::nullopt;
    }
    LogFileStatus out;
    out.size = s.stx_size;
    out.modificationDate = dateOf(s.stx_mtime);
    out.creationDate = creationDateFromStatx(s);
    out.birthTimeKnown = (s.stx_mask & STATX_BTIME) != 0;
    out.mode = s.stx_mode;
    out.ownerID = s.stx_uid;
    out.groupID = s.stx_gid;
    out.linkCount = s.stx_nlink;
    out.deviceNumber = (static_cast<uint64_t>(s.stx_dev_major) << 32) | s.stx_dev_minor;
    out.fileNumber = s.stx_ino;
    return out;
}

int makeDirectories(const std::string& path) {
    if (path.empty()) return ENOENT;
    struct stat s {};
    if (::stat(path.c_str(), &s) == 0) return S_ISDIR(s.st_mode) ? 0 : ENOTDIR;
    // Each prefix ending before a '/', then the whole path.
    for (size_t i = 1; i <= path.size(); ++i) {
        if (i < path.size() && path[i] != '/') continue;
        if (path[i - 1] == '/') continue;  // "//" or a trailing '/'
        const std::string part = path.substr(0, i);
        if (::mkdir(part.c_str(), 0755) == 0) continue;
        const int error = errno;
        if (error != EEXIST) return error;
        if (::stat(part.c_str(), &s) != 0) return errno;
        if (!S_ISDIR(s.st_mode)) return ENOTDIR;
    }
    return 0;
}

int listRegularFiles(const std::string& folder, std::vector<std::string>& names) {
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return errno;
    int error = 0;
    for (;;) {
        errno = 0;
        const dirent* entry = ::readdir(dir);
        if (!entry) {
            error = errno;
            break;
        }
        const char* name = entry->d_name;
        if (std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0) continue;
        bool regular = entry->d_type == DT_REG;
        if (entry->d_type == DT_UNKNOWN || entry->d_type == DT_LNK) {
            // Some file systems do not say; a link counts by what it points to.
            struct stat s {};
            regular = ::fstatat(::dirfd(dir), name, &s, 0) == 0 && S_ISREG(s.st_mode);
        }
        if (regular) names.emplace_back(name);
    }
    ::closedir(dir);
    return error;
}

std::string folderOfPath(std::string_view path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string_view::npos) return ".";
    if (slash == 0) return "/";
    return std::string(path.substr(0, slash));
}

std::string lastPathComponent(std::string_view path) {
    const size_t slash = path.rfind('/');
    return std::string(slash == std::string_view::npos ? path : path.substr(slash + 1));
}

std::string errnoDescription(int error) {
    if (const char* text = ::strerrordesc_np(error)) return text;
    return "Unknown error " + std::to_string(error);
}

std::shared_ptr<Error> posixError(int error, std::string_view path) {
    auto info = std::make_shared<Dictionary>();
    info->set(std::string(kLocalizedDescriptionKey), Value(errnoDescription(error)));
    info->set("NSFilePath", Value(path));
    return std::make_shared<Error>("NSPOSIXErrorDomain", error, std::move(info));
}

}  // namespace qrl::detail
