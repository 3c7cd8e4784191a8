// qrl-record: records a display through the frame time organizer.
//
// On x11 the main display of the X server is captured in real time (MIT-SHM)
// at the movie's frame rate. On sim a simulated display draws a moving test
// pattern and delivers frames at irregular moments (jitter, bursts, stalls)
// on the simulated clock. Every arrival goes through FrameTimeOrganizer; each
// kept frame goes to 4:2:0 on the GPU (a capture texture drawn through a
// frame buffer by a fragment shader, then read back; EGL's renderer, Mesa's
// software one where there is no GPU) or, where no GL renderer can be had, on
// the CPU, and is written to a constant-rate movie as many times as its
// number of steps. Every arrival gets a row in timeline.csv. A display that
// changes size or goes away ends the recording with a message and a complete
// movie.
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <memory>
#include <random>
#include <stdexcept>
#include <string>
#include <thread>

#include "Planes.h"
#include "RecordOptions.h"
#include "TestPattern.h"
#include "Y4MWriter.h"
#include "qrl/foundation/AtomicFile.h"
#include "qrl/foundation/Clock.h"
#include "qrl/foundation/BackendChooser.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/Logging.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/timing/FrameTimeOrganizer.h"
#include "qrl/timing/TimeUtilities.h"
#include "qrl/video/DisplayServer.h"
#include "qrl/video/DisplaysProvider.h"
#include "qrl/video/GraphicsDevices.h"
#include "qrl/video/OpenGLContextManager.h"
#include "qrl/video/ScreenCapture.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/gl/CaptureConverter.h"
#include "qrl/video/sim/DisplayServerSim.h"

namespace {

using namespace qrl;
using namespace qrl::record;

std::atomic<bool> gInterrupted{false};
void onInterrupt(int) { gInterrupted.store(true); }

// A frame of the simulated display: when it arrived and when it was captured.
struct DisplayFrame {
    uint64_t number = 0;
    uint64_t arrival = 0;
    uint64_t capture = 0;
    uint64_t timeStamp() const { return arrival; }
    uint64_t captureTime() const { return capture; }
};

// Arrival times of a display that cannot keep a steady rate: each interval
// jitters by up to a third, now and then several frames arrive at once, and
// now and then the display stalls for several frame durations.
class ArrivalPattern {
public:
    ArrivalPattern(double fps, double frequency, uint64_t start, uint64_t seed)
        : interval_(frequency / fps), frequency_(frequency), next_(static_cast<double>(start)), rng_(seed) {}

