#include "qrl/video/gl/CaptureConverter.h"

#include <algorithm>
#include <cstring>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/video/ContextManager.h"
#include "qrl/video/GLContext.h"
#include "qrl/video/OpenGLGraphics.h"
#include "qrl/video/TextureManager.h"
#include "qrl/video/gl/FragmentShader.h"
#include "qrl/video/gl/FrameBuffer.h"
#include "qrl/video/gl/Texture.h"

namespace qrl {

const char* const CaptureConverter::kBGRAToYCbCr420ShaderSource = R"(#extension GL_ARB_texture_rectangle : enable
uniform sampler2DRect source;
uniform float width;
uniform float height;
uniform float chromaWidth;
uniform float chromaQuads;
float lumaOf(vec3 c) { return (16.0 + 65.481 * c.r + 128.553 * c.g + 24.966 * c.b) / 255.0; }
float cbOf(vec3 c) { return (128.0 - 37.797 * c.r - 74.203 * c.g + 112.0 * c.b) / 255.0; }
float crOf(vec3 c) { return (128.0 + 112.0 * c.r - 93.786 * c.g - 18.214 * c.b) / 255.0; }
float sampleAt(vec2 o, float k) {
    if (o.y < height) {
        float x = min(4.0 * o.x + k, width - 1.0);
        return lumaOf(texture2DRect(source, vec2(x + 0.5, o.y + 0.5)).rgb);
    }
    float row = o.y - height;
    bool red = o.x >= chromaQuads;
    float cx = min(4.0 * (red ? o.x - chromaQuads : o.x) + k, chromaWidth - 1.0);
    // The corner shared by the block's four pixels: linear filtering averages them.
    vec3 c = texture2DRect(source, vec2(2.0 * cx + 1.0, 2.0 * row + 1.0)).rgb;
    return red ? crOf(c) : cbOf(c);
}
void main() {
    vec2 o = floor(gl_FragCoord.xy);
    gl_FragColor = vec4(sampleAt(o, 1.0), sampleAt(o, 2.0), sampleAt(o, 3.0), sampleAt(o, 0.0));
}
)";

struct CaptureConverter::Ring {
    struct Slot {
        GLuint upload = 0;
        void* uploadMap = nullptr;
        GLsync uploadFence = nullptr;
        GLuint readback = 0;
        void* readbackMap = nullptr;
        GLsync readbackFence = nullptr;
    };
    std::vector<Slot> slots;
    uint64_t submitted = 0;
    uint64_t collected = 0;
};

namespace {

constexpr GLuint64 kFenceTimeout = 5'000'000'000ULL;  // 5 s

template <class F>
void underLock(ContextManager& manager, F&& work) {
    GLContext* context = manager.lockCurrentContext();
    if (!context) Exception::raise("InvalidContext", "The capture converter has no selected context");
    try {
        work(*context);
    } catch (...) {
        manager.unlockCGLContext(context);
        throw;
    }
    manager.unlockCGLContext(context);
}

void waitAndDelete(GLContext& c, GLsync& fence) {
    if (!fence) return;
    c.gl().glClientWaitSync(fence, GL_SYNC_FLUSH_COMMANDS_BIT, kFenceTimeout);
    c.gl().glDeleteSync(fence);
    fence = nullptr;
}

}  // namespace

