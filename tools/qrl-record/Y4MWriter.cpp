#include "Y4MWriter.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <numeric>
#include <stdexcept>

namespace qrl::record {

namespace {
std::runtime_error failure(const std::string& what, const std::string& path) {
    return std::runtime_error(what + " " + path + ": " + std::strerror(errno));
}
}  // namespace

Y4MWriter::Y4MWriter(std::string path, int width, int height, uint64_t num, uint64_t den)
    : path_(std::move(path)), temporary_(path_ + ".partial"),
      frameBytes_(static_cast<size_t>(width) * height + 2 * static_cast<size_t>(width / 2) * (height / 2)) {
    file_ = std::fopen(temporary_.c_str(), "wb");
    if (!file_) throw failure("cannot create", temporary_);
    const uint64_t g = std::gcd(num, den);
    if (g > 1) {
        num /= g;
        den /= g;
    }
    if (std::fprintf(file_, "YUV4MPEG2 W%d H%d F%llu:%llu Ip A1:1 C420jpeg\n", width, height,
                     static_cast<unsigned long long>(num), static_cast<unsigned long long>(den)) < 0)
        throw failure("cannot write", temporary_);
}

Y4MWriter::~Y4MWriter() {
    if (file_) {
        std::fclose(file_);
        ::unlink(temporary_.c_str());
    }
}

void Y4MWriter::writeFrame(const std::vector<uint8_t>& planes, uint32_t count) {
    if (planes.size() != frameBytes_) throw std::runtime_error("frame of the wrong size for " + temporary_);
    for (uint32_t i = 0; i < count; ++i) {
        if (std::fwrite("FRAME\n", 1, 6, file_) != 6 || std::fwrite(planes.data(), 1, planes.size(), file_) != planes.size())
            throw failure("cannot write", temporary_);
        ++frames_;
    }
}

void Y4MWriter::finish() {
    if (!file_) throw std::runtime_error("movie " + path_ + " already finished");
    if (std::fflush(file_) != 0 || ::fsync(fileno(file_)) != 0) throw failure("cannot write", temporary_);
    std::FILE* f = file_;
    file_ = nullptr;
    if (std::fclose(f) != 0) {
        ::unlink(temporary_.c_str());
        throw failure("cannot write", temporary_);
    }
    if (std::rename(temporary_.c_str(), path_.c_str()) != 0) {
        const int saved = errno;
        ::unlink(temporary_.c_str());
        errno = saved;
        throw failure("cannot move the movie into place as", path_);
    }
}

}  // namespace qrl::record
