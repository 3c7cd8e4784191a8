// The GPU path of a capture: upload of a BGRA frame, conversion to 4:2:0 by
// a fragment shader through a frame buffer, and read-back, for 1080p and 4K
// frames, synchronously and with a ring of pixel buffer objects; against a
// memcpy of the same bytes in the same run. The ratio table compares the CPU
// time of the calling thread; "wall_fps" is frames per second of wall-clock
// time, the figure that matters for recording. The renderer is the one EGL gives (Mesa's
// software renderer where there is no GPU).
#include <chrono>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "BenchSupport.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/OpenGLContextManager.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/gl/CaptureConverter.h"
#include "qrl/video/sim/DisplayServerSim.h"

namespace {

using namespace qrl;

// One simulated 4K display on the platform's renderers, made once.
std::shared_ptr<OpenGLContextManager> managerForBench(std::string& why) {
    static std::shared_ptr<OpenGLContextManager> manager;
    static std::string failure;
    static bool tried = false;
    if (!tried) {
        tried = true;
        auto displays = std::make_shared<DisplayServerSim>(NotificationCenter::defaultCenter());
        SimDisplay d;
        d.id = 1;
        d.frame = NSMakeRect(0, 0, 3840, 2160);
        displays->setDisplays({d});
        VideoPlatform::install(displays, nullptr);
        if (VideoPlatform::graphicsDevices()->backendName() != "egl") {
            failure = "no EGL renderer: " + VideoPlatform::choiceReport();
        } else {
            try {
                static auto provider = DisplaysProvider::create(NotificationCenter::defaultCenter());
                const auto map = provider->metadataForAllConnectedDisplays().at(0);
                manager = OpenGLContextManager::contextManagerForRenderer(provider->renderIDForActiveDisplay(map), false,
                                                                          provider);
            } catch (const std::exception& e) {
                failure = e.what();
            }
        }
    }
    why = failure;
    return manager;
}

std::vector<uint8_t> frame(int w, int h) {
    std::vector<uint8_t> out(static_cast<size_t>(w) * h * 4);
    for (size_t i = 0; i < out.size(); ++i) out[i] = static_cast<uint8_t>(i * 2654435761u >> 24);
    return out;
}

void gpuPath(benchmark::State& state, int w, int h, CaptureConverter::Transfer transfer) {
    std::string why;
    auto manager = managerForBench(why);
    if (!manager) {
        state.SkipWithError(why.c_str());
        return;
    }
    CaptureConverter converter(manager, w, h, transfer, 3);
    const auto pixels = frame(w, h);
    std::vector<uint8_t> planes(converter.planesSize());
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        converter.convert(pixels.data(), static_cast<size_t>(w) * 4, planes.data());
        benchmark::DoNotOptimize(planes.data());
    }
    while (converter.drain(planes.data())) {
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    // Frames per second of wall-clock time: the renderer works on threads
    // (or a GPU) of its own, which the CPU time of this thread does not see.
    state.counters["wall_fps"] = static_cast<double>(state.iterations()) / wall;
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(pixels.size()));
}

// The peer: the frame's bytes copied once, as the least any path must do.
void copy(benchmark::State& state, int w, int h) {
    const auto pixels = frame(w, h);
    std::vector<uint8_t> out(pixels.size());
    const auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        std::memcpy(out.data(), pixels.data(), pixels.size());
        benchmark::ClobberMemory();
    }
    const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    state.counters["wall_fps"] = static_cast<double>(state.iterations()) / wall;
    state.SetItemsProcessed(state.iterations());
    state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(pixels.size()));
}

constexpr auto kSync = CaptureConverter::Transfer::Synchronous;
constexpr auto kRing = CaptureConverter::Transfer::PixelBufferRing;

void BM_Sync1080p(benchmark::State& s) { gpuPath(s, 1920, 1080, kSync); }
void BM_Ring1080p(benchmark::State& s) { gpuPath(s, 1920, 1080, kRing); }
void BM_Sync4K(benchmark::State& s) { gpuPath(s, 3840, 2160, kSync); }
void BM_Ring4K(benchmark::State& s) { gpuPath(s, 3840, 2160, kRing); }
void BM_Copy1080p(benchmark::State& s) { copy(s, 1920, 1080); }
void BM_Copy4K(benchmark::State& s) { copy(s, 3840, 2160); }

#define QRL_GPU_BENCH(fn, name) BENCHMARK(fn)->Name(name)->Unit(benchmark::kMillisecond)

QRL_GPU_BENCH(BM_Sync1080p, "sync_1080p/qrl");
QRL_GPU_BENCH(BM_Copy1080p, "sync_1080p/memcpy");
QRL_GPU_BENCH(BM_Ring1080p, "ring_1080p/qrl");
QRL_GPU_BENCH(BM_Copy1080p, "ring_1080p/memcpy");
QRL_GPU_BENCH(BM_Sync4K, "sync_4k/qrl");
QRL_GPU_BENCH(BM_Copy4K, "sync_4k/memcpy");
QRL_GPU_BENCH(BM_Ring4K, "ring_4k/qrl");
QRL_GPU_BENCH(BM_Copy4K, "ring_4k/memcpy");

}  // namespace

QRL_BENCH_MAIN()
