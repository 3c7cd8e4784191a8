// GLContextEGL: a desktop GL context on an EGL display (a device or the
// surfaceless platform), with its own function table loaded through
// eglGetProcAddress. It is made current (eglMakeCurrent, no surface where
// the display is surfaceless, else a 1x1 pbuffer) on the thread that locks
// it and released when that thread lets go (see GLContext); a foreign EGL
// binding that the thread had before it locked one of ours is put back then.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <atomic>
#include <memory>

#include "qrl/video/GLContext.h"

namespace qrl {

class GLContextEGL final : public GLContext {
public:
    // Takes ownership of `context` and `pbuffer` (EGL_NO_SURFACE when
    // surfaceless) when `owned`. `shareGroup` is the token shared by every
    // context of one share group (null: a group of its own).
    GLContextEGL(EGLDisplay display, EGLContext context, EGLSurface pbuffer, bool owned,
                 std::shared_ptr<const int> shareGroup = nullptr);
    ~GLContextEGL() override;

    std::string_view backendName() const override { return "egl"; }
    const void* shareGroup() const override { return group_.get(); }
    std::shared_ptr<const int> shareGroupToken() const { return group_; }
    EGLDisplay display() const { return display_; }
    EGLContext handle() const { return context_; }
    // Failed eglMakeCurrent calls (EGL_BAD_ACCESS when another thread holds
    // the context bound).
    uint64_t bindFailures() const { return bindFailures_.load(); }
    // The EGL error of the last failed bind; EGL_SUCCESS when none failed.
    EGLint lastBindError() const { return lastBindError_.load(); }

protected:
    bool bindToCallingThread() override;
    void releaseFromCallingThread() override;

private:
    EGLDisplay display_;
    EGLContext context_;
    EGLSurface pbuffer_;
    bool owned_;
    std::shared_ptr<const int> group_;
    std::atomic<uint64_t> bindFailures_{0};
    std::atomic<EGLint> lastBindError_{EGL_SUCCESS};
};

}  // namespace qrl
