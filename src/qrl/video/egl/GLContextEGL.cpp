#include "qrl/video/egl/GLContextEGL.h"

#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {

// The EGL binding a thread had, made by someone else, before it bound one of
// our contexts; put back when it lets go of ours.
struct ForeignBinding {
    bool saved = false;
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLSurface draw = EGL_NO_SURFACE;
    EGLSurface read = EGL_NO_SURFACE;
    EGLContext context = EGL_NO_CONTEXT;
};
thread_local ForeignBinding tForeign;

void* resolve(const char* name, void*) { return reinterpret_cast<void*>(eglGetProcAddress(name)); }

}  // namespace

GLContextEGL::GLContextEGL(EGLDisplay display, EGLContext context, EGLSurface pbuffer, bool owned,
                           std::shared_ptr<const int> shareGroup)
    : display_(display),
      context_(context),
      pbuffer_(pbuffer),
      owned_(owned),
      group_(shareGroup ? std::move(shareGroup) : std::make_shared<const int>(0)) {
    GLFunctions f;
    // Every entry point resolves (EGL_KHR_client_get_all_proc_addresses);
    // whether the driver implements one is told by its extension string.
    (void)f.load(&resolve, nullptr);
    setFunctions(f);
}

GLContextEGL::~GLContextEGL() {
    detachFromCallingThread();
    if (!owned_) return;
    eglDestroyContext(display_, context_);
    if (pbuffer_ != EGL_NO_SURFACE) eglDestroySurface(display_, pbuffer_);
}

bool GLContextEGL::bindToCallingThread() {
    eglBindAPI(EGL_OPENGL_API);
    if (GLContext::boundOnCallingThread() == nullptr && !tForeign.saved) {
        const EGLContext foreign = eglGetCurrentContext();
        if (foreign != EGL_NO_CONTEXT && foreign != context_) {
            tForeign = {true, eglGetCurrentDisplay(), eglGetCurrentSurface(EGL_DRAW), eglGetCurrentSurface(EGL_READ),
                        foreign};
        }
    }
    if (eglMakeCurrent(display_, pbuffer_, pbuffer_, context_)) return true;
    const EGLint error = eglGetError();
    lastBindError_.store(error);
    if (bindFailures_.fetch_add(1) == 0) {
        platformLogFormat("GL context %p could not be made current on this thread (EGL error 0x%x)", this,
                          static_cast<unsigned>(error));
    }
    return false;
}

void GLContextEGL::releaseFromCallingThread() {
    eglBindAPI(EGL_OPENGL_API);
    if (tForeign.saved) {
        const ForeignBinding f = tForeign;
        tForeign = ForeignBinding{};
        if (eglMakeCurrent(f.display, f.draw, f.read, f.context)) return;
    }
    eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
}

}  // namespace qrl
