// Screen capture from a private Xvfb, and qrl-record --platform x11 end to
// end: a test client paints known colours, the capture and the recorded
// movie must show them, and a display that changes size mid-recording ends
// the recording with a complete movie.
#include "qrl/video/x11/ScreenCaptureX11.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <thread>

#include "qrl/foundation/Format.h"
#include "video/x11/X11TestSupport.h"

extern char** environ;

namespace qrl {
namespace {

struct Quadrant {
    int x, y;
    unsigned long rgb;
    int Y, Cb, Cr;  // BT.601 studio range of the colour
};
// 75% red, green, blue and white on a 320 x 240 screen.
constexpr Quadrant kQuadrants[] = {{0, 0, 0xBF0000, 65, 100, 212},
                                   {160, 0, 0x00BF00, 112, 72, 58},
                                   {0, 120, 0x0000BF, 35, 212, 114},
                                   {160, 120, 0xBFBFBF, 180, 128, 128}};

class ScreenCaptureX11Test : public ::testing::Test {
protected:
    void SetUp() override {
        QRL_REQUIRE_XVFB(xvfb_);
        ASSERT_TRUE(x_.loaded()) << "libX11/libXrandr could not be loaded";
        client_ = std::make_unique<test::XClient>(x_, xvfb_.name());
        ASSERT_TRUE(client_->open());
        // A monitor of its own (with no output, so that it can be redefined), primary.
        client_->setMonitor("REC", 0, 0, 320, 240, true);
        display_ = x_.XOpenDisplay(xvfb_.name().c_str());
        ASSERT_NE(display_, nullptr);
        for (const Quadrant& q : kQuadrants) {
            XSetWindowAttributes a{};
            a.override_redirect = True;
            a.background_pixel = q.rgb;
            const Window w = x_.XCreateWindow(display_, x_.XDefaultRootWindow(display_), q.x, q.y, 160, 120, 0,
                                              CopyFromParent, InputOutput, nullptr, CWOverrideRedirect | CWBackPixel, &a);
            x_.XMapWindow(display_, w);
        }
        x_.XSync(display_, False);
    }
    void TearDown() override {
        if (display_) x_.XCloseDisplay(display_);
        client_.reset();
    }

