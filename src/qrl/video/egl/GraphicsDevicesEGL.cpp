#include "qrl/video/egl/GraphicsDevicesEGL.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {

struct EGLEntryPoints {
    PFNEGLQUERYDEVICESEXTPROC queryDevices = nullptr;
    PFNEGLQUERYDEVICESTRINGEXTPROC queryDeviceString = nullptr;
    PFNEGLGETPLATFORMDISPLAYEXTPROC getPlatformDisplay = nullptr;
    using GetString = const unsigned char* (*)(unsigned int);
    using GetError = unsigned int (*)();
    GetString glGetString = nullptr;
    GetError glGetError = nullptr;
};

const EGLEntryPoints& entryPoints() {
    static const EGLEntryPoints e = [] {
        EGLEntryPoints p;
        p.queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
        p.queryDeviceString =
            reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));
        p.getPlatformDisplay =
            reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
        p.glGetString = reinterpret_cast<EGLEntryPoints::GetString>(eglGetProcAddress("glGetString"));
        p.glGetError = reinterpret_cast<EGLEntryPoints::GetError>(eglGetProcAddress("glGetError"));
        return p;
    }();
    return e;
}

bool hasExtension(const char* list, const char* name) {
    if (!list) return false;
    const size_t n = std::strlen(name);
    for (const char* p = list; (p = std::strstr(p, name)) != nullptr; p += n) {
        if ((p == list || p[-1] == ' ') && (p[n] == ' ' || p[n] == '\0')) return true;
    }
    return false;
}

// The sysfs folder of the device behind a DRM node.
std::string sysfsDeviceFolder(const std::string& node) {
    struct stat st {};
    if (node.empty() || ::stat(node.c_str(), &st) != 0 || !S_ISCHR(st.st_mode)) return {};
    return qrl::format("/sys/dev/char/%u:%u/device", major(st.st_rdev), minor(st.st_rdev));
}

std::string kernelDriver(const std::string& folder) {
    if (folder.empty()) return "drm";
    std::error_code ec;
    const auto target = std::filesystem::read_symlink(folder + "/driver", ec);
    return ec ? std::string("drm") : target.filename().string();
}

int32_t vramBytes(const std::string& folder) {
    if (folder.empty()) return 0;
    std::ifstream in(folder + "/mem_info_vram_total");  // reported by amdgpu
    unsigned long long bytes = 0;
    if (!(in >> bytes)) return 0;
    return bytes > static_cast<unsigned long long>(INT32_MAX) ? INT32_MAX : static_cast<int32_t>(bytes);
}

struct PixelFormatEGL final : GLPixelFormat {
    EGLDisplay display = EGL_NO_DISPLAY;
    EGLConfig config = nullptr;
    bool surfaceless = false;
};

// A context of one device's display; made current around each GL call,
// with the thread's previous binding put back afterwards.
class GLContextEGL final : public GLContext {
public:
    GLContextEGL(EGLDisplay display, EGLContext context, EGLSurface pbuffer)
        : display_(display), context_(context), pbuffer_(pbuffer) {}
    ~GLContextEGL() override {
        if (eglGetCurrentContext() == context_) eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
        eglDestroyContext(display_, context_);
        if (pbuffer_ != EGL_NO_SURFACE) eglDestroySurface(display_, pbuffer_);
    }
    GLContextEGL(const GLContextEGL&) = delete;
    GLContextEGL& operator=(const GLContextEGL&) = delete;

    EGLContext handle() const { return context_; }

    void lock() override { mutex_.lock(); }
    void unlock() override { mutex_.unlock(); }

    std::optional<std::string> getString(uint32_t name) override {
        std::optional<std::string> out;
        withCurrent([&] {
            if (!entryPoints().glGetString) return;
            const unsigned char* s = entryPoints().glGetString(name);
            if (s) out = std::string(reinterpret_cast<const char*>(s));
        });
        return out;
    }

