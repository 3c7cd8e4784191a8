#include "qrl/video/egl/GraphicsDevicesEGL.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <climits>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/video/egl/GLContextEGL.h"

namespace qrl {

namespace {

struct EGLEntryPoints {
    PFNEGLQUERYDEVICESEXTPROC queryDevices = nullptr;
    PFNEGLQUERYDEVICESTRINGEXTPROC queryDeviceString = nullptr;
    PFNEGLGETPLATFORMDISPLAYEXTPROC getPlatformDisplay = nullptr;
};

const EGLEntryPoints& entryPoints() {
    static const EGLEntryPoints e = [] {
        EGLEntryPoints p;
        p.queryDevices = reinterpret_cast<PFNEGLQUERYDEVICESEXTPROC>(eglGetProcAddress("eglQueryDevicesEXT"));
        p.queryDeviceString =
            reinterpret_cast<PFNEGLQUERYDEVICESTRINGEXTPROC>(eglGetProcAddress("eglQueryDeviceStringEXT"));
        p.getPlatformDisplay =
            reinterpret_cast<PFNEGLGETPLATFORMDISPLAYEXTPROC>(eglGetProcAddress("eglGetPlatformDisplayEXT"));
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
    EGLConfig config = nullptr;  // null for a configless context
    bool surfaceless = false;
    bool accelerated = false;
    std::map<int32_t, int32_t> attributes;
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

std::shared_ptr<GraphicsDevicesEGL> GraphicsDevicesEGL::openSurfaceless(const char* clientExtensions) {
    const EGLEntryPoints& egl = entryPoints();
    if (!hasExtension(clientExtensions, "EGL_MESA_platform_surfaceless") || !egl.getPlatformDisplay) return nullptr;
    const EGLDisplay display = egl.getPlatformDisplay(EGL_PLATFORM_SURFACELESS_MESA, EGL_DEFAULT_DISPLAY, nullptr);
    EGLint major = 0, minor = 0;
    if (display == EGL_NO_DISPLAY || !eglInitialize(display, &major, &minor)) return nullptr;
    std::shared_ptr<GraphicsDevicesEGL> devices(new GraphicsDevicesEGL());
    Device d;
    d.display = display;
    d.driver = "surfaceless";
    d.software = true;  // unknown: the platform picks the renderer; it is the only one either way
    d.rendererID = rendererIDFor(d.driver, d.node);
    devices->devices_.push_back(std::move(d));
    return devices;
}

std::shared_ptr<GraphicsDevicesEGL> GraphicsDevicesEGL::open(std::string* whyNot) {
    auto fail = [&](std::string why) {
        if (whyNot) *whyNot = std::move(why);
        return nullptr;
    };
    const char* clientExtensions = eglQueryString(EGL_NO_DISPLAY, EGL_EXTENSIONS);
    if (!hasExtension(clientExtensions, "EGL_EXT_device_enumeration") ||
        !hasExtension(clientExtensions, "EGL_EXT_platform_device")) {
        // Without device enumeration, Mesa's surfaceless platform still gives
        // one renderer of its choosing, with no window system.
        if (auto surfaceless = openSurfaceless(clientExtensions)) return surfaceless;
        return fail("EGL has no device enumeration (EGL_EXT_device_enumeration, EGL_EXT_platform_device) and no "
                    "surfaceless platform");
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
    std::map<int32_t, int32_t> parsed;
    if (const CGLError e = parsePixelFormatAttributes(attributes, parsed); e != kCGLNoError) return e;
    // Full screen, no recovery, pixel buffers: off-screen EGL contexts have
    // no such distinctions, so these flags are accepted and change nothing.
    for (const Device& d : devices_) {
        if (!countsAsAccelerated(d)) continue;
        auto f = std::make_unique<PixelFormatEGL>();
        f->display = d.display;
        f->accelerated = true;
        f->attributes = parsed;
        const char* extensions = eglQueryString(d.display, EGL_EXTENSIONS);
        f->surfaceless = hasExtension(extensions, "EGL_KHR_surfaceless_context");
        const bool configless = hasExtension(extensions, "EGL_KHR_no_config_context") ||
                                hasExtension(extensions, "EGL_MESA_configless_context");
        if (!configless || !f->surfaceless) {
            const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
            EGLint n = 0;
            if (!eglChooseConfig(d.display, wanted, &f->config, 1, &n) || n < 1) continue;
        }
        format = std::move(f);
        return kCGLNoError;
    }
    return kCGLNoError;  // no renderer qualifies: no format
}

std::unique_ptr<GLContext> GraphicsDevicesEGL::createContext(const GLPixelFormat& format, GLContext* share) {
    const auto* f = dynamic_cast<const PixelFormatEGL*>(&format);
    if (!f) return nullptr;
    EGLContext shareContext = EGL_NO_CONTEXT;
    std::shared_ptr<const int> group;
    if (share) {
        auto* other = dynamic_cast<GLContextEGL*>(share);
        // Objects are shared only among contexts of one EGL display (one renderer).
        if (!other || other->display() != f->display) return nullptr;
        shareContext = other->handle();
        group = other->shareGroupToken();
    }
    if (!eglBindAPI(EGL_OPENGL_API)) return nullptr;
    // A desktop GL compatibility profile: the drawing code uses immediate
    // mode, attribute and matrix stacks, and rectangle textures.
    const EGLint compatibility[] = {EGL_CONTEXT_OPENGL_PROFILE_MASK, EGL_CONTEXT_OPENGL_COMPATIBILITY_PROFILE_BIT,
                                    EGL_NONE};
    const EGLint none[] = {EGL_NONE};
    EGLContext context = eglCreateContext(f->display, f->config, shareContext, compatibility);
    if (context == EGL_NO_CONTEXT) context = eglCreateContext(f->display, f->config, shareContext, none);
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
    return std::make_unique<GLContextEGL>(f->display, context, pbuffer, true, std::move(group));
}

CGLError GraphicsDevicesEGL::describePixelFormat(const GLPixelFormat& format, int32_t virtualScreen, int32_t attribute,
                                                 int32_t& value) {
    value = 0;
    const auto* f = dynamic_cast<const PixelFormatEGL*>(&format);
    if (!f) return kCGLBadPixelFormat;
    if (virtualScreen != 0) return kCGLBadValue;  // EGL has no virtual screens: there is one, 0
    if (attribute == kCGLPFAVirtualScreenCount) {
        value = 1;
    } else if (attribute == kCGLPFAAccelerated) {
        value = f->accelerated ? 1 : 0;
    } else if (const auto it = f->attributes.find(attribute); it != f->attributes.end()) {
        value = it->second;
    }
    return kCGLNoError;
}

std::shared_ptr<GLContext> GraphicsDevicesEGL::adoptCurrentContext() {
    eglBindAPI(EGL_OPENGL_API);
    const EGLContext context = eglGetCurrentContext();
    if (context == EGL_NO_CONTEXT) return nullptr;
    return std::make_shared<GLContextEGL>(eglGetCurrentDisplay(), context, eglGetCurrentSurface(EGL_DRAW), false);
}

}  // namespace qrl
