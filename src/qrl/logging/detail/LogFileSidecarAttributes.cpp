#include "qrl/logging/detail/LogFileSidecarAttributes.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <vector>

#include "qrl/logging/detail/LogFileSystem.h"

namespace qrl::detail {

namespace {

// 0 when the marked file exists, else the errno of stat(2).
int markedFileError(const std::string& path) {
    struct stat s {};
    return ::stat(path.c_str(), &s) == 0 ? 0 : errno;
}

}  // namespace

std::string LogFileSidecarAttributes::markFolder(const std::string& path) {
    const std::string folder = folderOfPath(path);
    return (folder == "/" ? "" : folder) + "/." + lastPathComponent(path) + ".xattr";
}

std::string LogFileSidecarAttributes::markFile(const std::string& path, const std::string& name) {
    std::string mark = name.starts_with("user.") ? name.substr(5) : name;
    if (mark.empty() || mark == "." || mark == ".." || mark.find('/') != std::string::npos) return {};
    return markFolder(path) + "/" + mark;
}

int LogFileSidecarAttributes::get(const std::string& path, const std::string& name) {
    if (const int error = markedFileError(path)) return error;
    const std::string mark = markFile(path, name);
    if (mark.empty()) return EINVAL;
    struct stat s {};
    if (::stat(mark.c_str(), &s) == 0) return 0;
    return errno == ENOENT || errno == ENOTDIR ? ENODATA : errno;
}

int LogFileSidecarAttributes::set(const std::string& path, const std::string& name) {
    if (const int error = markedFileError(path)) return error;
    const std::string mark = markFile(path, name);
    if (mark.empty()) return EINVAL;
    if (::mkdir(markFolder(path).c_str(), 0755) != 0 && errno != EEXIST) return errno;
    const int fd = ::open(mark.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0644);
    if (fd < 0) return errno;
    ::close(fd);
    return 0;
}

int LogFileSidecarAttributes::remove(const std::string& path, const std::string& name) {
    if (const int error = markedFileError(path)) return error;
    const std::string mark = markFile(path, name);
    if (mark.empty()) return EINVAL;
    if (::unlink(mark.c_str()) != 0) return errno == ENOENT || errno == ENOTDIR ? ENODATA : errno;
    ::rmdir(markFolder(path).c_str());  // only when it was the last mark
    return 0;
}

void LogFileSidecarAttributes::moved(const std::string& from, const std::string& to) {
    const std::string folder = markFolder(from);
    if (::rename(folder.c_str(), markFolder(to).c_str()) != 0 && errno != ENOENT) {
        // The target has marks left from an earlier file of that name: they
        // are stale, and this file's marks take their place.
        removed(to);
        ::rename(folder.c_str(), markFolder(to).c_str());
    }
}

void LogFileSidecarAttributes::removed(const std::string& path) {
    const std::string folder = markFolder(path);
    DIR* dir = ::opendir(folder.c_str());
    if (!dir) return;  // no marks: the usual case
    std::vector<std::string> names;
    while (const dirent* entry = ::readdir(dir)) {
        if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0)
            names.emplace_back(entry->d_name);
    }
    for (const std::string& name : names) ::unlinkat(::dirfd(dir), name.c_str(), 0);
    ::closedir(dir);
    ::rmdir(folder.c_str());
}

}  // namespace qrl::detail

