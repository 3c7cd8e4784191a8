// FrameTimeOrganizer: places frames that arrive at irregular moments on a
// movie's regular time line. For each frame it answers whether the frame is
// kept and, when it is, where it starts (nextFrameTime) and how long it lasts
// (frameDurationTakingIntoAccountSteps), in units of timeScale per second.
// No lock: the owner serialises calls. receiveFrame allocates nothing.
#pragma once

#include <concepts>
#include <cstdint>
#include <memory>
#include <string_view>

#include "qrl/timing/MovingAverage.h"

namespace qrl {

// What the organizer needs of a frame: the clock value at which it counts,
// and its capture moment (0 when unknown), both in ticks of qrl_useconds.
template <class F>
concept TimedFrame = requires(const F& frame) {
    { frame.timeStamp() } -> std::convertible_to<uint64_t>;
    { frame.captureTime() } -> std::convertible_to<uint64_t>;
};

// Reasons given for refused frames.
inline constexpr std::string_view kFrameIsNilReason = "Frame is nil";
inline constexpr std::string_view kFrameBeforePreviousStartReason = "Frame landed before the previous frames start time";
inline constexpr std::string_view kFrameInsidePreviousDurationReason = "Frame landed between previous frame and it's duration";

class FrameTimeOrganizer {
public:
    // fps arrives in single precision, as the recording settings hold it.
    // An fps below 0.6 gives a moving-average window below 3 and raises
    // qrl::Exception "MovingAvg"; a rate that is not a positive finite
    // number raises qrl::Exception "FrameTimeOrganizer".
    explicit FrameTimeOrganizer(float fps);
    FrameTimeOrganizer() = delete;  // only the rate makes an organizer
    FrameTimeOrganizer(const FrameTimeOrganizer&) = delete;
    FrameTimeOrganizer& operator=(const FrameTimeOrganizer&) = delete;

    // Decides one frame. A null frame is refused with kFrameIsNilReason.
    // `reason`, when given, receives a static text for refusals that have one
    // and is left alone otherwise.
    template <TimedFrame F>
    bool receiveFrame(const F* frame, std::string_view* reason = nullptr) {
        if (frame == nullptr) return receiveTimes(false, 0, 0, reason);
        return receiveTimes(true, static_cast<uint64_t>(frame->timeStamp()),
                            static_cast<uint64_t>(frame->captureTime()), reason);
    }
    template <TimedFrame F>
    bool receiveFrame(const std::shared_ptr<F>& frame, std::string_view* reason = nullptr) {
        return receiveFrame(frame.get(), reason);
    }

    void resetFrameDuration();
    void setFrameDurationToSingleFrame() { frameDuration_ = qa1447frameDuration_; }
    int64_t quantizeTime(int64_t time) const;
    int64_t qrlUSecondsToTimescale(int64_t clockValue) const;
    template <TimedFrame F>
    int64_t differenceBetweenCaptureAndTimestamp(const F& frame) const {
        return differenceBetweenCaptureAndTimestamp(static_cast<uint64_t>(frame.timeStamp()),
                                                    static_cast<uint64_t>(frame.captureTime()));
    }
    int64_t differenceBetweenCaptureAndTimestamp(uint64_t timeStamp, uint64_t captureTime) const;
    float timeInSeconds(int64_t movieTime) const;
    uint32_t frameDurationTakingIntoAccountSteps() const {
        return static_cast<uint32_t>(frameDuration_ * numberOfFrameDurationSteps_);
    }