CaptureConverter::CaptureConverter(std::shared_ptr<ContextManager> manager, int width, int height, Transfer transfer,
                                   int ringSize)
    : manager_(std::move(manager)), width_(width), height_(height), transfer_(transfer) {
    if (!manager_) Exception::raise("InvalidContext", "A capture converter needs a context manager");
    chromaWidth_ = (width + 1) / 2;
    chromaHeight_ = (height + 1) / 2;
    chromaQuads_ = (chromaWidth_ + 3) / 4;
    targetWidth_ = std::max((width + 3) / 4, 2 * chromaQuads_);
    targetHeight_ = height + chromaHeight_;
    const CGSize max = manager_->maximumTextureSize();
    if (width < 2 || height < 2 || width > max.width || targetHeight_ > max.height) {
        Exception::raise("InvalidSize", qrl::format("Cannot convert frames of %d x %d: the largest is %d x %d", width,
                                                    height, static_cast<int>(max.width),
                                                    static_cast<int>(max.height * 2 / 3)));
    }
    if (manager_->setCurrentContext(0) != kCGLNoError) {
        Exception::raise("InvalidContext", "The capture converter's context manager is not valid");
    }
    try {
        const auto textures = manager_->textureManager();
        capture_ = textures->allocateNewVRAMTexture(NSMakeSize(width, height), false);
        target_ = textures->allocateNewVRAMTexture(NSMakeSize(targetWidth_, targetHeight_), false);
        frameBuffer_ = manager_->allocateFrameBuffer();
        shader_ = manager_->createNewFragmentShaderFromSource(kBGRAToYCbCr420ShaderSource);
        underLock(*manager_, [&](GLContext&) {
            shader_->use();
            shader_->setUniform("source", int32_t{0});
            shader_->setUniform("width", static_cast<double>(width_));
            shader_->setUniform("height", static_cast<double>(height_));
            shader_->setUniform("chromaWidth", static_cast<double>(chromaWidth_));
            shader_->setUniform("chromaQuads", static_cast<double>(chromaQuads_));
            shader_->finish();
        });
        packed_.resize(static_cast<size_t>(targetWidth_) * static_cast<size_t>(targetHeight_) * 4);
        if (transfer_ == Transfer::PixelBufferRing) {
            ring_ = std::make_unique<Ring>();
            ring_->slots.resize(static_cast<size_t>(std::max(2, ringSize)));
            const auto uploadBytes = static_cast<GLsizeiptr>(static_cast<size_t>(width_) * height_ * 4);
            const auto readBytes = static_cast<GLsizeiptr>(packed_.size());
            underLock(*manager_, [&](GLContext& c) {
                if (!c.hasExtension("GL_ARB_buffer_storage")) {
                    Exception::raise("Unsupported", "A ring of pixel buffers needs ARB_buffer_storage");
                }
                const GLFunctions& gl = c.gl();
                constexpr GLbitfield kWrite = GL_MAP_WRITE_BIT | GL_MAP_PERSISTENT_BIT | GL_MAP_COHERENT_BIT;
                constexpr GLbitfield kRead = GL_MAP_READ_BIT | GL_MAP_PERSISTENT_BIT | GL_MAP_COHERENT_BIT;
                for (Ring::Slot& s : ring_->slots) {
                    gl.glGenBuffers(1, &s.upload);
                    gl.glBindBuffer(GL_PIXEL_UNPACK_BUFFER, s.upload);
                    gl.glBufferStorage(GL_PIXEL_UNPACK_BUFFER, uploadBytes, nullptr, kWrite);
                    s.uploadMap = gl.glMapBufferRange(GL_PIXEL_UNPACK_BUFFER, 0, uploadBytes, kWrite);
                    gl.glGenBuffers(1, &s.readback);
                    gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, s.readback);
                    gl.glBufferStorage(GL_PIXEL_PACK_BUFFER, readBytes, nullptr, kRead);
                    s.readbackMap = gl.glMapBufferRange(GL_PIXEL_PACK_BUFFER, 0, readBytes, kRead);
                }
                gl.glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
                gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
                manager_->checkOpenGLError("Unable to make the pixel buffer ring, %ld", &c);
                for (const Ring::Slot& s : ring_->slots) {
                    if (!s.uploadMap || !s.readbackMap) Exception::raise("Unsupported", "A pixel buffer could not be mapped");
                }
            });
        }
    } catch (...) {
        cleanUp();
        throw;
    }
}

CaptureConverter::~CaptureConverter() { cleanUp(); }

size_t CaptureConverter::planesSize() const {
    return static_cast<size_t>(width_) * height_ + 2 * static_cast<size_t>(chromaWidth_) * chromaHeight_;
}

