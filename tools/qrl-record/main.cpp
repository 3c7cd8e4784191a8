// qrl-record: records a virtual display through the frame time organizer.
//
// The simulated display draws a moving test pattern and delivers frames at
// irregular moments (jitter, bursts, stalls) on the simulated clock. Every
// arrival goes through FrameTimeOrganizer; each kept frame is written to a
// constant-rate movie as many times as its number of steps, so the movie is
// a true constant-rate file, and every arrival gets a row in timeline.csv.
#include <signal.h>
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

#include "RecordOptions.h"
#include "TestPattern.h"
#include "Y4MWriter.h"
#include "qrl/foundation/Clock.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLTTYLogger.h"
#include "qrl/logging/ThreadLogger.h"
#include "qrl/timing/FrameTimeOrganizer.h"
#include "qrl/timing/TimeUtilities.h"

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
bool prepareOutputFolder(const std::string& dir, std::string& error) {
    std::error_code ec;
    std::filesystem::create_directories(dir, ec);
    if (ec) {
        error = "cannot make output folder '" + dir + "': " + ec.message();
        return false;
    }
    if (!std::filesystem::is_directory(dir, ec)) {
        error = "output path '" + dir + "' is not a folder";
        return false;
    }
    if (::access(dir.c_str(), W_OK | X_OK) != 0) {
        error = "cannot write to output folder '" + dir + "': " + std::strerror(errno);
        return false;
    }
    return true;
}

// A text file written under a temporary name and renamed into place on success.
class AtomicTextFile {
public:
    explicit AtomicTextFile(std::string path) : path_(std::move(path)), temporary_(path_ + ".partial") {
        file_ = std::fopen(temporary_.c_str(), "w");
        if (!file_) throw std::runtime_error("cannot create " + temporary_ + ": " + std::strerror(errno));
    }
    ~AtomicTextFile() {
        if (file_) {
            std::fclose(file_);
            ::unlink(temporary_.c_str());
        }
    }
    std::FILE* get() { return file_; }
    void finish() {
        std::FILE* f = file_;
        file_ = nullptr;
        if (std::ferror(f) || std::fclose(f) != 0 || std::rename(temporary_.c_str(), path_.c_str()) != 0) {
            const std::string reason = std::strerror(errno);
            ::unlink(temporary_.c_str());
            throw std::runtime_error("cannot write " + path_ + ": " + reason);
        }
    }

private:
    std::string path_;
    std::string temporary_;
    std::FILE* file_ = nullptr;
};

