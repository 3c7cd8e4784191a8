// Helpers of the backend tests: whether a server program may be missing
// (only outside CI), running a command for its output, and a GL_RENDERER read
// through libEGL loaded on its own, independent of the library under test.
#pragma once

#include <dlfcn.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace qrl::test {

inline bool underCI() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

// The full path of a program on $PATH, or empty.
inline std::string findProgram(const std::string& name) {
    const char* path = std::getenv("PATH");
    std::string dirs = path ? path : "/usr/bin:/bin";
    size_t start = 0;
    while (start <= dirs.size()) {
        size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

// Standard output of a shell command; nullopt when it fails.
inline std::optional<std::string> commandOutput(const std::string& command) {
    FILE* p = ::popen(command.c_str(), "r");
    if (!p) return std::nullopt;
    std::string out;
    char buffer[4096];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, p)) > 0) out.append(buffer, n);
    const int status = ::pclose(p);
    if (status != 0) return std::nullopt;
    return out;
}

// GL_RENDERER of a context made with libEGL directly, on the renderer the
// framework must pick: the first hardware device that initialises, else the
// first software one. nullopt (with the reason) when there is none.
inline std::optional<std::string> independentGLRenderer(std::string* why) {
    void* egl = ::dlopen("libEGL.so.1", RTLD_NOW | RTLD_LOCAL);
    if (!egl) {
        *why = "no libEGL.so.1";
        return std::nullopt;
    }
    using Fn = void (*)();
    auto getProc = reinterpret_cast<Fn (*)(const char*)>(::dlsym(egl, "eglGetProcAddress"));
    auto sym = [&](const char* name) { return reinterpret_cast<void*>(getProc(name)); };
    using Query = unsigned (*)(int, void**, int*);
    using QueryString = const char* (*)(void*, int);
    using GetPlatformDisplay = void* (*)(unsigned, void*, const int*);
    using Initialize = unsigned (*)(void*, int*, int*);
    using BindAPI = unsigned (*)(unsigned);
    using ChooseConfig = unsigned (*)(void*, const int*, void**, int, int*);
    using CreateContext = void* (*)(void*, void*, void*, const int*);
    using CreatePbuffer = void* (*)(void*, void*, const int*);
    using MakeCurrent = unsigned (*)(void*, void*, void*, void*);
    using DestroyContext = unsigned (*)(void*, void*);
    using DestroySurface = unsigned (*)(void*, void*);
    using GetString = const unsigned char* (*)(unsigned);
    auto queryDevices = reinterpret_cast<Query>(sym("eglQueryDevicesEXT"));
    auto queryDeviceString = reinterpret_cast<QueryString>(sym("eglQueryDeviceStringEXT"));
    auto platformDisplay = reinterpret_cast<GetPlatformDisplay>(sym("eglGetPlatformDisplayEXT"));
    auto initialize = reinterpret_cast<Initialize>(::dlsym(egl, "eglInitialize"));
    auto bindAPI = reinterpret_cast<BindAPI>(::dlsym(egl, "eglBindAPI"));
    auto chooseConfig = reinterpret_cast<ChooseConfig>(::dlsym(egl, "eglChooseConfig"));
    auto createContext = reinterpret_cast<CreateContext>(::dlsym(egl, "eglCreateContext"));
    auto createPbuffer = reinterpret_cast<CreatePbuffer>(::dlsym(egl, "eglCreatePbufferSurface"));
    auto makeCurrent = reinterpret_cast<MakeCurrent>(::dlsym(egl, "eglMakeCurrent"));
    auto destroyContext = reinterpret_cast<DestroyContext>(::dlsym(egl, "eglDestroyContext"));
    auto destroySurface = reinterpret_cast<DestroySurface>(::dlsym(egl, "eglDestroySurface"));
    auto getString = reinterpret_cast<GetString>(sym("glGetString"));
    if (!queryDevices || !queryDeviceString || !platformDisplay || !getString) {
        *why = "libEGL has no device enumeration";
        return std::nullopt;
    }
    constexpr int kExtensions = 0x3055, kPlatformDevice = 0x313F, kRenderableType = 0x3040, kOpenGLBit = 0x0008,
                  kSurfaceType = 0x3033, kPbufferBit = 0x0001, kNone = 0x3038, kWidth = 0x3057, kHeight = 0x3056;
    constexpr unsigned kOpenGLAPI = 0x30A2, kRendererEnum = 0x1F01;
    void* devices[16];
    int count = 0;
    if (!queryDevices(16, devices, &count) || count == 0) {
        *why = "EGL lists no devices";
        return std::nullopt;
    }
    std::vector<void*> ordered;
    for (int pass = 0; pass < 2; ++pass) {
        for (int i = 0; i < count; ++i) {
            const char* ext = queryDeviceString(devices[i], kExtensions);
            const bool software = ext && std::strstr(ext, "EGL_MESA_device_software");
            if (software == (pass == 1)) ordered.push_back(devices[i]);
        }
    }
    for (void* device : ordered) {
        void* display = platformDisplay(kPlatformDevice, device, nullptr);
        int major = 0, minor = 0;
        if (!display || !initialize(display, &major, &minor)) continue;
        bindAPI(kOpenGLAPI);
        const int wanted[] = {kRenderableType, kOpenGLBit, kSurfaceType, kPbufferBit, kNone};
        void* config = nullptr;
        int n = 0;
        if (!chooseConfig(display, wanted, &config, 1, &n) || n < 1) continue;
        const int noAttributes[] = {kNone};
        void* context = createContext(display, config, nullptr, noAttributes);
        const int size[] = {kWidth, 1, kHeight, 1, kNone};
        void* surface = createPbuffer(display, config, size);
        if (!context || !surface || !makeCurrent(display, surface, surface, context)) continue;
        const unsigned char* text = getString(kRendererEnum);
        std::optional<std::string> out;
        if (text) out = std::string(reinterpret_cast<const char*>(text));
        makeCurrent(display, nullptr, nullptr, nullptr);
        destroySurface(display, surface);
        destroyContext(display, context);
        if (out) return out;
    }
    *why = "no EGL device gave a GL context";
    return std::nullopt;
}

}  // namespace qrl::test