void CaptureConverter::cleanUp() {
    if (!manager_) return;
    if (manager_->valid()) manager_->makeContextCurrent(0);
    if (ring_ && manager_->valid()) {
        underLock(*manager_, [&](GLContext& c) {
            for (Ring::Slot& s : ring_->slots) {
                if (s.uploadFence) c.gl().glDeleteSync(s.uploadFence);
                if (s.readbackFence) c.gl().glDeleteSync(s.readbackFence);
                if (s.upload) c.gl().glDeleteBuffers(1, &s.upload);
                if (s.readback) c.gl().glDeleteBuffers(1, &s.readback);
            }
        });
    }
    ring_.reset();
    if (shader_) manager_->releaseFragmentShader(shader_.get());
    if (frameBuffer_) manager_->releaseFrameBuffer(frameBuffer_.get());
    if (capture_) capture_->deleteTexture();
    if (target_) target_->deleteTexture();
    shader_.reset();
    frameBuffer_.reset();
    capture_.reset();
    target_.reset();
    manager_.reset();
}

void CaptureConverter::unpack(const uint8_t* packed, uint8_t* planes) const {
    const size_t row = static_cast<size_t>(targetWidth_) * 4;
    const auto w = static_cast<size_t>(width_);
    const auto cw = static_cast<size_t>(chromaWidth_);
    uint8_t* cb = planes + w * static_cast<size_t>(height_);
    uint8_t* cr = cb + cw * static_cast<size_t>(chromaHeight_);
    for (int y = 0; y < height_; ++y) std::memcpy(planes + static_cast<size_t>(y) * w, packed + static_cast<size_t>(y) * row, w);
    for (int r = 0; r < chromaHeight_; ++r) {
        const uint8_t* line = packed + static_cast<size_t>(height_ + r) * row;
        std::memcpy(cb + static_cast<size_t>(r) * cw, line, cw);
        std::memcpy(cr + static_cast<size_t>(r) * cw, line + static_cast<size_t>(chromaQuads_) * 4, cw);
    }
}

// Opens the frame buffer bracket on the target, runs the shader over it,
// reads back (synchronously or into the ring), and closes the bracket.
void CaptureConverter::draw() {
    capture_->bindToTextureRectangleExt();
    capture_->linearAndClampToEdge();
    capture_->saveCurrentTextureParameters();
    // The bracket leaves the lock as it found it less one level (see
    // OpenGLFrameBuffer), so no lock is held across it.
    frameBuffer_->useAndSet2dDrawingSizeTo(NSMakeSize(targetWidth_, targetHeight_), target_);
    underLock(*manager_, [&](GLContext& c) {
        c.gl().glDisable(GL_BLEND);  // the samples are data, not colours to blend
        capture_->bindToTextureRectangleExt();
        shader_->use();
        frameBuffer_->drawTextureCoordsToOriginOfFBO(NSMakeRect(0, 0, targetWidth_, targetHeight_));
        shader_->finish();
        c.gl().glPixelStorei(GL_PACK_ROW_LENGTH, 0);
        c.gl().glPixelStorei(GL_PACK_ALIGNMENT, 4);
        if (transfer_ == Transfer::Synchronous) {
            c.gl().glReadPixels(0, 0, targetWidth_, targetHeight_, GL_BGRA,
                                static_cast<GLenum>(OpenGLGraphics::pixelFormatType()), packed_.data());
        } else {
            readRing(c);
        }
        manager_->checkOpenGLError("Unable to convert a captured frame, %ld", &c);
    });
    frameBuffer_->finish2dDrawingTo(capture_);
}

