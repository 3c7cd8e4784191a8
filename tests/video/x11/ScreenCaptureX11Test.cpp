// Screen capture from a private Xvfb, and qrl-record --platform x11 end to
// end: a test client paints known colours, the capture and the recorded
// movie must show them, and a display that changes size mid-recording ends
// the recording with a complete movie.
#include "qrl/video/x11/ScreenCaptureX11.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

#include "qrl/foundation/Format.h"
#include "support/TemporaryFolder.h"
#include "video/x11/X11TestSupport.h"

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
        QRL_REQUIRE_SERVER(xvfb_);
        ASSERT_TRUE(x_.loaded()) << "libX11/libXrandr could not be loaded";
        client_ = std::make_unique<test::XClient>(x_, xvfb_.address());
        ASSERT_TRUE(client_->open());
        // A monitor of its own (with no output, so that it can be redefined), primary.
        client_->setMonitor("REC", 0, 0, 320, 240, true);
        for (const Quadrant& q : kQuadrants) client_->window(q.x, q.y, 160, 120, true, static_cast<long>(q.rgb));
    }

    test::PrivateServer xvfb_ = test::PrivateServer::xvfb("320x240x24");
    test::XLib x_;
    std::unique_ptr<test::XClient> client_;
};

TEST_F(ScreenCaptureX11Test, CapturesTheMonitorsPixelsAndNoticesChanges) {
    std::string why;
    auto capture = ScreenCaptureX11::open(xvfb_.address().c_str(), static_cast<CGDirectDisplayID>(client_->atom("REC")), &why);
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

    auto missing = ScreenCaptureX11::open(xvfb_.address().c_str(), 12345, &why);
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
        QRL_SKIP_UNLESS(::access(program_.c_str(), X_OK) == 0, "qrl-record is not built at " + program_);
    }
    // qrl-record on the private display, its standard error read as output.
    std::unique_ptr<test::Process> record(const char* seconds) {
        return std::make_unique<test::Process>(
            std::vector<std::string>{program_, "--platform", "x11", "--seconds", seconds, "--fps", "10", "--out",
                                     out_.file("out")},
            test::Process::Options{.environment = {"QRL_*", "DISPLAY=" + xvfb_.address()},
                                   .pipeOutput = true,
                                   .errorsToOutput = true});
    }
    static std::string said(const test::Process& p) { return testing::PrintToString(p.lines()); }
    std::string program_;
    test::TemporaryFolder out_{"qrl-record-x11"};
};

TEST_F(RecordX11Test, MovieShowsWhatWasOnTheScreen) {
    auto r = record("2");
    ASSERT_TRUE(r->started()) << r->why();
    ASSERT_EQ(r->wait(test::after(60)), 0) << said(*r);
    const Movie m = readMovie(out_.file("out/movie.y4m"));
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
    auto r = record("60");
    ASSERT_TRUE(r->started()) << r->why();
    // Change the display once the recording is under way.
    const auto arrived = [](const std::string& l) { return l.find("arrived ") != std::string::npos; };
    ASSERT_TRUE(r->waitForLine(arrived, test::after(30))) << said(*r);
    client_->deleteMonitor("REC");
    client_->setMonitor("REC", 0, 0, 240, 240, true);
    ASSERT_EQ(r->wait(test::after(30)), 0) << said(*r);
    // Seen between the two steps or after both: gone, or changed.
    const std::string errors = said(*r);
    EXPECT_TRUE(errors.find(" is gone; the recording ends here") != std::string::npos ||
                errors.find("changed from 320 x 240 to 240 x 240; the recording ends here") != std::string::npos)
        << errors;
    const Movie m = readMovie(out_.file("out/movie.y4m"));
    EXPECT_TRUE(m.whole);
    EXPECT_GE(m.frames.size(), 1u);
    EXPECT_FALSE(std::filesystem::exists(out_.file("out/movie.y4m.partial")));
}

}  // namespace
}  // namespace qrl