    DisplayFrame next() {
        std::uniform_real_distribution<double> unit(0.0, 1.0);
        DisplayFrame f;
        f.number = ++count_;
        if (burstLeft_ > 0) {
            --burstLeft_;
            next_ += frequency_ * 0.0005 * unit(rng_);  // within half a millisecond
        } else {
            const double roll = unit(rng_);
            double gap = interval_ * (1.0 + (unit(rng_) - 0.5) * 0.66);
            if (roll < 0.03) burstLeft_ = 1 + static_cast<int>(unit(rng_) * 4);
            else if (roll < 0.05) gap = interval_ * (2.0 + unit(rng_) * 6.0);
            next_ += gap;
        }
        f.arrival = static_cast<uint64_t>(next_);
        // Captured a few milliseconds before it reached us.
        f.capture = f.arrival - static_cast<uint64_t>(frequency_ * (0.002 + 0.004 * unit(rng_)));
        return f;
    }

private:
    double interval_;
    double frequency_;
    double next_;
    std::mt19937_64 rng_;
    uint64_t count_ = 0;
    int burstLeft_ = 0;
};

// Makes the output folder (and its parents) and proves it writable.
// The output folder for the length of a run: made where missing, locked so
// that a second recording into it refuses rather than writing over this one,
// and taken away again when the run leaves nothing in it that it made.
class OutputFolder {
public:
    bool open(const std::string& dir, std::string& error) {
        std::error_code ec;
        path_ = std::filesystem::absolute(dir, ec).lexically_normal();
        if (!path_.has_filename()) path_ = path_.parent_path();  // "out/" names "out"
        for (std::filesystem::path p = path_; p.has_relative_path() && !std::filesystem::exists(p, ec);
             p = p.parent_path()) {
            made_ = p;  // the outermost folder this run makes
        }
        std::filesystem::create_directories(path_, ec);
        if (ec) {
            error = "cannot make output folder '" + dir + "': " + ec.message();
            return false;
        }
        if (!std::filesystem::is_directory(path_, ec)) {
            error = "output path '" + dir + "' is not a folder";
            return false;
        }
        if (::access(path_.c_str(), W_OK | X_OK) != 0) {
            error = "cannot write to output folder '" + dir + "': " + std::strerror(errno);
            return false;
        }
        const std::string lockPath = (path_ / kLockName).string();
        lock_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0644);
        if (lock_ < 0 || ::flock(lock_, LOCK_EX | LOCK_NB) != 0) {
            error = errno == EWOULDBLOCK ? "another recording is writing into '" + dir + "'"
                                         : "cannot lock output folder '" + dir + "': " + std::strerror(errno);
            return false;
        }
        return true;
    }
    ~OutputFolder() {
        if (made_.empty()) {
            if (lock_ >= 0) ::close(lock_);
            return;
        }
        // A folder this run made, with nothing in it but the lock: it goes,
        // with the empty folders above it that the run made too.
        std::error_code ec;
        if (lock_ >= 0) {
            bool onlyTheLock = true;
            for (const auto& entry : std::filesystem::directory_iterator(path_, ec))
                onlyTheLock = onlyTheLock && entry.path().filename() == kLockName;
            if (onlyTheLock && !ec) std::filesystem::remove(path_ / kLockName, ec);
            ::close(lock_);
        }
        for (std::filesystem::path p = path_; std::filesystem::is_empty(p, ec) && !ec; p = p.parent_path()) {
            std::filesystem::remove(p, ec);
            if (p == made_) break;
        }
    }

private:
    static constexpr const char* kLockName = ".qrl-record.lock";
    std::filesystem::path path_, made_;
    int lock_ = -1;
};

// A text file written through the atomic file writer: a stdio stream whose
// output goes to the writer's temporary file, renamed into place by finish().
class AtomicTextFile {
public:
    explicit AtomicTextFile(std::string path) : writer_(std::move(path)) {
        if (!writer_.ok()) throw std::runtime_error(writer_.error());
        cookie_io_functions_t io{};
        io.write = [](void* writer, const char* bytes, size_t size) -> ssize_t {
            return static_cast<AtomicFileWriter*>(writer)->write(bytes, size) ? static_cast<ssize_t>(size) : -1;
        };
        file_ = ::fopencookie(&writer_, "w", io);
        if (!file_) throw std::runtime_error("cannot write " + writer_.path() + ": " + std::strerror(errno));
    }
    ~AtomicTextFile() {
        if (file_) std::fclose(file_);  // the writer then removes its temporary file
    }
    std::FILE* get() { return file_; }
    void finish() {
        std::FILE* f = std::exchange(file_, nullptr);
        const bool streamed = !std::ferror(f);
        if (std::fclose(f) != 0 || !streamed || !writer_.commit())
            throw std::runtime_error(writer_.error().empty() ? "cannot write " + writer_.path() : writer_.error());
    }

private:
    AtomicFileWriter writer_;
    std::FILE* file_ = nullptr;
};