void CaptureConverter::uploadRing(GLContext& c, const uint8_t* bgra, size_t stride) {
    Ring::Slot& s = ring_->slots[ring_->submitted % ring_->slots.size()];
    waitAndDelete(c, s.uploadFence);
    const size_t row = static_cast<size_t>(width_) * 4;
    auto* out = static_cast<uint8_t*>(s.uploadMap);
    if (stride == row) {
        std::memcpy(out, bgra, row * static_cast<size_t>(height_));
    } else {
        for (int y = 0; y < height_; ++y) std::memcpy(out + y * row, bgra + y * stride, row);
    }
    const GLFunctions& gl = c.gl();
    gl.glBindBuffer(GL_PIXEL_UNPACK_BUFFER, s.upload);
    gl.glPixelStorei(GL_UNPACK_ROW_LENGTH, 0);
    gl.glBindTexture(GL_TEXTURE_RECTANGLE_EXT, capture_->textureID());
    gl.glTexSubImage2D(GL_TEXTURE_RECTANGLE_EXT, 0, 0, 0, width_, height_, GL_BGRA, GL_UNSIGNED_INT_8_8_8_8_REV, nullptr);
    gl.glBindBuffer(GL_PIXEL_UNPACK_BUFFER, 0);
    s.uploadFence = gl.glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    manager_->checkOpenGLError("Unable to upload a captured frame, %ld", &c);
}

void CaptureConverter::readRing(GLContext& c) {
    Ring::Slot& s = ring_->slots[ring_->submitted % ring_->slots.size()];
    const GLFunctions& gl = c.gl();
    gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, s.readback);
    gl.glReadPixels(0, 0, targetWidth_, targetHeight_, GL_BGRA, static_cast<GLenum>(OpenGLGraphics::pixelFormatType()),
                    nullptr);
    gl.glBindBuffer(GL_PIXEL_PACK_BUFFER, 0);
    s.readbackFence = gl.glFenceSync(GL_SYNC_GPU_COMMANDS_COMPLETE, 0);
    gl.glFlush();
    ++ring_->submitted;
}

bool CaptureConverter::collectRing(GLContext& c, uint8_t* planes) {
    if (ring_->collected == ring_->submitted) return false;
    Ring::Slot& s = ring_->slots[ring_->collected % ring_->slots.size()];
    waitAndDelete(c, s.readbackFence);
    unpack(static_cast<const uint8_t*>(s.readbackMap), planes);
    ++ring_->collected;
    return true;
}

bool CaptureConverter::convert(const uint8_t* bgra, size_t stride, uint8_t* planes) {
    if (!manager_) Exception::raise("InvalidContext", "The capture converter was cleaned up");
    if (!bgra || !planes || stride < static_cast<size_t>(width_) * 4) {
        Exception::raise("InvalidArgument", qrl::format("A frame of %d x %d needs pixels, planes and a stride of at "
                                                        "least %d bytes",
                                                        width_, height_, width_ * 4));
    }
    if (transfer_ == Transfer::Synchronous) {
        if (stride % 4 != 0) {
            // Row lengths are counted in pixels: copy odd strides to a tight image.
            std::vector<uint8_t> tight(static_cast<size_t>(width_) * height_ * 4);
            for (int y = 0; y < height_; ++y)
                std::memcpy(tight.data() + static_cast<size_t>(y) * width_ * 4, bgra + y * stride,
                            static_cast<size_t>(width_) * 4);
            return convert(tight.data(), static_cast<size_t>(width_) * 4, planes);
        }
        const auto rowPixels = static_cast<GLint>(stride / 4);
        if (rowPixels != width_) capture_->setUnpackRowLength(rowPixels);
        capture_->bindTextureOfSize(NSMakeSize(width_, height_), bgra);
        if (rowPixels != width_) capture_->setUnpackRowLength(0);
        draw();
        unpack(packed_.data(), planes);
        return true;
    }
    underLock(*manager_, [&](GLContext& c) { uploadRing(c, bgra, stride); });
    draw();
    bool ready = false;
    if (ring_->submitted - ring_->collected >= ring_->slots.size()) {
        underLock(*manager_, [&](GLContext& c) { ready = collectRing(c, planes); });
    }
    return ready;
}

bool CaptureConverter::drain(uint8_t* planes) {
    if (!ring_ || !manager_) return false;
    bool got = false;
    underLock(*manager_, [&](GLContext& c) { got = collectRing(c, planes); });
    return got;
}

}  // namespace qrl
