// The display provider on a private Xvfb split into four monitors, in
// microseconds: one check tick (with a display under capture monitoring, so
// that the capture test runs too) against the one XRandR round trip a tick
// cannot avoid; and one full refresh against what dominates it, one test GL
// context per display made directly with libEGL. Goal: a tick below 1 ms; a
// refresh close to its peer (ratio near 1), which says the test contexts are
// its cost.
#include <dlfcn.h>

#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/egl/GraphicsDevicesEGL.h"
#include "qrl/video/x11/DisplayServerX11.h"
#include "support/PrivateServer.h"

namespace {

// Xvfb with four monitors, the X11 and EGL backends installed, a provider.
struct Environment {
    Environment() {
        if (!xvfb.running()) {
            why = xvfb.why();
            return;
        }
        const char* monitors[4][3] = {{"A", "1920/480x1080/270+0+0", "screen"},
                                      {"B", "1920/480x1080/270+1920+0", "none"},
                                      {"C", "1920/480x1080/270+0+1080", "none"},
                                      {"D", "1920/480x1080/270+1920+1080", "none"}};
        for (const auto& m : monitors) {
            if (!qrl::test::Process::outputOf({"xrandr", "--setmonitor", m[0], m[1], m[2]}, {"DISPLAY=" + xvfb.address()}))
                why = "xrandr --setmonitor failed (is xrandr installed?)";
        }
        displays = qrl::DisplayServerX11::open(xvfb.address().c_str(), center,
                                               qrl::DisplayServerX11::Options{.watchSleep = false}, &why);
        renderers = qrl::GraphicsDevicesEGL::open(&why);
        if (!displays || !renderers) return;
        qrl::VideoPlatform::install(displays, renderers);
        provider = qrl::DisplaysProvider::create(center);
        provider->stopCheckTimer();  // ticks are driven by the benchmark
        ready = provider->displayCount() == 4;
        if (!ready) why = "the provider does not see four displays";
    }
    ~Environment() {
        provider.reset();
        qrl::VideoPlatform::install(nullptr, nullptr);
        displays.reset();
    }
    qrl::test::PrivateServer xvfb = qrl::test::PrivateServer::xvfb("3840x2160x24");
    bool ready = false;
    std::string why;
    qrl::NotificationCenter center;
    std::shared_ptr<qrl::DisplayServerX11> displays;
    std::shared_ptr<qrl::GraphicsDevicesEGL> renderers;
    std::shared_ptr<qrl::DisplaysProvider> provider;
};

Environment& environment() {
    static Environment e;
    return e;
}

#define REQUIRE_ENVIRONMENT(state)                        \
    Environment& env = environment();                     \
    if (!env.ready) {                                     \
        (state).SkipWithError(env.why.c_str());           \
        return;                                           \
    }

void BM_Tick(benchmark::State& state) {
    REQUIRE_ENVIRONMENT(state);
    env.provider->stopMonitoringForCapturedDisplay();
    env.provider->monitorMainDisplayForCapture();
    for (auto _ : state) env.provider->checkCaptureState();
    env.provider->stopMonitoringForCapturedDisplay();
}
BENCHMARK(BM_Tick)->Name("tick/qrl")->Unit(benchmark::kMicrosecond);

// The XRandR round trip of a tick, on a connection of its own.
void BM_TickPeer(benchmark::State& state) {
    REQUIRE_ENVIRONMENT(state);
    void* x11 = ::dlopen("libX11.so.6", RTLD_NOW | RTLD_LOCAL);
    void* xrandr = ::dlopen("libXrandr.so.2", RTLD_NOW | RTLD_LOCAL);
    auto open = reinterpret_cast<void* (*)(const char*)>(::dlsym(x11, "XOpenDisplay"));
    auto close = reinterpret_cast<int (*)(void*)>(::dlsym(x11, "XCloseDisplay"));
    auto root = reinterpret_cast<unsigned long (*)(void*)>(::dlsym(x11, "XDefaultRootWindow"));
    auto get = reinterpret_cast<void* (*)(void*, unsigned long, int, int*)>(::dlsym(xrandr, "XRRGetMonitors"));
    auto release = reinterpret_cast<void (*)(void*)>(::dlsym(xrandr, "XRRFreeMonitors"));
    void* d = open(env.xvfb.address().c_str());
    for (auto _ : state) {
        int n = 0;
        void* list = get(d, root(d), 0, &n);
        benchmark::DoNotOptimize(n);
        release(list);
    }
    close(d);
}
BENCHMARK(BM_TickPeer)->Name("tick/XRRGetMonitors")->Unit(benchmark::kMicrosecond);

void BM_TickUnmonitored(benchmark::State& state) {
    REQUIRE_ENVIRONMENT(state);
    env.provider->stopMonitoringForCapturedDisplay();
    for (auto _ : state) env.provider->checkCaptureState();
}
BENCHMARK(BM_TickUnmonitored)->Name("tick_unmonitored/qrl")->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_TickPeer)->Name("tick_unmonitored/XRRGetMonitors")->Unit(benchmark::kMicrosecond);

