// GraphicsDevicesEGL: graphics renderers from EGL device enumeration (no
// window system connection needed). A renderer's ID is a stable non-zero hash
// of its driver and device node; its card name is the GL_RENDERER string of a
// test context made on it.
//
// Only accelerated renderers count, as everywhere in the framework; on a
// machine whose only renderer is software (Mesa's llvmpipe, as on every
// build machine without a GPU) that would leave no display at all, so a
// software renderer counts as accelerated exactly when no hardware renderer
// can be used. Every renderer can draw for every X screen (they all render
// off-screen), so any non-zero display mask is served by all of them.
//
// The devices' EGL displays are initialised once and kept for the process
// (EGL displays are per device and process-wide: terminating one here would
// pull it from under any other user). Contexts are desktop GL compatibility
// profile contexts, configless and surfaceless where the display allows (no
// X connection is needed), shared only among contexts of one device, and
// bound to whichever thread locks them (GLContextEGL).
#pragma once

#include <EGL/egl.h>
#include <EGL/eglext.h>

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qrl/video/GraphicsDevices.h"

namespace qrl {

class GraphicsDevicesEGL final : public GraphicsDevices {
public:
    struct Device {
        EGLDeviceEXT handle = EGL_NO_DEVICE_EXT;
        EGLDisplay display = EGL_NO_DISPLAY;  // initialised; EGL_NO_DISPLAY when it could not be
        std::string driver;                   // kernel driver ("amdgpu", "i915", "nvidia"), "swrast" for software
        std::string node;                     // DRM device node, empty for software
        bool software = false;
        bool primaryNode = false;             // has a display-capable DRM node
        int32_t rendererID = 0;
        int32_t videoMemory = 0;              // bytes from the driver's sysfs report; 0 when it has none
    };

    // Null, with the reason at *whyNot when given, when EGL has neither
    // device enumeration nor Mesa's surfaceless platform, or no device can be
    // initialised.
    static std::shared_ptr<GraphicsDevicesEGL> open(std::string* whyNot = nullptr);

    std::string_view backendName() const override { return "egl"; }
    CGLError queryRendererInfo(uint32_t displayMask, std::vector<RendererDescription>& renderers) override;
    // Full screen, no recovery and pixel buffer flags have no meaning for
    // off-screen EGL contexts and are accepted and ignored. The format is
    // configless and surfaceless where the display allows it.
    CGLError choosePixelFormat(std::span<const int32_t> attributes, std::unique_ptr<GLPixelFormat>& format) override;
    // A desktop GL compatibility-profile context (GLContextEGL); with
    // `share`, which must be a context of the same device, in its share group.
    std::unique_ptr<GLContext> createContext(const GLPixelFormat& format, GLContext* share) override;
    // The attributes asked for, one virtual screen, and kCGLPFAAccelerated.
    CGLError describePixelFormat(const GLPixelFormat& format, int32_t virtualScreen, int32_t attribute,
                                 int32_t& value) override;
    // The calling thread's current EGL context, made by someone else, wrapped
    // without taking ownership; null when none is current.
    static std::shared_ptr<GLContext> adoptCurrentContext();

    // The usable devices, in enumeration order.
    const std::vector<Device>& devices() const { return devices_; }
    // Whether a device counts as accelerated by the rule above.
    bool countsAsAccelerated(const Device& device) const;

    // FNV-1a of "<driver>\0<node>", never 0.
    static int32_t rendererIDFor(const std::string& driver, const std::string& node);

private:
    GraphicsDevicesEGL() = default;
    // One renderer from Mesa's surfaceless platform; null where there is none.
    static std::shared_ptr<GraphicsDevicesEGL> openSurfaceless(const char* clientExtensions);

    std::vector<Device> devices_;
    bool anyHardware_ = false;
};

}  // namespace qrl
