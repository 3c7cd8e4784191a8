// A moving test picture in planar Y'CbCr 4:2:0: colour bars, a box that
// sweeps across with time, and the frame number and capture time burnt in.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace qrl::record {

// BGRA (rows of `stride` bytes) to planar BT.601 studio-range 4:2:0, chroma
// from the mean of each 2x2 block (of the pixels that exist, on the last
// column and row of an odd size): the CPU's version of the GPU path.
void convertBGRAToYCbCr420(const uint8_t* bgra, size_t stride, int width, int height, uint8_t* planes);

class TestPattern {
public:
    TestPattern(int width, int height);

    int width() const { return width_; }
    int height() const { return height_; }
    // Y plane, then Cb, then Cr (see Planes.h for their sizes).
    const std::vector<uint8_t>& planes() const { return planes_; }

    // Redraws the picture for frame `number` captured `seconds` into the recording.
    void render(uint64_t number, double seconds);
    // The current picture as a display would show it: 8-bit BGRA rows of
    // 4 * width bytes (BT.601 studio range to RGB, chroma repeated over its block).
    void toBGRA(std::vector<uint8_t>& out) const;

private:
    void fillRect(int x, int y, int w, int h, uint8_t Y, uint8_t Cb, uint8_t Cr);
    void drawText(int x, int y, int scale, const std::string& text, uint8_t Y);

    int width_;
    int height_;
    std::vector<uint8_t> planes_;
};

}  // namespace qrl::record
