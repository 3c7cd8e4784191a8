// GLContext: an owned GL rendering context whose GL entry points are reached
// through the context itself, never through whatever is current on the
// calling thread; and the per-thread notion of the current context.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace qrl {

// The GL enumerants used through this interface.
inline constexpr uint32_t GL_NO_ERROR = 0;
inline constexpr uint32_t GL_VENDOR = 0x1F00;
inline constexpr uint32_t GL_RENDERER = 0x1F01;
inline constexpr uint32_t GL_VERSION = 0x1F02;
inline constexpr uint32_t GL_UNSIGNED_INT_8_8_8_8 = 0x8035;

// An opaque pixel format chosen by GraphicsDevices::choosePixelFormat.
class GLPixelFormat {
public:
    virtual ~GLPixelFormat() = default;
};

// Destroying the object destroys the context (and clears it from any thread
// where it is current: the owner must not destroy a context that another
// thread is using).
class GLContext {
public:
    virtual ~GLContext();

    // The context's own recursive lock, around every use from more than one thread.
    virtual void lock() = 0;
    virtual void unlock() = 0;

    // glGetString(name) run on this context; nullopt when GL answers null.
    virtual std::optional<std::string> getString(uint32_t name) = 0;
    // glGetError() run on this context.
    virtual uint32_t getError() = 0;

    // Makes this context current on the calling thread; false on failure.
    virtual bool makeCurrent() = 0;

    // The calling thread's current context (set by makeCurrent); null when none.
    static GLContext* current();
    // Leaves the calling thread without a current context.
    static void clearCurrent();

protected:
    // For backends: records the calling thread's current context.
    static void setCurrent(GLContext* context);
    // For backends: hook run by clearCurrent() when this context is current.
    virtual void releaseCurrent() {}
};

}  // namespace qrl
