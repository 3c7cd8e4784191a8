#include "qrl/logging/LogLevels.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "logging/CapturingLogger.h"

namespace qrl {
namespace {

// Captures what passes the guards and puts every switch back afterwards.
class LogGuards : public ::testing::Test {
protected:
    void SetUp() override {
        saved_ = {qrl_loggingEnabled.load(), sharedLogLevel.load(), uploaderLogLevel.load(),
                  applicationLogLevel.load(), additionalApplicationLogLevel.load()};
        QRLLog::addLogger(logger_);
    }
    void TearDown() override {
        QRLLog::removeLogger(logger_);
        QRLLog::flushLog();
        qrl_loggingEnabled = saved_.enabled;
        sharedLogLevel = saved_.shared;
        uploaderLogLevel = saved_.uploader;
        applicationLogLevel = saved_.application;
        additionalApplicationLogLevel = saved_.domains;
    }
    // Everything delivered so far.
    std::vector<test::CapturedMessage> logged() {
        QRLLog::flushLog();
        return logger_->messages();
    }

private:
    struct {
        bool enabled;
        int32_t shared, uploader, application;
        uint32_t domains;
    } saved_{};
    std::shared_ptr<test::CapturingLogger> logger_ = std::make_shared<test::CapturingLogger>();
};

int evaluations = 0;
int counted() { return ++evaluations; }

// Each statement under one setting of the switches: whether it passes, and
// with which level and context. A statement that does not pass must not
// evaluate its arguments.
TEST_F(LogGuards, EachFormPassesOnlyWhatItsLevelContextAndDomainAllow) {
    struct Row {
        const char* name;
        bool enabled;
        int32_t shared, uploader, application;
        uint32_t domains;
        std::function<void()> statement;
        int32_t flag, context;  // flag 0: nothing passes; a message carries its context's level
    };
    const int32_t I = kLogLevelInfo, W = kLogLevelWarning, V = kLogLevelVerbose, O = kLogLevelOff;
    const int32_t S = kLogContextShared, U = kLogContextUploader, A = kLogContextApplication;
    const Row rows[] = {
        {"verbose below info", true, I, O, O, 0, [] { QRLLogVerbose("%d", counted()); }, 0, 0},
        {"info at info", true, I, O, O, 0, [] { QRLLogInfo("%d", counted()); }, kLogFlagInfo, S},
        {"shared off", true, O, W, V, 0, [] { QRLLogError("%d", counted()); }, 0, 0},
        {"uploader warn", true, O, W, V, 0, [] { QRLUploaderLogWarn("%d", counted()); }, kLogFlagWarning, U},
        {"app verbose", true, O, W, V, 0, [] { QRLAppLogVerbose("%d", counted()); }, kLogFlagVerbose, A},
        {"switch off: shared", false, V, V, V, ~0u, [] { QRLLogError("%d", counted()); }, 0, 0},
        {"switch off: app domain", false, V, V, V, ~0u,
         [] { QRLAppDomainLogError(kLoggingOpenGL, "%d", counted()); }, 0, 0},
        {"domain bit clear", true, W, O, O, 0, [] { QRLDomainLogWarn(kLoggingAudio, "%d", counted()); }, 0, 0},
        // The domain itself is not passed on: the shared context.
        {"domain bit set", true, W, O, O, kLoggingAudio, [] { QRLDomainLogWarn(kLoggingAudio, "%d", counted()); },
         kLogFlagWarning, S},
        {"domain flag missing", true, W, O, O, kLoggingAudio,
         [] { QRLDomainLogInfo(kLoggingAudio, "%d", counted()); }, 0, 0},
        // The mask ends at bit 25: 0x2000000 is the first bit outside it.
        {"bit 25", true, O, O, V, ~0u, [] { QRLAppDomainLogInfo(0x2000000u, "%d", counted()); }, 0, 0},
        {"bit 24", true, O, O, V, ~0u, [] { QRLAppDomainLogInfo(0x1000000u, "%d", counted()); }, kLogFlagInfo, A},
        {"one bit inside", true, O, O, V, ~0u, [] { QRLAppDomainLogInfo(0x3000000u, "%d", counted()); }, kLogFlagInfo, A},
    };
    size_t passed = 0;
    for (const Row& row : rows) {
        SCOPED_TRACE(row.name);
        qrl_loggingEnabled = row.enabled;
        sharedLogLevel = row.shared;
        uploaderLogLevel = row.uploader;
        applicationLogLevel = row.application;
        additionalApplicationLogLevel = row.domains;
        evaluations = 0;
        row.statement();
        EXPECT_EQ(evaluations, row.flag ? 1 : 0);
        const auto seen = logged();
        ASSERT_EQ(seen.size(), passed + (row.flag ? 1 : 0));
        if (!row.flag) continue;
        const auto& m = seen[passed++];
        EXPECT_EQ(m.message, "1");
        EXPECT_EQ(m.level, row.context == S ? row.shared : row.context == U ? row.uploader : row.application);
        EXPECT_EQ(m.flag, row.flag);
        EXPECT_EQ(m.context, row.context);
    }
}

}  // namespace
}  // namespace qrl