    test::Xvfb xvfb_{"320x240x24"};
    test::XLib x_;
    std::unique_ptr<test::XClient> client_;
    Display* display_ = nullptr;
};

TEST_F(ScreenCaptureX11Test, CapturesTheMonitorsPixelsAndNoticesChanges) {
    std::string why;
    auto capture = ScreenCaptureX11::open(xvfb_.name().c_str(), static_cast<CGDirectDisplayID>(client_->atom("REC")), &why);
    ASSERT_TRUE(capture) << why;
    EXPECT_EQ(capture->width(), 320);
    EXPECT_EQ(capture->height(), 240);
    EXPECT_TRUE(capture->sharedMemory());  // a local server offers MIT-SHM
    ASSERT_EQ(capture->capture(), ScreenCapture::Result::Captured) << capture->failure();
    ASSERT_GE(capture->stride(), 320u * 4);
    int wrong = 0;
    for (const Quadrant& q : kQuadrants) {
        for (int y = q.y; y < q.y + 120; ++y) {
            for (int x = q.x; x < q.x + 160; ++x) {
                const uint8_t* p = capture->pixels() + y * capture->stride() + x * 4;
                wrong += p[0] != (q.rgb & 0xFF) || p[1] != ((q.rgb >> 8) & 0xFF) || p[2] != ((q.rgb >> 16) & 0xFF);
            }
        }
    }
    EXPECT_EQ(wrong, 0);

    auto missing = ScreenCaptureX11::open(xvfb_.name().c_str(), 12345, &why);
    EXPECT_FALSE(missing);
    EXPECT_EQ(why, "the X server has no monitor 12345");

    // Redefining a monitor takes its removal first (the server refuses a replacement).
    client_->deleteMonitor("REC");
    client_->setMonitor("REC", 0, 0, 200, 240, true);
    EXPECT_EQ(capture->capture(), ScreenCapture::Result::Changed);
    EXPECT_EQ(capture->failure(), qrl::format("monitor %u changed from 320 x 240 to 200 x 240",
                                              static_cast<unsigned>(client_->atom("REC"))));
    client_->deleteMonitor("REC");
    EXPECT_EQ(capture->capture(), ScreenCapture::Result::Gone);
}

// --- qrl-record, run as a program ---

std::string recorderPath() {
    std::error_code ec;
    const auto self = std::filesystem::read_symlink("/proc/self/exe", ec);
    return (self.parent_path() / ".." / "tools" / "qrl-record" / "qrl-record").lexically_normal().string();
}

class Recorder {
public:
    Recorder(const std::string& program, const std::string& display, const std::vector<std::string>& args,
             const std::string& dir)
        : errPath_(dir + "/stderr.txt") {
        std::vector<std::string> env;
        for (char** e = environ; *e; ++e)
            if (std::string(*e).rfind("DISPLAY=", 0) != 0 && std::string(*e).rfind("QRL_", 0) != 0) env.emplace_back(*e);
        env.push_back("DISPLAY=" + display);
        std::vector<std::string> argv{program};
        argv.insert(argv.end(), args.begin(), args.end());
        std::vector<char*> a, e;
        for (auto& s : argv) a.push_back(s.data());
        a.push_back(nullptr);
        for (auto& s : env) e.push_back(s.data());
        e.push_back(nullptr);
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_addopen(&actions, 1, (dir + "/stdout.txt").c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        posix_spawn_file_actions_addopen(&actions, 2, errPath_.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        if (::posix_spawn(&pid_, program.c_str(), &actions, nullptr, a.data(), e.data()) != 0) pid_ = -1;
        posix_spawn_file_actions_destroy(&actions);
    }
    ~Recorder() {
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    bool started() const { return pid_ > 0; }
    // The exit status, or -1 when it has not ended within the deadline.
    int wait(double seconds) {
        const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
        if (pidfd < 0) return -1;
        pollfd p{pidfd, POLLIN, 0};
        const int ready = ::poll(&p, 1, static_cast<int>(seconds * 1000));
        ::close(pidfd);
        if (ready <= 0) return -1;
        int status = 0;
        ::waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    std::string errors() const {
        std::ifstream in(errPath_);
        return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    }

private:
    pid_t pid_ = -1;
    std::string errPath_;
};

struct Movie {
    int width = 0, height = 0;
    std::vector<std::vector<uint8_t>> frames;
    bool whole = false;
};

Movie readMovie(const std::string& path) {
    Movie m;
    std::ifstream in(path, std::ios::binary);
    std::string header;
    if (!std::getline(in, header)) return m;
    if (std::sscanf(header.c_str(), "YUV4MPEG2 W%d H%d", &m.width, &m.height) != 2) return m;
    const size_t size = static_cast<size_t>(m.width) * m.height + 2 * static_cast<size_t>((m.width + 1) / 2) * ((m.height + 1) / 2);
    std::string tag;
    while (std::getline(in, tag)) {
        if (tag != "FRAME") return m;
        std::vector<uint8_t> f(size);
        if (!in.read(reinterpret_cast<char*>(f.data()), static_cast<std::streamsize>(size))) return m;
        m.frames.push_back(std::move(f));
    }
    m.whole = true;
    return m;
}

class RecordX11Test : public ScreenCaptureX11Test {
protected:
    void SetUp() override {
        ScreenCaptureX11Test::SetUp();
        if (IsSkipped() || HasFatalFailure()) return;
        program_ = recorderPath();
        if (::access(program_.c_str(), X_OK) != 0) {
            if (test::underCI()) FAIL() << "qrl-record is not built at " << program_;
            GTEST_SKIP() << "qrl-record is not built (" << program_ << ")";
        }
        dir_ = (std::filesystem::temp_directory_path() / ("qrl-record-x11-" + std::to_string(::getpid()))).string();
        std::filesystem::create_directories(dir_);
    }
    void TearDown() override {
        std::error_code ec;
        if (!dir_.empty()) std::filesystem::remove_all(dir_, ec);
        ScreenCaptureX11Test::TearDown();
    }
    std::string program_;
    std::string dir_;
};

TEST_F(RecordX11Test, MovieShowsWhatWasOnTheScreen) {
    Recorder r(program_, xvfb_.name(), {"--platform", "x11", "--seconds", "2", "--fps", "10", "--out", dir_ + "/out"}, dir_);
    ASSERT_TRUE(r.started());
    ASSERT_EQ(r.wait(60), 0) << r.errors();
    const Movie m = readMovie(dir_ + "/out/movie.y4m");
    ASSERT_TRUE(m.whole);
    EXPECT_EQ(m.width, 320);
    EXPECT_EQ(m.height, 240);
    EXPECT_EQ(m.frames.size(), 20u);  // 2 s at 10 fps, a constant-rate file
    const std::vector<uint8_t>& f = m.frames.back();
    const uint8_t* cb = f.data() + 320 * 240;
    const uint8_t* cr = cb + 160 * 120;
    for (const Quadrant& q : kQuadrants) {
        SCOPED_TRACE(q.rgb);
        const int x = q.x + 80, y = q.y + 60;
        EXPECT_NEAR(f[y * 320 + x], q.Y, 1);
        EXPECT_NEAR(cb[(y / 2) * 160 + x / 2], q.Cb, 1);
        EXPECT_NEAR(cr[(y / 2) * 160 + x / 2], q.Cr, 1);
    }
}

TEST_F(RecordX11Test, ADisplayThatChangesSizeEndsTheRecordingWithACompleteMovie) {
    Recorder r(program_, xvfb_.name(), {"--platform", "x11", "--seconds", "60", "--fps", "10", "--out", dir_ + "/out"},
               dir_);
    ASSERT_TRUE(r.started());
    // Change the display once the recording is under way.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (r.errors().find("arrived ") == std::string::npos && std::chrono::steady_clock::now() < deadline)
        std::this_thread::yield();
    ASSERT_NE(r.errors().find("arrived "), std::string::npos) << r.errors();
    client_->deleteMonitor("REC");
    client_->setMonitor("REC", 0, 0, 240, 240, true);
    ASSERT_EQ(r.wait(30), 0) << r.errors();
    // Seen between the two steps or after both: gone, or changed.
    const std::string errors = r.errors();
    EXPECT_TRUE(errors.find(" is gone; the recording ends here") != std::string::npos ||
                errors.find("changed from 320 x 240 to 240 x 240; the recording ends here") != std::string::npos)
        << errors;
    const Movie m = readMovie(dir_ + "/out/movie.y4m");
    EXPECT_TRUE(m.whole);
    EXPECT_GE(m.frames.size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(dir_ + "/out/movie.y4m.partial"));
}

}  // namespace
}  // namespace qrl
