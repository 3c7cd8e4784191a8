#include "Y4MWriter.h"

#include <cstdio>
#include <numeric>
#include <stdexcept>

#include "Planes.h"

namespace qrl::record {

Y4MWriter::Y4MWriter(std::string path, int width, int height, uint64_t num, uint64_t den)
    : file_(std::move(path)), frameBytes_(planesSize(width, height)) {
    if (!file_.ok()) throw std::runtime_error(file_.error());
    const uint64_t g = std::gcd(num, den);
    if (g > 1) {
        num /= g;
        den /= g;
    }
    char header[128];
    const int n = std::snprintf(header, sizeof header, "YUV4MPEG2 W%d H%d F%llu:%llu Ip A1:1 C420jpeg\n", width, height,
                                static_cast<unsigned long long>(num), static_cast<unsigned long long>(den));
    write(header, static_cast<size_t>(n));
}

void Y4MWriter::write(const void* bytes, size_t size) {
    if (!file_.write(bytes, size)) throw std::runtime_error(file_.error());
}

void Y4MWriter::writeFrame(const std::vector<uint8_t>& planes, uint32_t count) {
    if (planes.size() != frameBytes_) throw std::runtime_error("frame of the wrong size for " + file_.path());
    for (uint32_t i = 0; i < count; ++i) {
        write("FRAME\n", 6);
        write(planes.data(), planes.size());
        ++frames_;
    }
}

void Y4MWriter::finish() {
    if (file_.committed()) throw std::runtime_error("movie " + file_.path() + " already finished");
    if (!file_.commit()) throw std::runtime_error(file_.error());
}

}  // namespace qrl::record
