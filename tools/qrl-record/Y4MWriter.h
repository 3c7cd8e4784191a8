// Writes a constant-rate YUV4MPEG2 movie through the atomic file writer: the
// frames go to a temporary file beside the final one, which takes the final
// name only in finish(), so an interrupted or failed recording never leaves
// a partial movie under the final name.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "qrl/foundation/AtomicFile.h"

namespace qrl::record {

class Y4MWriter {
public:
    // Throws std::runtime_error with the path and the system's reason when the
    // temporary file cannot be created.
    Y4MWriter(std::string path, int width, int height, uint64_t rateNumerator, uint64_t rateDenominator);
    // The temporary file is removed unless finish() succeeded.
    Y4MWriter(const Y4MWriter&) = delete;
    Y4MWriter& operator=(const Y4MWriter&) = delete;

    // Appends `planes` (planesSize(width, height) bytes, see Planes.h) as `count`
    // consecutive frames. Throws std::runtime_error on a write error or another size.
    void writeFrame(const std::vector<uint8_t>& planes, uint32_t count);
    // Flushes, syncs and renames into place. Throws std::runtime_error on failure.
    void finish();

    uint64_t framesWritten() const { return frames_; }
    const std::string& temporaryPath() const { return file_.temporaryPath(); }

private:
    void write(const void* bytes, size_t size);

    AtomicFileWriter file_;
    uint64_t frames_ = 0;
    size_t frameBytes_ = 0;
};

}  // namespace qrl::record