    // Properties. Setters are plain writes that recompute nothing, except
    // that the threshold is clamped to 0.0...1.0 (NaN counts as 0.0).
    bool prerolling() const { return prerolling_; }
    void setPrerolling(bool v) { prerolling_ = v; }
    bool quantizingEnabled() const { return quantizingEnabled_; }
    void setQuantizingEnabled(bool v) { quantizingEnabled_ = v; }
    bool adjustForCaptureTimeEnabled() const { return adjustForCaptureTimeEnabled_; }
    void setAdjustForCaptureTimeEnabled(bool v) { adjustForCaptureTimeEnabled_ = v; }
    bool useCaptureTimeOnly() const { return useCaptureTimeOnly_; }
    void setUseCaptureTimeOnly(bool v) { useCaptureTimeOnly_ = v; }
    float quantizingThreshold() const { return quantizingThreshold_; }
    void setQuantizingThreshold(float v);
    bool durationsAreImportant() const { return durationsAreImportant_; }
    void setDurationsAreImportant(bool v) { durationsAreImportant_ = v; }
    bool nextFrameTimeMoved() const { return nextFrameTimeMoved_; }
    void setNextFrameTimeMoved(bool v) { nextFrameTimeMoved_ = v; }
    MovingAverage& timeToCaptureTimeAvgDifferenceInMovieTimeScale() { return *timeToCaptureTimeAvgDifference_; }
    double fps() const { return fps_; }
    void setFps(double v) { fps_ = v; }
    uint64_t frameDuration() const { return frameDuration_; }
    void setFrameDuration(uint64_t v) { frameDuration_ = v; }
    uint64_t qa1447frameDuration() const { return qa1447frameDuration_; }
    void setQa1447frameDuration(uint64_t v) { qa1447frameDuration_ = v; }
    uint64_t timeScale() const { return timeScale_; }
    void setTimeScale(uint64_t v) { timeScale_ = v; }
    int64_t nextFrameTime() const { return nextFrameTime_; }
    void setNextFrameTime(int64_t v) { nextFrameTime_ = v; }
    uint64_t videoRecordingStartedAt() const { return videoRecordingStartedAt_; }
    void setVideoRecordingStartedAt(uint64_t v) { videoRecordingStartedAt_ = v; }
    int64_t previousNextFrameTime() const { return previousNextFrameTime_; }
    void setPreviousNextFrameTime(int64_t v) { previousNextFrameTime_ = v; }
    uint64_t previousFrameDuration() const { return previousFrameDuration_; }
    void setPreviousFrameDuration(uint64_t v) { previousFrameDuration_ = v; }
    uint64_t previousNumberOfSteps() const { return previousNumberOfSteps_; }
    void setPreviousNumberOfSteps(uint64_t v) { previousNumberOfSteps_ = v; }
    uint32_t numberOfFrameDurationSteps() const { return numberOfFrameDurationSteps_; }
    void setNumberOfFrameDurationSteps(uint32_t v) { numberOfFrameDurationSteps_ = v; }

private:
    bool receiveTimes(bool haveFrame, uint64_t timeStamp, uint64_t captureTime, std::string_view* reason);
    bool receiveFrameAndQuantize(int64_t time);
    bool receiveFrameRelaxed(int64_t time, std::string_view* reason);
    bool adjustFrameDurationToTakeIntoAccountCaptureTimeDifference();

    bool prerolling_ = false;
    bool quantizingEnabled_ = true;
    bool adjustForCaptureTimeEnabled_ = false;
    bool useCaptureTimeOnly_ = false;
    float quantizingThreshold_ = 0.5f;
    bool durationsAreImportant_ = true;
    bool haveProcessedFirstFrame_ = false;
    bool nextFrameTimeMoved_ = false;
    std::unique_ptr<MovingAverage> timeToCaptureTimeAvgDifference_;
    double fps_ = 0.0;
    uint64_t frameDuration_ = 0;
    uint64_t qa1447frameDuration_ = 0;
    uint64_t timeScale_ = 0;
    int64_t nextFrameTime_ = 0;
    uint64_t videoRecordingStartedAt_ = 0;
    uint64_t organizerFinishedPrerollingAt_ = 0;
    int64_t differenceBetweenOrganizerStartAndFrameStart_ = 0;  // written, read by nothing
    int64_t previousNextFrameTime_ = 0;
    uint64_t previousFrameDuration_ = 0;
    uint64_t previousNumberOfSteps_ = 0;
    uint32_t numberOfFrameDurationSteps_ = 0;
};

// Declared beside the organizer and deliberately empty: the rate estimates
// its name suggests are calculateFramesPerSecond and its weighted twin.
class FrameRateLimiter {};

}  // namespace qrl
