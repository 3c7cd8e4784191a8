// GLContext: an owned GL rendering context whose GL entry points are reached
// through the context's own function table, never through whatever is
// current on the calling thread; its recursive, thread-owned lock; and the
// per-thread notion of the current context.
//
// Binding. A platform context can be bound ("made current" in EGL's sense)
// on one thread at a time, so a context is bound to the thread that locks
// it, when that thread's lock depth goes from 0 to 1, and released when it
// falls back to 0 (the thread's previous binding, if it still holds another
// context, comes back). gl() binds the context to the calling thread when it
// is not bound there yet, so GL work that runs after an unbalanced unlock
// still has a context; such a binding outside the lock is released by the
// next unlock on that thread, refused or not.
//
// Current context. current() is the context that the calling thread's
// implicit-context calls use (OpenGLGraphics::raiseForGlError, the saved
// context of a context manager). It is a per-thread pointer only: being
// current binds nothing, so a context can be current on one thread and
// locked for GL work on another.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

#include "qrl/video/gl/GLFunctions.h"

namespace qrl {

// An opaque pixel format chosen by GraphicsDevices::choosePixelFormat.
class GLPixelFormat {
public:
    virtual ~GLPixelFormat() = default;
};

// Owned through std::shared_ptr or std::unique_ptr (contexts made by the
// backends). Destroying the object destroys the platform context; it must
// not be locked by, or bound on, another thread at that moment.
class GLContext : public std::enable_shared_from_this<GLContext> {
public:
    virtual ~GLContext();
    GLContext(const GLContext&) = delete;
    GLContext& operator=(const GLContext&) = delete;

    // "sim", "egl".
    virtual std::string_view backendName() const = 0;
    // Contexts that share objects (textures, programs, buffers) answer the
    // same non-null identity.
    virtual const void* shareGroup() const = 0;
    // "<egl GL context 0x...>".
    std::string description() const;

    // --- Lock ---
    // Recursive; blocks while another thread holds it.
    void lock();
    // Answers false, and changes nothing, when the calling thread does not
    // hold the lock (as a POSIX recursive mutex answers an unlock it does not
    // own): the refusal is counted, and written once to the platform log
    // unless it ends a binding made outside the lock by gl().
    bool unlock();
    // The holder's depth; 0 when nobody holds the lock.
    int lockDepth() const;
    bool heldByCallingThread() const;
    uint64_t refusedUnlocks() const;

    // --- GL ---
    // The context's entry points, with the context bound on the calling thread.
    const GLFunctions& gl();
    // The table without binding anything (for presence checks).
    const GLFunctions& functions() const { return functions_; }
    // Whether GL_EXTENSIONS names the extension (read once, under the lock).
    bool hasExtension(std::string_view name);
    // glGetString(name) under the lock; nullopt when GL answers null.
    std::optional<std::string> getString(uint32_t name);
    // glGetError() under the lock.
    uint32_t getError();

    // --- Current context of the calling thread ---
    // Makes this the calling thread's current context; always succeeds.
    bool makeCurrent();
    static GLContext* current();
    static void setCurrent(GLContext* context);
    static void clearCurrent();
    // The context bound on the calling thread; null when none is.
    static GLContext* boundOnCallingThread();

protected:
    GLContext() = default;
    void setFunctions(const GLFunctions& functions) { functions_ = functions; }

    // Backends: bind the platform context on the calling thread; false when
    // the platform refuses (the reason goes to the platform log).
    virtual bool bindToCallingThread() = 0;
    // Backends: the calling thread keeps no context of ours bound any more.
    virtual void releaseFromCallingThread() = 0;
    // Backends: another context was bound on the thread where this one was,
    // which unbinds this one (as binding another EGL context does).
    virtual void bindingReplaced() {}
    // Backends: told of every lock and unlock with the depth after it
    // (refused unlocks with -1). Runs with the lock held or just released.
    virtual void lockEvent(bool locking, int depthAfter) {
        (void)locking;
        (void)depthAfter;
    }
    // Derived destructors call this before they destroy the platform context:
    // forgets the context on the calling thread (binding, current, lock list).
    void detachFromCallingThread();

private:
    void bindHere();
    void unbindHere();

    GLFunctions functions_;
    mutable std::mutex stateMutex_;
    std::condition_variable released_;
    std::thread::id owner_;
    int depth_ = 0;
    uint64_t refused_ = 0;
    std::atomic<bool> reportedRefusal_{false};
    std::once_flag extensionsOnce_;
    std::string extensions_;
};

}  // namespace qrl
