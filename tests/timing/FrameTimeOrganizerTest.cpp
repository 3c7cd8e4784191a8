#include "qrl/timing/FrameTimeOrganizer.h"

#include <gtest/gtest.h>

#include <cmath>
#include <optional>
#include <random>
#include <string>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/logging/LogLevels.h"
#include "logging/CapturingLogger.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

struct TestFrame {
    uint64_t stamp = 0;
    uint64_t capture = 0;
    uint64_t timeStamp() const { return stamp; }
    uint64_t captureTime() const { return capture; }
};

// Clock ticks for a movie time at 15 fps on a 24 MHz clock: 16,000 ticks a unit.
constexpr uint64_t kTicksPerUnit = 16'000;
uint64_t ticksAt(int64_t movieUnits) { return static_cast<uint64_t>(15'000 + movieUnits) * kTicksPerUnit; }

struct Placement {
    bool answer;
    int64_t start;
    uint32_t steps;
    uint32_t length;
};

bool feed(FrameTimeOrganizer& o, const TestFrame& f, std::string_view* reason = nullptr) {
    return o.receiveFrame(&f, reason);
}

Placement place(FrameTimeOrganizer& o, const TestFrame& f, std::string_view* reason = nullptr) {
    const bool answer = o.receiveFrame(&f, reason);
    return {answer, o.nextFrameTime(), o.numberOfFrameDurationSteps(), o.frameDurationTakingIntoAccountSteps()};
}

TEST(FrameTimeOrganizer, RateTable) {
    test::ScopedSimulatedClock sim;
    struct Row {
        float fps;
        uint64_t timeScale, frameDuration;
    } rows[] = {{15.0f, 1500, 100}, {23.976f, 23976, 1000}, {23.98f, 23976, 1000}, {25.0f, 2500, 100},
                {29.97f, 30000, 1001}, {30.0f, 3000, 100}, {59.94f, 5993, 99}, {60.0f, 6000, 100}};
    for (const Row& row : rows) {
        FrameTimeOrganizer o(row.fps);
        EXPECT_EQ(o.timeScale(), row.timeScale) << row.fps;
        EXPECT_EQ(o.frameDuration(), row.frameDuration) << row.fps;
        EXPECT_EQ(o.qa1447frameDuration(), row.frameDuration) << row.fps;
        EXPECT_EQ(o.fps(), static_cast<double>(row.fps));
        // Every frame recomputes the duration; the special rates hold.
        for (int i = 0; i < 5; ++i) feed(o, TestFrame{sim.clock().now() + i * 1000u, 0});
        EXPECT_EQ(o.timeScale(), row.timeScale) << row.fps;
        EXPECT_EQ(o.qa1447frameDuration(), row.frameDuration) << row.fps;
    }
}

TEST(FrameTimeOrganizer, RefusedRates) {
    test::ScopedSimulatedClock sim;
    try {
        FrameTimeOrganizer tooSlow(0.5f);  // window of 2
        FAIL();
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "MovingAvg");
    }
    EXPECT_NO_THROW(FrameTimeOrganizer{0.6f});
    EXPECT_THROW(FrameTimeOrganizer{-30.0f}, Exception);
    EXPECT_THROW(FrameTimeOrganizer{NAN}, Exception);
    EXPECT_THROW(FrameTimeOrganizer{INFINITY}, Exception);
}

TEST(FrameTimeOrganizer, QuantizingWorkedExampleAtFifteenFps) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer o(15.0f);
    struct Row {
        int64_t relative;
        bool answer;
        int64_t start;
        uint32_t steps;
        uint32_t length;
    } rows[] = {{0, true, 0, 1, 100},   {105, true, 100, 1, 100}, {150, true, 200, 1, 100}, {165, false, 200, 0, 0},
                {600, true, 300, 4, 400}, {640, false, 600, 0, 0}, {700, true, 700, 1, 100}};
    int frame = 1;
    for (const Row& row : rows) {
        std::string_view reason = "untouched";
        const Placement p = place(o, TestFrame{ticksAt(row.relative), 0}, &reason);
        EXPECT_EQ(p.answer, row.answer) << "frame " << frame;
        EXPECT_EQ(p.start, row.start) << "frame " << frame;
        EXPECT_EQ(p.steps, row.steps) << "frame " << frame;
        EXPECT_EQ(p.length, row.length) << "frame " << frame;
        EXPECT_EQ(reason, "untouched") << "quantized refusals give no reason";
        ++frame;
    }
    EXPECT_EQ(o.timeScale(), 1500u);
}