// The GPU path: a context manager for the display's renderer and a capture
// converter on it.
class GpuPath {
public:
    // Null, with the reason in `why`, where no renderer draws real pixels.
    static std::unique_ptr<GpuPath> open(const std::shared_ptr<DisplaysProvider>& provider,
                                         const DisplayMetadata& display, int width, int height, std::string& why) {
        const auto devices = VideoPlatform::graphicsDevices();
        if (!devices->drawsPixels()) {
            why = "the \"" + std::string(devices->backendName()) + "\" renderers draw no pixels (" +
                  VideoPlatform::choiceReport() + ")";
            return nullptr;
        }
        try {
            std::unique_ptr<GpuPath> path(new GpuPath());
            const Value renderer = provider->renderIDForActiveDisplay(display);
            path->manager_ = OpenGLContextManager::contextManagerForRenderer(renderer, false, provider);
            path->converter_ = std::make_unique<CaptureConverter>(path->manager_, width, height);
            path->renderer_ = path->manager_->nsOpenGLContextAtIndex(0)->getString(GL_RENDERER).value_or("?");
            return path;
        } catch (const std::exception& e) {
            why = e.what();
            return nullptr;
        }
    }
    ~GpuPath() {
        converter_.reset();
        if (manager_) manager_->cleanUp();
    }
    void convert(const uint8_t* bgra, size_t stride, std::vector<uint8_t>& planes) {
        planes.resize(converter_->planesSize());
        converter_->convert(bgra, stride, planes.data());
    }
    const std::string& renderer() const { return renderer_; }

private:
    GpuPath() = default;
    std::shared_ptr<OpenGLContextManager> manager_;
    std::unique_ptr<CaptureConverter> converter_;
    std::string renderer_;
};

// Opens the GPU path as --gpu asks; null means the CPU converts. Throws when
// the GPU was required and cannot be had.
std::unique_ptr<GpuPath> openGpuPath(const RecordOptions& options, const std::shared_ptr<DisplaysProvider>& provider,
                                     const DisplayMetadata& display, int width, int height) {
    if (options.gpu == "off") return nullptr;
    std::string why;
    auto path = GpuPath::open(provider, display, width, height, why);
    if (!path && options.gpu == "on") throw std::runtime_error("the GPU path is not available: " + why);
    if (path) std::fprintf(stderr, "qrl-record: converting on the GPU (%s)\n", path->renderer().c_str());
    else std::fprintf(stderr, "qrl-record: converting on the CPU (%s)\n", why.c_str());
    return path;
}

struct Tally {
    uint64_t arrived = 0, kept = 0, dropped = 0;
    uint64_t missed = 0;  // moments passed while the frame before was being made
    int64_t firstMovieTime = 0;
    double lastProgress = -1.0;
};

// One arrival: placed by the organizer, converted and written when kept, and
// a row of the time line either way.
template <class Frame, class Convert>
void placeFrame(FrameTimeOrganizer& organizer, const Frame& frame, double seconds, Tally& t, Y4MWriter& movie,
                std::FILE* timeline, Convert&& convert) {
    std::string_view reason;
    const bool accepted = organizer.receiveFrame(&frame, &reason);
    const int64_t movieTime = organizer.qrlUSecondsToTimescale(static_cast<int64_t>(frame.timeStamp()));
    if (t.arrived == 0) t.firstMovieTime = movieTime;
    ++t.arrived;
    if (accepted) {
        ++t.kept;
        movie.writeFrame(convert(), organizer.numberOfFrameDurationSteps());
        std::fprintf(timeline, "%.6f,%lld,1,%lld,%u,\n", seconds, static_cast<long long>(movieTime - t.firstMovieTime),
                     static_cast<long long>(organizer.nextFrameTime()), organizer.numberOfFrameDurationSteps());
    } else {
        ++t.dropped;
        std::fprintf(timeline, "%.6f,%lld,0,,0,%s\n", seconds, static_cast<long long>(movieTime - t.firstMovieTime),
                     reason.empty() ? "inside the previous frame" : std::string(reason).c_str());
    }
}

