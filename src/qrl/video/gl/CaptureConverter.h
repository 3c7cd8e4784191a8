// CaptureConverter: the GPU path of a capture. Each BGRA screen image is
// uploaded into a capture texture, drawn through a frame buffer by a
// fragment shader that computes BT.601 studio-range Y'CbCr 4:2:0, and read
// back as three planes (Y, then Cb, then Cr, each chroma plane
// ceil(w/2) x ceil(h/2), chroma sited at the centre of each 2x2 block).
//
// The shader packs four samples into each RGBA texel of its target (Y rows
// first, then the chroma rows with Cb on the left and Cr on the right), so
// the read-back, in the framework's pixel type GL_UNSIGNED_INT_8_8_8_8 with
// GL_BGRA, lays the samples out in memory in plane order.
//
// Transfers: Synchronous uploads through the texture's own pixel buffer
// (TextureWithID::bindTextureOfSize) and reads back at once. PixelBufferRing
// keeps a ring of upload and read-back pixel buffer objects, so that on a
// GPU the copy of one frame overlaps the drawing of the next: convert()
// answers each frame ringSize - 1 calls after it was given.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

class ContextManager;
class FragmentShader;
class FrameBuffer;
class GLContext;
class TextureWithID;

class CaptureConverter {
public:
    enum class Transfer { Synchronous, PixelBufferRing };

    // The shader's source.
    static const char* const kBGRAToYCbCr420ShaderSource;

    // Works on context 0 of `manager`, which it selects; every call must come
    // from one thread at a time. Raises "InvalidSize" for a size outside
    // 2..the manager's maximum texture size, and the GL layer's exceptions.
    CaptureConverter(std::shared_ptr<ContextManager> manager, int width, int height,
                     Transfer transfer = Transfer::Synchronous, int ringSize = 3);
    ~CaptureConverter();
    CaptureConverter(const CaptureConverter&) = delete;
    CaptureConverter& operator=(const CaptureConverter&) = delete;

    int width() const { return width_; }
    int height() const { return height_; }
    Transfer transfer() const { return transfer_; }
    // Bytes of one converted frame: w*h + 2 * ceil(w/2) * ceil(h/2).
    size_t planesSize() const;

    // `bgra`: height rows of `stride` bytes (at least 4 * width). Writes the
    // planes of a frame to `planes` (planesSize() bytes) and answers true;
    // with a ring, the frame is the one given ringSize - 1 calls earlier,
    // and the answer is false while the ring fills.
    bool convert(const uint8_t* bgra, size_t stride, uint8_t* planes);
    // With a ring: the oldest frame still in flight; false when none is.
    bool drain(uint8_t* planes);
    // Releases the GL objects; safe to call twice.
    void cleanUp();

private:
    struct Ring;
    void draw();
    void unpack(const uint8_t* packed, uint8_t* planes) const;
    void uploadRing(GLContext& context, const uint8_t* bgra, size_t stride);
    void readRing(GLContext& context);
    bool collectRing(GLContext& context, uint8_t* planes);

    std::shared_ptr<ContextManager> manager_;
    int width_;
    int height_;
    Transfer transfer_;
    int chromaWidth_;
    int chromaHeight_;
    int chromaQuads_;   // RGBA texels per chroma row of one plane
    int targetWidth_;   // of the shader's target
    int targetHeight_;
    std::shared_ptr<TextureWithID> capture_;
    std::shared_ptr<TextureWithID> target_;
    std::shared_ptr<FrameBuffer> frameBuffer_;
    std::shared_ptr<FragmentShader> shader_;
    std::vector<uint8_t> packed_;
    std::unique_ptr<Ring> ring_;
};

}  // namespace qrl
