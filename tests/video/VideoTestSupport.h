// Shared set-up of the video tests: a simulated display server and renderer
// set installed with a private notification centre, simulated time, system
// facts of a chosen release, and the log captured at every level.
#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/QRLAbstractLogger.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/system/SystemFacts.h"
#include "qrl/system/sim/SystemFactsSim.h"
#include "qrl/video/VideoPlatform.h"
#include "qrl/video/sim/DisplayServerSim.h"
#include "qrl/video/sim/GraphicsDevicesSim.h"
#include "support/TestSupport.h"

namespace qrl::test {

// Keeps the text and flag of every message while attached.
class LogCapture : public QRLAbstractLogger {
public:
    LogCapture() : QRLAbstractLogger("video.test.capture") {}
    void logMessage(const QRLLogMessage& m) override {
        std::lock_guard lock(mutex_);
        lines_.push_back({m.logFlag(), m.logMsg()});
    }
    struct Line {
        int32_t flag;
        std::string text;
    };
    // Flushes the engine first, so that every statement made so far is here.
    std::vector<Line> lines() {
        QRLLog::flushLog();
        std::lock_guard lock(mutex_);
        return lines_;
    }
    int count(const std::string& text, int32_t flag = 0) {
        return static_cast<int>(std::ranges::count_if(
            lines(), [&](const Line& l) { return l.text == text && (flag == 0 || l.flag == flag); }));
    }
    int countStartingWith(const std::string& prefix) {
        return static_cast<int>(std::ranges::count_if(lines(), [&](const Line& l) { return l.text.starts_with(prefix); }));
    }
    void clear() {
        QRLLog::flushLog();
        std::lock_guard lock(mutex_);
        lines_.clear();
    }

private:
    std::mutex mutex_;
    std::vector<Line> lines_;
};

inline SimDisplay simDisplay(CGDirectDisplayID id, NSRect frame, float scale = 1.0f, uint32_t mask = 1) {
    return SimDisplay{.id = id, .frame = frame, .scale = scale, .openGLMask = mask};
}

inline SimRenderer simRenderer(int32_t id, uint32_t mask, bool accelerated = true, std::string card = "Sim Card") {
    return SimRenderer{.rendererID = id, .displayMask = mask, .accelerated = accelerated, .cardName = std::move(card)};
}

// Installs the simulated platform for one test. The release defaults to a
// Linux-like "12", which takes the pre-10.7 branches.
class SimVideoFixture : public ::testing::Test {
protected:
    SimVideoFixture()
        : displays_(std::make_shared<DisplayServerSim>(center_)),
          renderers_(std::make_shared<GraphicsDevicesSim>()),
          facts_(std::make_shared<SystemFactsSim>(std::string("12"))),
          platform_(displays_, renderers_),
          scopedFacts_(facts_),
          log_(std::make_shared<LogCapture>()) {
        qrl_loggingEnabled = true;
        sharedLogLevel = kLogLevelVerbose;
        additionalApplicationLogLevel = savedDomains_ | kLoggingDebug;
        QRLLog::addLogger(log_);
    }
    ~SimVideoFixture() override {
        QRLLog::flushLog();
        QRLLog::removeLogger(log_);
        QRLLog::flushLog();
        qrl_loggingEnabled = savedEnabled_;
        sharedLogLevel = savedShared_;
        additionalApplicationLogLevel = savedDomains_;
    }

    NotificationCenter center_;
    ScopedSimulatedClock clock_;
    std::shared_ptr<DisplayServerSim> displays_;
    std::shared_ptr<GraphicsDevicesSim> renderers_;
    std::shared_ptr<SystemFactsSim> facts_;
    ScopedVideoPlatform platform_;
    ScopedSystemFacts scopedFacts_;
    std::shared_ptr<LogCapture> log_;

private:
    // What the test changes, put back at its end.
    bool savedEnabled_ = qrl_loggingEnabled.load();
    int32_t savedShared_ = sharedLogLevel.load();
    uint32_t savedDomains_ = additionalApplicationLogLevel.load();
};

// Runs `f`, expecting qrl::Exception with exactly this name and reason.
template <class F>
void expectRaise(F&& f, const std::string& name, const std::string& reason) {
    try {
        f();
        ADD_FAILURE() << "expected " << name << ": " << reason;
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), name);
        EXPECT_EQ(e.reason(), reason);
    }
}

}  // namespace qrl::test