void progress(const RecordOptions& options, Tally& t, double seconds, bool final) {
    const bool tty = ::isatty(STDERR_FILENO) != 0;
    if (!final && (tty ? seconds - t.lastProgress < 0.1 : seconds - t.lastProgress < 1.0)) return;
    if (tty) {
        std::fprintf(stderr, "\rrecording %7.2f s / %.2f s   arrived %6llu   kept %6llu   dropped %5llu%s", seconds,
                     options.seconds, static_cast<unsigned long long>(t.arrived), static_cast<unsigned long long>(t.kept),
                     static_cast<unsigned long long>(t.dropped), final ? "\n" : "");
    } else {
        std::fprintf(stderr, "recording %7.2f s / %.2f s   arrived %llu   kept %llu   dropped %llu\n", seconds,
                     options.seconds, static_cast<unsigned long long>(t.arrived), static_cast<unsigned long long>(t.kept),
                     static_cast<unsigned long long>(t.dropped));
    }
    t.lastProgress = seconds;
}

void printSummary(const RecordOptions& options, const FrameTimeOrganizer& organizer, const Y4MWriter& movie,
                  const Tally& t, const std::string& moviePath, const std::string& timelinePath) {
    if (options.verbose) {
        std::printf("backends\n");
        std::string report = backendChoiceReport();
        for (std::size_t at = 0; at < report.size();) {
            const std::size_t end = std::min(report.find('\n', at), report.size());
            std::printf("  %s\n", report.substr(at, end - at).c_str());
            at = end + 1;
        }
    }
    const uint64_t timeScale = organizer.timeScale();
    const uint64_t duration = organizer.frameDuration();
    const uint64_t frames = movie.framesWritten();
    const double movieSeconds = static_cast<double>(frames * duration) / static_cast<double>(timeScale);
    std::printf("qrl-record: %s%.2f s at %g fps (time scale %llu, frame duration %llu)\n",
                gInterrupted.load() ? "interrupted after " : "", movieSeconds, static_cast<double>(options.fps),
                static_cast<unsigned long long>(timeScale), static_cast<unsigned long long>(duration));
    std::printf("  arrived     %llu\n", static_cast<unsigned long long>(t.arrived));
    std::printf("  kept        %llu\n", static_cast<unsigned long long>(t.kept));
    std::printf("  dropped     %llu\n", static_cast<unsigned long long>(t.dropped));
    std::printf("  duplicated  %llu  (extra copies that hold the time line across late frames)\n",
                static_cast<unsigned long long>(frames - t.kept));
    if (t.missed > 0)
        std::printf("  missed      %llu  (moments that passed while the frame before was being made)\n",
                    static_cast<unsigned long long>(t.missed));
    std::printf("  duration    %.3f s, %llu frames\n", movieSeconds, static_cast<unsigned long long>(frames));
    std::printf("  effective   %.2f fps of fresh frames\n", movieSeconds > 0 ? static_cast<double>(t.kept) / movieSeconds : 0.0);
    std::printf("  files       %s, %s\n", moviePath.c_str(), timelinePath.c_str());
}