    uint32_t getError() override {
        uint32_t e = GL_NO_ERROR;
        withCurrent([&] {
            if (entryPoints().glGetError) e = entryPoints().glGetError();
        });
        return e;
    }

    bool makeCurrent() override {
        if (!eglMakeCurrent(display_, pbuffer_, pbuffer_, context_)) return false;
        setCurrent(this);
        return true;
    }

protected:
    void releaseCurrent() override { eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT); }

private:
    template <class F>
    void withCurrent(F&& f) {
        std::lock_guard lock(mutex_);
        if (eglGetCurrentContext() == context_) {
            f();
            return;
        }
        const EGLDisplay oldDisplay = eglGetCurrentDisplay();
        const EGLContext oldContext = eglGetCurrentContext();
        const EGLSurface oldDraw = eglGetCurrentSurface(EGL_DRAW);
        const EGLSurface oldRead = eglGetCurrentSurface(EGL_READ);
        if (!eglMakeCurrent(display_, pbuffer_, pbuffer_, context_)) return;
        f();
        if (oldContext != EGL_NO_CONTEXT) eglMakeCurrent(oldDisplay, oldDraw, oldRead, oldContext);
        else eglMakeCurrent(display_, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
    }

    EGLDisplay display_;
    EGLContext context_;
    EGLSurface pbuffer_;
    std::recursive_mutex mutex_;
};

}  // namespace

int32_t GraphicsDevicesEGL::rendererIDFor(const std::string& driver, const std::string& node) {
    uint32_t h = 2166136261u;
    auto mix = [&](unsigned char c) {
        h ^= c;
        h *= 16777619u;
    };
    for (const char c : driver) mix(static_cast<unsigned char>(c));
    mix(0);
    for (const char c : node) mix(static_cast<unsigned char>(c));
    if (h == 0) h = 1;
    return static_cast<int32_t>(h);
}

std::shared_ptr<GraphicsDevicesEGL> GraphicsDevicesEGL::open(std::string* whyNot) {
    auto fail = [&](std::string why) {
        if (whyNot) *whyNot = std::move(why);
        return nullptr;
    };
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (!hasExtension(clientExtensions, "EGL_EXT_device_enumeration") ||
        !hasExtension(clientExtensions, "EGL_EXT_platform_device")) {
        return fail("EGL has no device enumeration (EGL_EXT_device_enumeration, EGL_EXT_platform_device)");
    }
    const EGLEntryPoints& egl = entryPoints();
    if (!egl.queryDevices || !egl.queryDeviceString || !egl.getPlatformDisplay) {
        return fail("EGL lacks the device entry points");
    }
    EGLint count = 0;
    if (!egl.queryDevices(0, nullptr, &count) || count <= 0) return fail("EGL lists no devices");
    std::vector<EGLDeviceEXT> handles(static_cast<size_t>(count));
    if (!egl.queryDevices(count, handles.data(), &count)) return fail("EGL device enumeration failed");
    handles.resize(static_cast<size_t>(count));

    std::shared_ptr<GraphicsDevicesEGL> devices(new GraphicsDevicesEGL());
    std::string skipped;
    for (EGLDeviceEXT handle : handles) {
        Device d;
        d.handle = handle;
        const char* extensions = egl.queryDeviceString(handle, EGL_EXTENSIONS);
        d.software = hasExtension(extensions, "EGL_MESA_device_software");
        if (!d.software) {
            const char* node = hasExtension(extensions, "EGL_EXT_device_drm")
                                   ? egl.queryDeviceString(handle, EGL_DRM_DEVICE_FILE_EXT)
                                   : nullptr;
            d.primaryNode = node != nullptr;
#ifdef EGL_DRM_RENDER_NODE_FILE_EXT
            if (!node && hasExtension(extensions, "EGL_EXT_device_drm_render_node")) {
                node = egl.queryDeviceString(handle, EGL_DRM_RENDER_NODE_FILE_EXT);
            }
#endif
            d.node = node ? node : "";
            const std::string folder = sysfsDeviceFolder(d.node);
            d.driver = kernelDriver(folder);
            d.videoMemory = vramBytes(folder);
        } else {
            d.driver = "swrast";
        }
        d.rendererID = rendererIDFor(d.driver, d.node);
        EGLDisplay display = egl.getPlatformDisplay(EGL_PLATFORM_DEVICE_EXT, handle, nullptr);
        EGLint major = 0, minor = 0;
        if (display == EGL_NO_DISPLAY || !eglInitialize(display, &major, &minor)) {
            skipped += qrl::format(" %@%@(EGL error 0x%x)", d.driver, d.node.empty() ? "" : " " + d.node, eglGetError());
            continue;
        }
        d.display = display;
        devices->anyHardware_ = devices->anyHardware_ || !d.software;
        devices->devices_.push_back(std::move(d));
    }
    if (devices->devices_.empty()) return fail("no EGL device could be initialised:" + skipped);
    return devices;
}

