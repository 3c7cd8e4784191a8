#include "qrl/timing/FrameTimeOrganizer.h"

#include <cmath>
#include <cstdio>
#include <string>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/timing/TimeUtilities.h"

namespace qrl {

namespace {

// Conversions and arithmetic that stay defined for any input: the organizer
// sees clock values from outside and must not hit undefined behaviour on a
// bad one. Wrapping matches what the 64-bit fields do on the platform.
int64_t wrapAdd(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) + static_cast<uint64_t>(b)); }
int64_t wrapSub(int64_t a, int64_t b) { return static_cast<int64_t>(static_cast<uint64_t>(a) - static_cast<uint64_t>(b)); }

int64_t truncToInt64(double v) {
    if (std::isnan(v)) return 0;
    if (v >= 9.2233720368547758e18) return INT64_MAX;
    if (v <= -9.2233720368547758e18) return INT64_MIN;
    return static_cast<int64_t>(v);
}

uint64_t truncToUInt64(double v) {
    if (!(v > 0.0)) return 0;
    if (v >= 18446744073709551615.0) return UINT64_MAX;
    return static_cast<uint64_t>(v);
}

int64_t floatToInt64(float v) { return truncToInt64(static_cast<double>(v)); }

// Integer rescale of `magnitude` ticks at `from` per second to `to` per
// second, truncated. Split into quotient and remainder so that no product
// overflows after days of uptime at nanosecond ticks; the result saturates
// when it cannot be represented.
uint64_t rescale(uint64_t magnitude, uint64_t from, uint64_t to) {
    const uint64_t whole = magnitude / from;
    const uint64_t rest = magnitude % from;
    uint64_t high = 0;
    if (__builtin_mul_overflow(whole, to, &high)) return UINT64_MAX;
    uint64_t restScaled = 0;
    uint64_t low = 0;
    if (!__builtin_mul_overflow(rest, to, &restScaled)) low = restScaled / from;
    else low = static_cast<uint64_t>(static_cast<unsigned __int128>(rest) * to / from);
    uint64_t sum = 0;
    if (__builtin_add_overflow(high, low, &sum)) return UINT64_MAX;
    return sum;
}

constexpr double kMaxFps = 100000.0;

}  // namespace

FrameTimeOrganizer::FrameTimeOrganizer(float fpsArgument) {
    const double wide = static_cast<double>(fpsArgument);
    if (!std::isfinite(wide) || wide > kMaxFps) {
        char reason[128];
        std::snprintf(reason, sizeof reason, "Invalid frame rate %g, must be a finite rate of at most %g", wide, kMaxFps);
        Exception::raise("FrameTimeOrganizer", reason);
    }
    prerolling_ = false;
    nextFrameTime_ = 0;
    quantizingThreshold_ = 0.5f;
    quantizingEnabled_ = true;
    fps_ = wide;
    adjustForCaptureTimeEnabled_ = false;
    nextFrameTimeMoved_ = false;
    numberOfFrameDurationSteps_ = 0;
    previousNumberOfSteps_ = 0;
    previousFrameDuration_ = 0;
    previousNextFrameTime_ = 0;
    durationsAreImportant_ = true;
    videoRecordingStartedAt_ = 0;
    useCaptureTimeOnly_ = false;
    timeToCaptureTimeAvgDifference_ = std::make_unique<MovingAverage>();
    // Below 0.6 fps the window is below 3 and setWindowSize raises.
    timeToCaptureTimeAvgDifference_->setWindowSize(static_cast<int32_t>(fps_ * 5.0));
    timeScale_ = truncToUInt64(fps_ * 100.0);
    // Movie times are rescaled from the clock's frequency: make sure it is known.
    if (QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed) == 0.0) qrl_useconds();
    resetFrameDuration();
}

void FrameTimeOrganizer::setQuantizingThreshold(float v) {
    quantizingThreshold_ = v > 1.0f ? 1.0f : (v > 0.0f ? v : 0.0f);
}

void FrameTimeOrganizer::resetFrameDuration() {
    frameDuration_ = truncToUInt64(static_cast<double>(timeScale_) / fps_);
    const double p = fps_ * 100.0;
    const float pf = static_cast<float>(p);
    const int64_t a = truncToInt64(p);
    // These tests keep their form: 29.97 arrives in single precision and only
    // the rounded pf catches it; 23.976 is caught by a; the comparison with
    // 2397.6 can never hold and 59.94 has no special case.
    if (static_cast<double>(pf) == 2397.6 || a == 2397 || a == 2398) {
        timeScale_ = 23976;
        frameDuration_ = 1000;
    } else if (pf == 2997.0f || a == 2997) {
        timeScale_ = 30000;
        frameDuration_ = 1001;
    }
    qa1447frameDuration_ = frameDuration_;
}