int runSimulated(const RecordOptions& options) {
    // The simulated platform: a 24 MHz clock that starts well after zero, as
    // a host clock would after some uptime.
    constexpr double kFrequency = 24'000'000.0;
    const uint64_t start = static_cast<uint64_t>(kFrequency) * 3600;
    auto clock = std::make_shared<SimulatedClock>(kFrequency, start);
    qrl_install_clock(clock);

    // One simulated display of the picture's size; the renderers are the
    // platform's own (EGL), so that the GPU path draws real pixels.
    auto displays = std::make_shared<DisplayServerSim>(NotificationCenter::defaultCenter());
    SimDisplay display;
    display.id = 1;
    display.frame = NSMakeRect(0, 0, options.width, options.height);
    displays->setDisplays({display});
    VideoPlatform::install(displays, nullptr);
    std::shared_ptr<DisplaysProvider> provider;
    std::unique_ptr<GpuPath> gpu;
    if (options.gpu != "off") {
        provider = DisplaysProvider::create(NotificationCenter::defaultCenter());
        const auto maps = provider->metadataForAllConnectedDisplays();
        if (maps.empty()) throw std::runtime_error("the simulated display is missing");
        gpu = openGpuPath(options, provider, maps.front(), options.width, options.height);
    }

    FrameTimeOrganizer organizer(options.fps);
    const std::string moviePath = options.out + "/movie.y4m";
    const std::string timelinePath = options.out + "/timeline.csv";
    Y4MWriter movie(moviePath, options.width, options.height, organizer.timeScale(), organizer.frameDuration());
    AtomicTextFile timeline(timelinePath);
    std::fprintf(timeline.get(), "arrival,relative,kept,start,steps,reason\n");

    TestPattern pattern(options.width, options.height);
    ArrivalPattern arrivals(options.fps, kFrequency, start, options.seed);
    std::vector<uint8_t> bgra, planes;

    const auto wallStart = std::chrono::steady_clock::now();
    const uint64_t end = start + static_cast<uint64_t>(options.seconds * kFrequency);
    Tally tally;
    for (;;) {
        const DisplayFrame frame = arrivals.next();
        if (frame.arrival >= end || gInterrupted.load()) break;
        clock->setNow(frame.arrival);
        const double seconds = static_cast<double>(frame.arrival - start) / kFrequency;
        if (options.realtime)
            std::this_thread::sleep_until(wallStart + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                          std::chrono::duration<double>(seconds)));
        placeFrame(organizer, frame, seconds, tally, movie, timeline.get(), [&]() -> const std::vector<uint8_t>& {
            pattern.render(frame.number, static_cast<double>(frame.capture - start) / kFrequency);
            if (!gpu) return pattern.planes();
            pattern.toBGRA(bgra);
            gpu->convert(bgra.data(), static_cast<size_t>(options.width) * 4, planes);
            return planes;
        });
        progress(options, tally, seconds, false);
    }
    progress(options, tally, static_cast<double>(std::min(clock->now(), end) - start) / kFrequency, true);
    gpu.reset();
    movie.finish();
    timeline.finish();
    printSummary(options, organizer, movie, tally, moviePath, timelinePath);
    return 0;
}