void BM_Refresh(benchmark::State& state) {
    REQUIRE_ENVIRONMENT(state);
    for (auto _ : state) env.provider->refreshCachedDisplays();
    state.counters["displays"] = env.provider->displayCount();
}
BENCHMARK(BM_Refresh)->Name("refresh/qrl")->Unit(benchmark::kMicrosecond);

// What dominates a refresh: one test context per display, made, asked for
// GL_RENDERER and destroyed, straight through EGL on an initialised display.
void BM_RefreshPeer(benchmark::State& state) {
    REQUIRE_ENVIRONMENT(state);
    EGLDisplay display = env.renderers->devices().front().display;
    for (const auto& d : env.renderers->devices()) {
        if (env.renderers->countsAsAccelerated(d)) {
            display = d.display;
            break;
        }
    }
    // libEGL is already loaded by the library; its functions are looked up
    // here so that this program links nothing from EGL itself.
    void* egl = ::dlopen("libEGL.so.1", RTLD_NOW | RTLD_LOCAL);
    auto chooseConfig = reinterpret_cast<decltype(&eglChooseConfig)>(::dlsym(egl, "eglChooseConfig"));
    auto bindAPI = reinterpret_cast<decltype(&eglBindAPI)>(::dlsym(egl, "eglBindAPI"));
    auto createContext = reinterpret_cast<decltype(&eglCreateContext)>(::dlsym(egl, "eglCreateContext"));
    auto makeCurrent = reinterpret_cast<decltype(&eglMakeCurrent)>(::dlsym(egl, "eglMakeCurrent"));
    auto destroyContext = reinterpret_cast<decltype(&eglDestroyContext)>(::dlsym(egl, "eglDestroyContext"));
    auto getProc = reinterpret_cast<decltype(&eglGetProcAddress)>(::dlsym(egl, "eglGetProcAddress"));
    const EGLint wanted[] = {EGL_RENDERABLE_TYPE, EGL_OPENGL_BIT, EGL_SURFACE_TYPE, EGL_PBUFFER_BIT, EGL_NONE};
    EGLConfig config = nullptr;
    EGLint n = 0;
    chooseConfig(display, wanted, &config, 1, &n);
    using GetString = const unsigned char* (*)(unsigned);
    auto getString = reinterpret_cast<GetString>(getProc("glGetString"));
    const EGLint none[] = {EGL_NONE};
    for (auto _ : state) {
        for (int i = 0; i < 4; ++i) {
            bindAPI(EGL_OPENGL_API);
            EGLContext c = createContext(display, config, EGL_NO_CONTEXT, none);
            makeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, c);
            benchmark::DoNotOptimize(getString(0x1F01));
            makeCurrent(display, EGL_NO_SURFACE, EGL_NO_SURFACE, EGL_NO_CONTEXT);
            destroyContext(display, c);
        }
    }
}
BENCHMARK(BM_RefreshPeer)->Name("refresh/4_test_contexts")->Unit(benchmark::kMicrosecond);

}  // namespace

QRL_BENCH_MAIN();