int64_t FrameTimeOrganizer::quantizeTime(int64_t time) const {
    if (frameDuration_ == 0) return 0;
    const double d = static_cast<double>(frameDuration_);
    double x = static_cast<double>(time) / d;
    x = time < 0 ? std::ceil(x) : std::floor(x);
    return truncToInt64(x * d);
}

int64_t FrameTimeOrganizer::qrlUSecondsToTimescale(int64_t clockValue) const {
    double clockScale = QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed);
    if (clockScale == 0.0) {
        qrl_useconds();
        clockScale = QRL_USECONDS_TIMESCALE.load(std::memory_order_relaxed);
    }
    const uint64_t from = truncToUInt64(clockScale);
    if (from == 0 || timeScale_ == 0) return 0;
    if (clockValue >= 0) {
        const uint64_t r = rescale(static_cast<uint64_t>(clockValue), from, timeScale_);
        return r > static_cast<uint64_t>(INT64_MAX) ? INT64_MAX : static_cast<int64_t>(r);
    }
    const uint64_t r = rescale(0 - static_cast<uint64_t>(clockValue), from, timeScale_);
    return r > static_cast<uint64_t>(INT64_MAX) ? INT64_MIN : -static_cast<int64_t>(r);
}

int64_t FrameTimeOrganizer::differenceBetweenCaptureAndTimestamp(uint64_t timeStamp, uint64_t captureTime) const {
    if (captureTime == 0) return 0;
    return wrapSub(qrlUSecondsToTimescale(static_cast<int64_t>(timeStamp)),
                   qrlUSecondsToTimescale(static_cast<int64_t>(captureTime)));
}

float FrameTimeOrganizer::timeInSeconds(int64_t movieTime) const {
    return static_cast<float>(movieTime) / static_cast<float>(timeScale_);
}

bool FrameTimeOrganizer::receiveTimes(bool haveFrame, uint64_t timeStamp, uint64_t captureTime,
                                      std::string_view* reason) {
    if (!haveFrame) {
        if (reason) *reason = kFrameIsNilReason;
        return false;
    }
    nextFrameTimeMoved_ = false;
    numberOfFrameDurationSteps_ = 0;
    resetFrameDuration();
    if (frameDuration_ == 0) {
        char text[160];
        std::snprintf(text, sizeof text, "Frame duration is 0 (timeScale %llu, fps %g): no frame can be placed",
                      static_cast<unsigned long long>(timeScale_), fps_);
        Exception::raise("FrameTimeOrganizer", text);
    }
    if (prerolling_) return false;

    const uint64_t t = useCaptureTimeOnly_ ? captureTime : timeStamp;
    int64_t frameTime = qrlUSecondsToTimescale(static_cast<int64_t>(t));

    if (organizerFinishedPrerollingAt_ == 0) {
        if (videoRecordingStartedAt_ != 0) {
            const int64_t start = qrlUSecondsToTimescale(static_cast<int64_t>(videoRecordingStartedAt_));
            if (static_cast<uint64_t>(start) < static_cast<uint64_t>(frameTime)) {
                organizerFinishedPrerollingAt_ = static_cast<uint64_t>(start);
                differenceBetweenOrganizerStartAndFrameStart_ = wrapSub(frameTime, start);
            } else {
                organizerFinishedPrerollingAt_ = static_cast<uint64_t>(frameTime);
                differenceBetweenOrganizerStartAndFrameStart_ = 0;
                QRLAppLogError("Organizer videoRecordingStartedAt set to be after the first frame. Ignored.");
            }
        } else {
            organizerFinishedPrerollingAt_ = static_cast<uint64_t>(frameTime);
            differenceBetweenOrganizerStartAndFrameStart_ = 0;
        }
    }

    if (captureTime != 0) {
        const int64_t d = differenceBetweenCaptureAndTimestamp(timeStamp, captureTime);
        timeToCaptureTimeAvgDifference_->add(static_cast<double>(d));
        // Added, not subtracted.
        if (adjustForCaptureTimeEnabled_ && !useCaptureTimeOnly_) frameTime = wrapAdd(frameTime, d);
    }

    const int64_t relative = wrapSub(frameTime, static_cast<int64_t>(organizerFinishedPrerollingAt_));
    const bool accepted = quantizingEnabled_ ? receiveFrameAndQuantize(relative) : receiveFrameRelaxed(relative, reason);
    if (accepted) {
        previousNextFrameTime_ = nextFrameTime_;
        previousFrameDuration_ = frameDuration_;
        previousNumberOfSteps_ = numberOfFrameDurationSteps_;
        if (numberOfFrameDurationSteps_ == 0) platformLog("ErroR");
    }
    return accepted;
}

