// SimGLContext: a context of the simulated renderers with a fake GL behind
// its function table, for tests of the GL logic without a GPU: names,
// bindings, parameters, pixel store, frame-buffer attachments and
// completeness, matrix and attribute stacks, shader compile and link results
// scripted from the source, one sticky error slot with injected errors,
// share groups, lock depth and owner, and a journal of calls for order
// assertions. No pixels are drawn: reads answer zeros.
//
// Scripted shader results: a compile fails when the source holds "#error"
// (the rest of that line is the message) or has unbalanced braces or
// parentheses; a link fails when no attached shader defines "main(". A
// uniform is active when its name appears in the source outside its own
// declaration; an unused one gets location -1, as a driver that optimizes it
// away answers.
#pragma once

#include <atomic>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "qrl/video/GLContext.h"

namespace qrl {

// The extensions the fake answers by default: what Mesa's software renderer
// offers among those the framework looks for.
inline constexpr const char* kSimGLDefaultExtensions =
    "GL_ARB_texture_rectangle GL_EXT_framebuffer_object GL_EXT_framebuffer_blit GL_ARB_shader_objects "
    "GL_ARB_fragment_shader GL_ARB_buffer_storage GL_ARB_pixel_buffer_object GL_ARB_copy_image "
    "GL_MESA_ycbcr_texture";

struct SimRenderer {
    int32_t rendererID = 0;
    uint32_t displayMask = 1;                 // display mask bits this renderer serves
    bool accelerated = true;
    int32_t fullScreen = 1;
    int32_t videoMemory = 256 << 20;
    int32_t textureMemory = 256 << 20;
    std::optional<std::string> cardName = "Simulated Renderer";  // GL_RENDERER; nullopt answers null
    bool contextFails = false;                // createContext answers null
    GLint maxRectangleTextureSize = 8192;     // GL_MAX_RECTANGLE_TEXTURE_SIZE_EXT
    std::string extensions = kSimGLDefaultExtensions;
};

// One texture as the fake holds it.
struct SimTexture {
    GLenum target = 0;  // 0 until first bound
    GLsizei width = 0, height = 0, depth = 0;
    GLint internalFormat = 0;
    GLenum format = 0, type = 0;
    bool storage = false;
    bool fromUnpackBuffer = false;  // last upload came from a pixel unpack buffer
    std::map<GLenum, GLint> parameters;
    int uploads = 0;
};

struct SimGLShareGroup;
struct SimGLState;

// Thread-safe for what the tests read; GL calls run on the thread that has
// the context bound, as with any GL.
class SimGLContext final : public GLContext {
public:
    SimGLContext(SimRenderer renderer, std::shared_ptr<std::atomic<int>> alive,
                 std::shared_ptr<SimGLShareGroup> shareGroup = nullptr);
    ~SimGLContext() override;

    std::string_view backendName() const override { return "sim"; }
    const void* shareGroup() const override;
    // The group to pass to a context that shares with this one.
    std::shared_ptr<SimGLShareGroup> shareGroupHandle() const { return group_; }
    const SimRenderer& renderer() const { return renderer_; }

    // --- Errors ---
    // Queues an error: it fills the sticky slot now when the slot is empty,
    // else when glGetError empties the slot.
    void pushError(uint32_t error);
    // The next call of the named entry point records `error` (as GL records
    // only the first error until it is read).
    void failNextCall(const std::string& function, uint32_t error);
    // Makes glCheckFramebufferStatusEXT answer `status` until cleared (0).
    void forceFramebufferStatus(GLenum status);

    // --- Inspection ---
    // How many times the lock was taken (depth 0 to 1).
    int lockCount() const { return locks_.load(); }
    // Entries such as "glBindTexture(0x84F5, 3)", "lock 1", "unlock 0",
    // "unlock refused", in call order.
    std::vector<std::string> journal() const;
    void clearJournal();
    // Fake GL calls that found no fake context bound on their thread, in the
    // whole process.
    static uint64_t callsWithoutContext();

    GLenum pendingError() const;
    GLuint textureBinding(GLenum target) const;
    std::optional<SimTexture> texture(GLuint name) const;
    size_t textureCount() const;
    bool isEnabled(GLenum cap) const;
    std::vector<GLint> viewport() const;
    GLint pixelStore(GLenum pname) const;
    GLuint drawFramebuffer() const;
    GLuint readFramebuffer() const;
    // The texture attached to a frame buffer's attachment point; 0 when none.
    GLuint framebufferAttachment(GLuint framebuffer, GLenum attachment) const;
    size_t framebufferCount() const;
    GLenum drawBuffer() const;
    // Matrix stack depth (1 at rest) and a description of the top matrix
    // ("identity", "ortho(l, r, b, t, n, f)", "unknown").
    int matrixDepth(GLenum mode) const;
    std::string matrixTop(GLenum mode) const;
    GLenum matrixMode() const;
    int attribDepth() const;
    GLhandleARB programInUse() const;
    size_t objectCount() const;  // shader and program objects alive in the group
    bool objectExists(GLhandleARB object) const;
    // The last value set for a uniform of a program, as text; nullopt when never set.
    std::optional<std::string> uniformValue(GLhandleARB program, const std::string& name) const;
    std::vector<GLfloat> blendAndColour() const;  // src, dst, r, g, b, a

protected:
    bool bindToCallingThread() override;
    void releaseFromCallingThread() override;
    void bindingReplaced() override;
    void lockEvent(bool locking, int depthAfter) override;

private:
    friend struct SimGLAccess;

    SimRenderer renderer_;
    std::shared_ptr<std::atomic<int>> alive_;
    std::shared_ptr<SimGLShareGroup> group_;
    std::unique_ptr<SimGLState> state_;
    std::atomic<int> locks_{0};
};

}  // namespace qrl
