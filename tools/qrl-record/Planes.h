// The geometry of a planar Y'CbCr 4:2:0 frame: Y is width x height, then Cb
// and Cr, each ceil(width/2) x ceil(height/2). On an odd width or height the
// last chroma column or row covers the one pixel column or row that exists.
#pragma once

#include <cstddef>

namespace qrl::record {

constexpr int chromaWidth(int width) { return (width + 1) / 2; }
constexpr int chromaHeight(int height) { return (height + 1) / 2; }

// Bytes of one frame: all three planes.
constexpr size_t planesSize(int width, int height) {
    return static_cast<size_t>(width) * static_cast<size_t>(height) +
           2 * static_cast<size_t>(chromaWidth(width)) * static_cast<size_t>(chromaHeight(height));
}

}  // namespace qrl::record