bool GraphicsDevicesEGL::countsAsAccelerated(const Device& device) const { return !device.software || !anyHardware_; }

CGLError GraphicsDevicesEGL::queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) {
    renderers.clear();
    if (displayMask == 0) return kCGLBadDisplay;
    for (const Device& d : devices_) {
        renderers.push_back({d.rendererID, countsAsAccelerated(d) ? 1 : 0, d.primaryNode ? 1 : 0, d.videoMemory,
                             d.videoMemory});
    }
    return kCGLNoError;
}

CGLError GraphicsDevicesEGL::choosePixelFormat(std::span<const int32_t> attributes,
                                               std::unique_ptr<GLPixelFormat>& format) {
    format.reset();
    uint32_t mask = 0;
    for (size_t i = 0; i < attributes.size() && attributes[i] != 0; ++i) {
        if (attributes[i] == kCGLPFAFullScreen) continue;
        if (attributes[i] != kCGLPFADisplayMask || i + 1 >= attributes.size()) return kCGLBadAttribute;
        mask = static_cast<uint32_t>(attributes[++i]);
    }
    if (mask == 0) return kCGLBadDisplay;
    for (const Device& d : devices_) {
        if (!countsAsAccelerated(d)) continue;
        const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
        EGLConfig config = nullptr;
        EGLint n = 0;
        if (!eglChooseConfig(d.display, wanted, &config, 1, &n) || n < 1) continue;
        auto f = std::make_unique<PixelFormatEGL>();
        f->display = d.display;
        f->config = config;
        f->surfaceless = hasExtension(eglQueryString(d.display, EGL_EXTENSIONS), "EGL_KHR_surfaceless_context");
        format = std::move(f);
        return kCGLNoError;
    }
    return kCGLNoError;  // no renderer qualifies: no format
}

std::unique_ptr<GLContext> GraphicsDevicesEGL::createContext(const GLPixelFormat& format, GLContext* share) {
    const auto* f = dynamic_cast<const PixelFormatEGL*>(&format);
    if (!f) return nullptr;
    if (!eglBindAPI(EGL_OPENGL_API)) return nullptr;
    EGLContext shareContext = EGL_NO_CONTEXT;
    if (auto* other = dynamic_cast<GLContextEGL*>(share)) shareContext = other->handle();
    const EGLint attributes[] = {EGL_NONE};
    const EGLContext context = eglCreateContext(f->display, f->config, shareContext, attributes);
    if (context == EGL_NO_CONTEXT) return nullptr;
    EGLSurface pbuffer = EGL_NO_SURFACE;
    if (!f->surfaceless) {
        const EGLint size[] = {EGL_WIDTH, 1, EGL_HEIGHT, 1, EGL_NONE};
        pbuffer = eglCreatePbufferSurface(f->display, f->config, size);
        if (pbuffer == EGL_NO_SURFACE) {
            eglDestroyContext(f->display, context);
            return nullptr;
        }
    }
    return std::make_unique<GLContextEGL>(f->display, context, pbuffer);
}

}  // namespace qrl