TEST(FrameTimeOrganizer, RelaxedWorkedExampleAtFifteenFps) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer o(15.0f);
    o.setQuantizingEnabled(false);
    std::string_view reason;
    Placement p = place(o, TestFrame{ticksAt(0), 0}, &reason);
    EXPECT_TRUE(p.answer);
    EXPECT_EQ(p.start, 0);
    EXPECT_EQ(p.length, 100u);
    p = place(o, TestFrame{ticksAt(105), 0}, &reason);
    EXPECT_TRUE(p.answer);
    EXPECT_EQ(p.start, 100);
    EXPECT_EQ(o.frameDuration(), 5u);
    p = place(o, TestFrame{ticksAt(103), 0}, &reason);
    EXPECT_FALSE(p.answer);
    EXPECT_EQ(reason, "Frame landed between previous frame and it's duration");
    EXPECT_EQ(o.nextFrameTime(), 105);
    p = place(o, TestFrame{ticksAt(90), 0}, &reason);
    EXPECT_FALSE(p.answer);
    EXPECT_EQ(reason, "Frame landed before the previous frames start time");
    p = place(o, TestFrame{ticksAt(200), 0}, &reason);
    EXPECT_TRUE(p.answer);
    EXPECT_EQ(p.start, 105);
    EXPECT_EQ(o.frameDuration(), 95u);
    EXPECT_EQ(p.length, 95u);
}

TEST(FrameTimeOrganizer, ThresholdIsClampedToTheUnitRange) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer o(15.0f);
    o.setQuantizingThreshold(1.5f);
    EXPECT_EQ(o.quantizingThreshold(), 1.0f);
    o.setQuantizingThreshold(-1.0f);
    EXPECT_EQ(o.quantizingThreshold(), 0.0f);
    o.setQuantizingThreshold(NAN);
    EXPECT_EQ(o.quantizingThreshold(), 0.0f);
}

TEST(FrameTimeOrganizer, RecordingStartAfterTheFirstFrameIsIgnoredWithOneError) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    auto capture = std::make_shared<test::CapturingLogger>();
    QRLLog::addLogger(capture);
    FrameTimeOrganizer o(15.0f);
    o.setVideoRecordingStartedAt(ticksAt(500));
    EXPECT_TRUE(place(o, TestFrame{ticksAt(0), 0}).answer);
    EXPECT_TRUE(place(o, TestFrame{ticksAt(100), 0}).answer);
    EXPECT_EQ(o.nextFrameTime(), 100);  // the first frame became the zero point
    QRLLog::flushLog();
    QRLLog::removeLogger(capture);
    const auto logged = capture->messages();
    ASSERT_EQ(logged.size(), 1u);
    EXPECT_EQ(logged[0].message, "Organizer videoRecordingStartedAt set to be after the first frame. Ignored.");
    EXPECT_EQ(logged[0].flag, kLogFlagError);
    EXPECT_EQ(logged[0].context, kLogContextApplication);
}

TEST(FrameTimeOrganizer, NullFramesAndPrerollChangeNothing) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer o(15.0f);
    std::string_view reason;
    EXPECT_FALSE(o.receiveFrame(static_cast<const TestFrame*>(nullptr), &reason));
    EXPECT_EQ(reason, "Frame is nil");
    EXPECT_FALSE(o.receiveFrame(std::shared_ptr<TestFrame>(), nullptr));

    o.setPrerolling(true);
    reason = "kept";
    EXPECT_FALSE(feed(o, TestFrame{ticksAt(0), 0}, &reason));
    EXPECT_EQ(reason, "kept");
    o.setPrerolling(false);
    // The zero point is the first frame after preroll.
    const Placement p = place(o, TestFrame{ticksAt(1000), 0});
    EXPECT_TRUE(p.answer);
    EXPECT_EQ(p.start, 0);
    EXPECT_EQ(p.steps, 1u);
}

