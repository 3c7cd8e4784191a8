// Writes a constant-rate YUV4MPEG2 movie. The file is written under a
// temporary name beside the final one and renamed only by finish(), so an
// interrupted or failed recording never leaves a partial movie under the
// final name.
#pragma once

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace qrl::record {

class Y4MWriter {
public:
    // Throws std::runtime_error with the path and the system's reason when the
    // temporary file cannot be created.
    Y4MWriter(std::string path, int width, int height, uint64_t rateNumerator, uint64_t rateDenominator);
    ~Y4MWriter();  // removes the temporary file unless finish() succeeded
    Y4MWriter(const Y4MWriter&) = delete;
    Y4MWriter& operator=(const Y4MWriter&) = delete;

    // Appends `planes` as `count` consecutive frames. Throws std::runtime_error on a write error.
    void writeFrame(const std::vector<uint8_t>& planes, uint32_t count);
    // Flushes, syncs, closes and renames into place. Throws std::runtime_error on failure.
    void finish();

    uint64_t framesWritten() const { return frames_; }
    const std::string& temporaryPath() const { return temporary_; }

private:
    std::string path_;
    std::string temporary_;
    std::FILE* file_ = nullptr;
    uint64_t frames_ = 0;
    size_t frameBytes_ = 0;
};

}  // namespace qrl::record
