#include "qrl/foundation/AtomicFile.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>

#include "qrl/foundation/detail/UniqueFd.h"

namespace qrl {

namespace {

// The folder that holds `path` ("." for a bare name).
std::string folderOf(const std::string& path) {
    const std::filesystem::path parent = std::filesystem::path(path).parent_path();
    return parent.empty() ? std::string(".") : parent.string();
}

std::string reason(const std::string& what, int error) { return "cannot " + what + ": " + std::strerror(error); }

// A folder that cannot be flushed (some file systems refuse) loses nothing
// that the rename has not already made visible.
bool flushFolder(int fd) { return ::fsync(fd) == 0 || errno == EINVAL || errno == EROFS; }

}  // namespace

AtomicFileWriter::AtomicFileWriter(std::string path, AtomicFileOptions options)
    : path_(std::move(path)), options_(options) {
    std::string temporary =
        folderOf(path_) + "/." + std::filesystem::path(path_).filename().string() + ".XXXXXX";
    fd_ = ::mkostemp(temporary.data(), O_CLOEXEC);
    if (fd_ < 0) {
        error_ = reason("create a temporary file beside " + path_, errno);
        return;
    }
    temporary_ = std::move(temporary);
}

AtomicFileWriter::~AtomicFileWriter() { abort(); }

bool AtomicFileWriter::fail(const char* what, const std::string& subject, int error) {
    error_ = reason(std::string(what) + " " + subject, error);
    abort();
    return false;
}

bool AtomicFileWriter::write(const void* bytes, size_t size) {
    if (fd_ < 0) return false;
    const char* at = static_cast<const char*>(bytes);
    while (size > 0) {
        const ssize_t n = ::write(fd_, at, size);
        if (n < 0 && errno == EINTR) continue;
        if (n <= 0) return fail("write", temporary_, n < 0 ? errno : ENOSPC);
        at += n;
        size -= static_cast<size_t>(n);
    }
    return true;
}

bool AtomicFileWriter::commit() {
    if (fd_ < 0) {
        if (error_.empty()) error_ = "cannot commit " + path_ + ": the file is no longer open";
        return false;
    }
    struct stat old {};
    const mode_t mode = ::stat(path_.c_str(), &old) == 0 ? (old.st_mode & 07777) : options_.newFileMode;
    if (::fchmod(fd_, mode) != 0 || ::fsync(fd_) != 0) return fail("flush", temporary_, errno);
    const int fd = fd_;
    fd_ = -1;
    if (::close(fd) != 0) return fail("close", temporary_, errno);
    if (::rename(temporary_.c_str(), path_.c_str()) != 0) return fail("rename", temporary_ + " to " + path_, errno);
    temporary_.clear();
    committed_ = true;

    detail::UniqueFd opened;
    int folder = options_.folderFd;
    if (folder < 0) {
        opened.reset(::open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
        folder = opened.get();
    }
    if (folder < 0 || !flushFolder(folder)) {
        error_ = reason("flush the folder of " + path_, errno);
        return false;
    }
    return true;
}

void AtomicFileWriter::abort() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
    if (!temporary_.empty()) ::unlink(temporary_.c_str());
    temporary_.clear();
}

bool writeFileAtomically(const std::string& path, std::string_view bytes, std::string* problem,
                         AtomicFileOptions options) {
    AtomicFileWriter writer(path, options);
    if (writer.write(bytes) && writer.commit()) return true;
    if (problem) *problem = writer.error();
    return false;
}

}  // namespace qrl