TEST(FrameTimeOrganizer, CaptureTimesFeedTheAverageAndShiftFramesForward) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer o(15.0f);
    MovingAverage& avg = o.timeToCaptureTimeAvgDifferenceInMovieTimeScale();
    feed(o, TestFrame{ticksAt(0), 0});
    EXPECT_EQ(avg.average(), 0.0);  // capture time 0 adds nothing
    feed(o, TestFrame{ticksAt(100), ticksAt(70)});
    EXPECT_DOUBLE_EQ(avg.average(), 30.0);
    EXPECT_EQ(o.differenceBetweenCaptureAndTimestamp(TestFrame{ticksAt(100), ticksAt(70)}), 30);
    EXPECT_EQ(o.differenceBetweenCaptureAndTimestamp(TestFrame{ticksAt(100), 0}), 0);

    // With adjustment the difference is added: 130 + 30 lands on 200, not 100.
    FrameTimeOrganizer adj(15.0f);
    adj.setAdjustForCaptureTimeEnabled(true);
    feed(adj, TestFrame{ticksAt(0), 0});
    const Placement p = place(adj, TestFrame{ticksAt(130), ticksAt(100)});
    EXPECT_TRUE(p.answer);
    EXPECT_EQ(p.start, 100);
    EXPECT_EQ(p.steps, 2u);
}

TEST(FrameTimeOrganizer, FirstFrameBeforeTimeZero) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    // A capture time later than the stamp pulls the first frame before 0.
    for (bool quantizing : {true, false}) {
        FrameTimeOrganizer near(15.0f), far(15.0f);
        for (auto* o : {&near, &far}) {
            o->setQuantizingEnabled(quantizing);
            o->setAdjustForCaptureTimeEnabled(true);
        }
        std::string_view reason = "untouched";
        EXPECT_TRUE(feed(near, TestFrame{ticksAt(0), ticksAt(40)}, &reason)) << quantizing;
        EXPECT_EQ(near.nextFrameTime(), 0);
        if (quantizing) EXPECT_EQ(near.numberOfFrameDurationSteps(), 1u);
        else EXPECT_EQ(near.frameDuration(), 60u);  // loses the 40 before time 0
        EXPECT_FALSE(feed(far, TestFrame{ticksAt(0), ticksAt(150)}, &reason)) << quantizing;
        EXPECT_EQ(reason, "untouched");
        EXPECT_EQ(far.nextFrameTime(), 0);
    }
}