int runRecording(const RecordOptions& options) {
    // The simulated platform: a 24 MHz clock that starts well after zero, as
    // a host clock would after some uptime.
    constexpr double kFrequency = 24'000'000.0;
    const uint64_t start = static_cast<uint64_t>(kFrequency) * 3600;
    auto clock = std::make_shared<SimulatedClock>(kFrequency, start);
    qrl_install_clock(clock);
    // Log lines go to the terminal in the thread formatter's form.
    auto lineFormat = std::make_shared<ThreadLogger>();
    lineFormat->setIncludeDate(true);
    QRLTTYLogger::sharedInstance()->setLogFormatter(lineFormat);
    QRLLog::addLogger(QRLTTYLogger::sharedInstance());

    FrameTimeOrganizer organizer(options.fps);
    const uint64_t timeScale = organizer.timeScale();
    const uint64_t duration = organizer.frameDuration();

    const std::string moviePath = options.out + "/movie.y4m";
    const std::string timelinePath = options.out + "/timeline.csv";
    Y4MWriter movie(moviePath, options.width, options.height, timeScale, duration);
    AtomicTextFile timeline(timelinePath);
    std::fprintf(timeline.get(), "arrival,relative,kept,start,steps,reason\n");

    TestPattern pattern(options.width, options.height);
    ArrivalPattern arrivals(options.fps, kFrequency, start, options.seed);

    const bool tty = ::isatty(STDERR_FILENO) != 0;
    const auto wallStart = std::chrono::steady_clock::now();
    const uint64_t end = start + static_cast<uint64_t>(options.seconds * kFrequency);
    uint64_t arrived = 0, kept = 0, dropped = 0;
    int64_t firstMovieTime = 0;
    double lastProgress = -1.0;

    auto progress = [&](double seconds, bool final) {
        if (tty) {
            std::fprintf(stderr, "\rrecording %7.2f s / %.2f s   arrived %6llu   kept %6llu   dropped %5llu%s", seconds,
                         options.seconds, static_cast<unsigned long long>(arrived),
                         static_cast<unsigned long long>(kept), static_cast<unsigned long long>(dropped),
                         final ? "\n" : "");
        } else if (final || seconds - lastProgress >= 1.0) {
            std::fprintf(stderr, "recording %7.2f s / %.2f s   arrived %llu   kept %llu   dropped %llu\n", seconds,
                         options.seconds, static_cast<unsigned long long>(arrived),
                         static_cast<unsigned long long>(kept), static_cast<unsigned long long>(dropped));
        }
        lastProgress = seconds;
    };

    for (;;) {
        const DisplayFrame frame = arrivals.next();
        if (frame.arrival >= end || gInterrupted.load()) break;
        clock->setNow(frame.arrival);
        const double seconds = static_cast<double>(frame.arrival - start) / kFrequency;
        if (options.realtime)
            std::this_thread::sleep_until(wallStart + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                                          std::chrono::duration<double>(seconds)));

        std::string_view reason;
        const bool accepted = organizer.receiveFrame(&frame, &reason);
        const int64_t movieTime = organizer.qrlUSecondsToTimescale(static_cast<int64_t>(frame.arrival));
        if (arrived == 0) firstMovieTime = movieTime;
        ++arrived;
        if (accepted) {
            ++kept;
            pattern.render(frame.number, static_cast<double>(frame.capture - start) / kFrequency);
            movie.writeFrame(pattern.planes(), organizer.numberOfFrameDurationSteps());
            std::fprintf(timeline.get(), "%.6f,%lld,1,%lld,%u,\n", seconds,
                         static_cast<long long>(movieTime - firstMovieTime),
                         static_cast<long long>(organizer.nextFrameTime()), organizer.numberOfFrameDurationSteps());
        } else {
            ++dropped;
            std::fprintf(timeline.get(), "%.6f,%lld,0,,0,%s\n", seconds, static_cast<long long>(movieTime - firstMovieTime),
                         reason.empty() ? "inside the previous frame" : std::string(reason).c_str());
        }
        if (tty ? seconds - lastProgress >= 0.1 : seconds - lastProgress >= 1.0) progress(seconds, false);
    }
    progress(static_cast<double>(std::min(clock->now(), end) - start) / kFrequency, true);

    movie.finish();
    timeline.finish();

    const uint64_t frames = movie.framesWritten();
    const double movieSeconds = static_cast<double>(frames * duration) / static_cast<double>(timeScale);
    std::printf("qrl-record: %s%.2f s at %g fps (time scale %llu, frame duration %llu)\n",
                gInterrupted.load() ? "interrupted after " : "", movieSeconds, static_cast<double>(options.fps),
                static_cast<unsigned long long>(timeScale), static_cast<unsigned long long>(duration));
    std::printf("  arrived     %llu\n", static_cast<unsigned long long>(arrived));
    std::printf("  kept        %llu\n", static_cast<unsigned long long>(kept));
    std::printf("  dropped     %llu\n", static_cast<unsigned long long>(dropped));
    std::printf("  duplicated  %llu  (extra copies that hold the time line across late frames)\n",
                static_cast<unsigned long long>(frames - kept));
    std::printf("  duration    %.3f s, %llu frames\n", movieSeconds, static_cast<unsigned long long>(frames));
    std::printf("  effective   %.2f fps of fresh frames\n", movieSeconds > 0 ? static_cast<double>(kept) / movieSeconds : 0.0);
    std::printf("  files       %s, %s\n", moviePath.c_str(), timelinePath.c_str());
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    std::string error;
    const auto options = parseRecordOptions(argc, argv, error);
    if (!options) {
        std::fprintf(stderr, "qrl-record: %s\n%s", error.c_str(), recordUsage());
        return 2;
    }
    if (options->help) {
        std::fputs(recordUsage(), stdout);
        return 0;
    }
    if (!prepareOutputFolder(options->out, error)) {
        std::fprintf(stderr, "qrl-record: %s\n", error.c_str());
        return 2;
    }
    struct sigaction action {};
    action.sa_handler = onInterrupt;
    sigaction(SIGINT, &action, nullptr);
    sigaction(SIGTERM, &action, nullptr);
    try {
        return runRecording(*options);
    } catch (const std::exception& e) {
        std::fprintf(stderr, "\nqrl-record: %s\n", e.what());
        return 1;
    }
}