bool FrameTimeOrganizer::receiveFrameAndQuantize(int64_t time) {
    // Single precision on purpose; -ffp-contract=off keeps this a separate
    // multiply and add, as the time line was designed with.
    const float shifted = quantizingThreshold_ * static_cast<float>(frameDuration_) + static_cast<float>(time);
    const int64_t q = quantizeTime(floatToInt64(shifted));
    nextFrameTime_ = q;

    if (!haveProcessedFirstFrame_) {
        setFrameDurationToSingleFrame();
        if (adjustFrameDurationToTakeIntoAccountCaptureTimeDifference()) {
            nextFrameTimeMoved_ = true;
            haveProcessedFirstFrame_ = true;
            return true;
        }
        return false;
    }

    if (previousNumberOfSteps_ == 0) previousNumberOfSteps_ = 1;
    const int64_t end = static_cast<int64_t>(previousNumberOfSteps_ * previousFrameDuration_ +
                                             static_cast<uint64_t>(previousNextFrameTime_));
    if (nextFrameTime_ < end) return false;  // inside the last frame: dropped, no reason

    setFrameDurationToSingleFrame();
    nextFrameTime_ = end;
    const int64_t target = wrapAdd(static_cast<int64_t>(frameDuration_), q);
    if (end < target) {
        // Whole durations from the end of the last frame until one duration
        // past this frame's grid point.
        const uint64_t gap = static_cast<uint64_t>(target) - static_cast<uint64_t>(end);
        const uint64_t steps = (gap + frameDuration_ - 1) / frameDuration_;
        numberOfFrameDurationSteps_ += static_cast<uint32_t>(steps);
    }
    nextFrameTimeMoved_ = numberOfFrameDurationSteps_ != 0;
    return true;
}

bool FrameTimeOrganizer::adjustFrameDurationToTakeIntoAccountCaptureTimeDifference() {
    if (quantizingEnabled_) {
        if (nextFrameTime_ < 0) {
            nextFrameTime_ = 0;
            numberOfFrameDurationSteps_ = 0;
            return false;
        }
        if (nextFrameTime_ == 0) {
            numberOfFrameDurationSteps_ = 1;
            return true;
        }
        // One step per duration until the start would fall below zero.
        const uint64_t steps = static_cast<uint64_t>(nextFrameTime_) / frameDuration_ + 1;
        numberOfFrameDurationSteps_ += static_cast<uint32_t>(steps);
        nextFrameTime_ = 0;
        return true;
    }

    if (nextFrameTime_ < 0) {
        const int64_t n = nextFrameTime_;
        nextFrameTime_ = 0;
        if (frameDuration_ < 0 - static_cast<uint64_t>(n)) return false;
        frameDuration_ = frameDuration_ + static_cast<uint64_t>(n);  // loses the part before time 0
    }
    if (nextFrameTime_ <= 0) return true;
    frameDuration_ = frameDuration_ + static_cast<uint64_t>(nextFrameTime_);
    nextFrameTime_ = 0;
    return true;
}

bool FrameTimeOrganizer::receiveFrameRelaxed(int64_t time, std::string_view* reason) {
    if (!haveProcessedFirstFrame_) {
        setFrameDurationToSingleFrame();
        numberOfFrameDurationSteps_ = 1;
        nextFrameTimeMoved_ = true;
        nextFrameTime_ = time;
        if (adjustFrameDurationToTakeIntoAccountCaptureTimeDifference()) {
            haveProcessedFirstFrame_ = true;
            return true;
        }
        return false;
    }
    if (!(previousNextFrameTime_ < time)) {
        if (reason) *reason = kFrameBeforePreviousStartReason;
        return false;
    }
    if (durationsAreImportant_) {
        nextFrameTime_ = wrapAdd(previousNextFrameTime_, static_cast<int64_t>(previousFrameDuration_));
        if (!(nextFrameTime_ < time)) {
            if (reason) *reason = kFrameInsidePreviousDurationReason;
            return false;
        }
        frameDuration_ = static_cast<uint64_t>(time) - static_cast<uint64_t>(nextFrameTime_);
    } else {
        nextFrameTime_ = time;
    }
    nextFrameTimeMoved_ = true;
    numberOfFrameDurationSteps_ = 1;
    return true;
}

}  // namespace qrl