TEST(FrameTimeOrganizer, RescaleSurvivesWeeksOfNanosecondUptime) {
    test::ScopedSimulatedClock sim(1e9, 1);
    FrameTimeOrganizer o(29.97f);
    std::mt19937_64 rng(1);
    for (int i = 0; i < 10'000; ++i) {
        const uint64_t ticks = rng() % (uint64_t{60} * 24 * 3600 * 1'000'000'000ULL);
        const auto exact = static_cast<int64_t>(static_cast<unsigned __int128>(ticks) * 30'000 / 1'000'000'000ULL);
        ASSERT_EQ(o.qrlUSecondsToTimescale(static_cast<int64_t>(ticks)), exact) << ticks;
        ASSERT_EQ(o.qrlUSecondsToTimescale(-static_cast<int64_t>(ticks)), -exact) << ticks;
    }
}

// ---- Generated arrival traces ---------------------------------------------

enum class Pattern { Steady, Bursts, Stalls, Identical };

std::vector<uint64_t> makeTrace(Pattern pattern, double fps, double speed, double frequency, uint64_t start,
                                std::mt19937_64& rng, int count) {
    std::vector<uint64_t> stamps;
    const double interval = frequency / (fps * speed);
    const double duration = frequency / fps;
    std::uniform_real_distribution<double> jitter(-0.3, 0.3);
    double t = static_cast<double>(start);
    for (int i = 0; i < count; ++i) {
        double next = t + interval * (1.0 + jitter(rng));
        switch (pattern) {
            case Pattern::Steady: break;
            case Pattern::Bursts:
                if (rng() % 10 == 0) next = t + rng() % 3;  // several frames at once
                break;
            case Pattern::Stalls:
                if (rng() % 15 == 0) next = t + duration * static_cast<double>(1 + rng() % 50);
                break;
            case Pattern::Identical:
                if (rng() % 4 == 0) next = t;
                break;
        }
        t = std::max(next, static_cast<double>(start));
        stamps.push_back(static_cast<uint64_t>(t));
    }
    return stamps;
}

TEST(FrameTimeOrganizer, GeneratedTracesKeepTheQuantizedTimeLineWhole) {
    const float rates[] = {15.0f, 23.976f, 29.97f, 30.0f, 59.94f, 60.0f};
    const double frequencies[] = {24'000'000.0, 1e9, 3'579'545.0};
    const double speeds[] = {0.5, 1.0, 2.0};
    const Pattern patterns[] = {Pattern::Steady, Pattern::Bursts, Pattern::Stalls, Pattern::Identical};
    std::mt19937_64 rng(2024);
    for (double freq : frequencies) {
        const uint64_t start = static_cast<uint64_t>(freq) * 3 * 24 * 3600 + 12'345;  // three days of uptime
        test::ScopedSimulatedClock sim(freq, start);
        for (float fps : rates)
            for (double speed : speeds)
                for (Pattern pattern : patterns) {
                    FrameTimeOrganizer o(fps);
                    const uint64_t T = o.timeScale();
                    const auto fd = static_cast<int64_t>(o.frameDuration());
                    const auto S = static_cast<uint64_t>(freq);
                    auto scaled = [&](uint64_t v) {
                        return static_cast<int64_t>(static_cast<unsigned __int128>(v) * T / S);
                    };
                    const auto stamps = makeTrace(pattern, fps, speed, freq, start, rng, 400);
                    std::optional<int64_t> end;  // end of the last kept frame
                    int kept = 0;
                    const std::string where = "fps " + std::to_string(fps) + " freq " + std::to_string(freq) +
                                              " speed " + std::to_string(speed) + " pattern " +
                                              std::to_string(static_cast<int>(pattern)) + " stamp ";
                    for (uint64_t stamp : stamps) {
                        const TestFrame frame{stamp, 0};
                        const int64_t relative = scaled(stamp) - scaled(stamps.front());
                        volatile float product = 0.5f * static_cast<float>(fd);
                        const float shifted = product + static_cast<float>(relative);
                        const int64_t q = static_cast<int64_t>(shifted) / fd * fd;
                        const bool answer = o.receiveFrame(&frame);
                        if (end) {
                            ASSERT_EQ(answer, q >= *end) << where << stamp;
                        } else {
                            ASSERT_TRUE(answer) << where << stamp;
                        }
                        if (!answer) continue;
                        ++kept;
                        const int64_t begin = o.nextFrameTime();
                        const auto length = static_cast<int64_t>(o.frameDurationTakingIntoAccountSteps());
                        ASSERT_EQ(begin, end.value_or(0)) << where << stamp;
                        ASSERT_EQ(begin % fd, 0) << where << stamp;
                        ASSERT_GT(length, 0) << where << stamp;
                        ASSERT_EQ(length % fd, 0) << where << stamp;
                        ASSERT_EQ(begin + length, q + fd) << where << stamp;
                        end = begin + length;
                    }
                    EXPECT_GT(kept, 0);
                    EXPECT_EQ(o.timeScale(), T);
                }
    }
}

TEST(FrameTimeOrganizer, ReceiveFrameAllocatesNothing) {
    test::ScopedSimulatedClock sim(24'000'000.0);
    FrameTimeOrganizer q(30.0f);
    FrameTimeOrganizer r(30.0f);
    r.setQuantizingEnabled(false);
    std::string_view reason;
    std::vector<TestFrame> frames;
    for (int i = 0; i < 5000; ++i) frames.push_back({ticksAt(i * 37 % 1000 + i * 30), i % 3 ? ticksAt(i * 30) : 0});
    const std::size_t before = test::allocationCount();
    for (const TestFrame& f : frames) {
        q.receiveFrame(&f, &reason);
        r.receiveFrame(&f, &reason);
    }
    EXPECT_EQ(test::allocationCount(), before);
}

}  // namespace
}  // namespace qrl