int runX11(const RecordOptions& options) {
    // The X server of $DISPLAY, whatever QRL_PLATFORM says.
    if (!VideoPlatform::request("x11")) throw std::runtime_error("this build has no X11 display backend");
    const auto server = VideoPlatform::displayServer();
    auto provider = DisplaysProvider::create(NotificationCenter::defaultCenter());
    if (!provider->monitorMainDisplayForCapture())
        throw std::runtime_error("cannot record the X display: " + VideoPlatform::choiceReport());
    const CGDirectDisplayID id = provider->displayBeingMonitored();
    DisplayMetadata map;
    for (const auto& m : provider->metadataForAllConnectedDisplays())
        if (provider->displayIDForMetadata(m) == id) map = m;
    if (!map) throw std::runtime_error("the main display is not among the displays");
    std::string why;
    auto capture = openScreenCapture(*server, id, &why);
    if (!capture) throw std::runtime_error("cannot capture the display: " + why);
    const int width = capture->width(), height = capture->height();
    std::fprintf(stderr, "qrl-record: recording display %u, %d x %d, through %s\n", id, width, height,
                 capture->sharedMemory() ? "shared memory" : "the X connection");
    auto gpu = openGpuPath(options, provider, map, width, height);

    FrameTimeOrganizer organizer(options.fps);
    const std::string moviePath = options.out + "/movie.y4m";
    const std::string timelinePath = options.out + "/timeline.csv";
    Y4MWriter movie(moviePath, width, height, organizer.timeScale(), organizer.frameDuration());
    AtomicTextFile timeline(timelinePath);
    std::fprintf(timeline.get(), "arrival,relative,kept,start,steps,reason\n");

    std::vector<uint8_t> planes;
    const double interval = 1.0 / options.fps;
    const uint64_t start = qrl_useconds();
    const double frequency = static_cast<double>(QRL_USECONDS_TIMESCALE);
    const auto elapsed = [&] { return static_cast<double>(qrl_useconds() - start) / frequency; };
    Tally tally;
    std::string ended;
    bool failed = false;
    // Frames are due every 1/fps of wall time, for --seconds of wall time. A
    // moment that passed while the frame before was being made is skipped and
    // counted: the recording keeps real time and ends when it was asked to.
    for (uint64_t n = 0; !gInterrupted.load(); ++n) {
        const double now = elapsed();
        const double due = static_cast<double>(n) * interval;
        if (now >= options.seconds || due >= options.seconds) break;
        if (due > now) {
            // Wait for the frame's moment, letting the run loop deliver the display server's news meanwhile.
            RunLoop::main().runFor(due - now);
            if (gInterrupted.load()) break;
        } else if (const auto current = static_cast<uint64_t>(now / interval); current > n) {
            tally.missed += current - n;
            n = current;
        }
        const ScreenCapture::Result status = capture->capture();
        if (status != ScreenCapture::Result::Captured) {
            ended = capture->failure();
            failed = status == ScreenCapture::Result::Failed;
            break;
        }
        DisplayFrame frame;
        frame.number = n + 1;
        frame.arrival = frame.capture = qrl_useconds();
        const double seconds = static_cast<double>(frame.arrival - start) / frequency;
        placeFrame(organizer, frame, seconds, tally, movie, timeline.get(), [&]() -> const std::vector<uint8_t>& {
            if (gpu) {
                gpu->convert(capture->pixels(), capture->stride(), planes);
            } else {
                planes.resize(planesSize(width, height));
                convertBGRAToYCbCr420(capture->pixels(), capture->stride(), width, height, planes.data());
            }
            return planes;
        });
        progress(options, tally, seconds, false);
    }
    progress(options, tally, std::min(elapsed(), options.seconds), true);
    // What was recorded is kept, whatever ended the recording.
    if (!ended.empty()) std::fprintf(stderr, "qrl-record: %s; the recording ends here\n", ended.c_str());
    gpu.reset();
    movie.finish();
    timeline.finish();
    provider->stopMonitoringForCapturedDisplay();
    printSummary(options, organizer, movie, tally, moviePath, timelinePath);
    return failed ? 1 : 0;
}

}  // namespace

// qrl-record starts logging itself, once it has read its options: the
// framework's own notices ("Logging now: Disabled" among them) then go to the
// system log, and to the terminal only with --verbose.
extern "C" const int qrl_host_starts_logging = 1;

int main(int argc, char** argv) {
    std::string error;
    const auto options = parseRecordOptions(argc, argv, error);
    if (!options) {
        std::fprintf(stderr, "qrl-record: %s\n%s", error.c_str(), recordUsage());
        return 2;
    }
    if (!options->verbose) setPlatformLogWriter([](std::string_view message) { platformLogToSystemLog(message); });
    // The stored log options: levels, domains, the master switch (off unless
    // the preferences turn it on), the terminal and system-log outputs.
    qrl::LoggerStart();
    if (options->help) {
        std::fputs(recordUsage(), stdout);
        return 0;
    }
    if (options->platform == "x11" && !(std::getenv("DISPLAY") && *std::getenv("DISPLAY"))) {
        std::fprintf(stderr, "qrl-record: --platform x11 needs an X display, and $DISPLAY is not set\n");
        return 2;
    }
    OutputFolder folder;
    if (!folder.open(options->out, error)) {
        std::fprintf(stderr, "qrl-record: %s\n", error.c_str());
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    sigaction(SIGHUP, &action, nullptr);
    try {
        return options->platform == "x11" ? runX11(*options) : runSimulated(*options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "\nqrl-record: %s\n", e.what());
        return 1;
    }
}
