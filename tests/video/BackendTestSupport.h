// GL_RENDERER read through libEGL loaded on its own, independent of the
// library under test, for the backend tests that check the renderer's name.
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>
#include <dlfcn.h>

#include <cstring>
#include <optional>
#include <string>
#include <vector>

#include "support/PrivateServer.h"

namespace qrl::test {

// GL_RENDERER of a context made with libEGL directly, on the renderer the
// framework must pick: the first hardware device that initialises, else the
// first software one. nullopt (with the reason) when there is none.
inline std::optional<std::string> independentGLRenderer(std::string* why) {
    void* egl = ::dlopen("libEGL.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!egl) {
        *why = "no libEGL.so.1";
        return std::nullopt;
    }
#define QRL_EGL_FUNCTIONS(X)                                                                                  \
    X(eglGetProcAddress) X(eglInitialize) X(eglBindAPI) X(eglChooseConfig) X(eglCreateContext)                  \
    X(eglCreatePbufferSurface) X(eglMakeCurrent) X(eglDestroyContext) X(eglDestroySurface)
#define QRL_EGL(name) auto name = reinterpret_cast<decltype(&::name)>(::dlsym(egl, #name));
    QRL_EGL_FUNCTIONS(QRL_EGL)
#undef QRL_EGL
#undef QRL_EGL_FUNCTIONS
    auto queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
    auto deviceString = reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));
    auto platformDisplay = reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
    auto getString = reinterpret_cast<const unsigned char* (*)(unsigned)>(eglGetProcAddress("glGetString"));
    if (!queryDevices || !deviceString || !platformDisplay || !getString) {
        *why = "libEGL has no device enumeration";
        return std::nullopt;
    }
    EGLDeviceEXT devices[16];
    EGLint count = 0;
    if (!queryDevices(16, devices, &count) || count == 0) {
        *why = "EGL lists no devices";
        return std::nullopt;
    }
    std::vector<EGLDeviceEXT> ordered;  // hardware first
    for (const bool software : {false, true}) {
        for (int i = 0; i < count; ++i) {
            const char* ext = deviceString(devices[i], EGL_EXTENSIONS);
            if ((ext && std::strstr(ext, "EGL_MESA_device_software")) == software) ordered.push_back(devices[i]);
        }
    }
    for (EGLDeviceEXT device : ordered) {
        EGLDisplay display = platformDisplay(EGL_PLATFORM_DEVICE_EXT, device, nullptr);
        EGLint major = 0, minor = 0;
        if (!display || !eglInitialize(display, &major, &minor)) continue;
        eglBindAPI(EGL_OPENGL_API);
        const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
        EGLConfig config = nullptr;
        EGLint n = 0;
        if (!eglChooseConfig(display, wanted, &config, 1, &n) || n < 1) continue;
        const EGLint none[] = {EGL_NONE}, size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
        EGLContext context = eglCreateContext(display, config, EGL_NO_CONTEXT, none);
        EGLSurface surface = eglCreatePbufferSurface(display, config, size);
        if (!context || !surface || !eglMakeCurrent(display, surface, surface, context)) continue;
        const unsigned char* text = getString(0x1F01);  // GL_RENDERER
        std::optional<std::string> out;
        if (text) out = std::string(reinterpret_cast<const char*>(text));
        eglMakeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroySurface(display, surface);
        eglDestroyContext(display, context);
        if (out) return out;
    }
    *why = "no EGL device gave a GL context";
    return std::nullopt;
}

}  // namespace qrl::test
