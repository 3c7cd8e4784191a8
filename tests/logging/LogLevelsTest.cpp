#include "qrl/logging/LogLevels.h"

#include <gtest/gtest.h>

#include <string>
#include <thread>
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

int counted(int& evaluations) { return ++evaluations; }

TEST_F(LogGuards, LoadValues) {
    // Values before any set-up runs, as exported.
    EXPECT_EQ(foundationLogLevel.load(), 7);
    EXPECT_EQ(legacyLogLevel.load(), 7);
    EXPECT_EQ(qtClientLogLevel.load(), 3);
    EXPECT_TRUE(qrl_autoSyncDefaults.load());
    EXPECT_FALSE(_qrl_enableClassAndMethodLogging.load());
}

TEST_F(LogGuards, PlainFormPassesOnlyFlagsOfTheLevel) {
    sharedLogLevel = kLogLevelInfo;
    int evaluations = 0;
    QRLLogVerbose("verbose %d", counted(evaluations));
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(logged().empty());
    QRLLogInfo("info %d", counted(evaluations));
    QRLLogWarn("warn %s", "w");
    QRLLogError("error");
    ASSERT_EQ(logged().size(), 3u);
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(logged()[0].message, "info 1");
    EXPECT_EQ(logged()[0].flag, kLogFlagInfo);
    EXPECT_EQ(logged()[0].level, kLogLevelInfo);
    EXPECT_EQ(logged()[0].context, kLogContextShared);
    EXPECT_NE(logged()[0].deliveredOnThread, std::this_thread::get_id());  // queued, not waited for
    EXPECT_EQ(std::string(logged()[0].function), "TestBody");
    EXPECT_NE(std::string(logged()[0].file).find("LogLevelsTest.cpp"), std::string::npos);
    EXPECT_GT(logged()[0].line, 0);
    EXPECT_EQ(logged()[1].message, "warn w");
    EXPECT_EQ(logged()[2].flag, kLogFlagError);
}

TEST_F(LogGuards, EachContextReadsItsOwnLevel) {
    sharedLogLevel = kLogLevelOff;
    uploaderLogLevel = kLogLevelWarning;
    applicationLogLevel = kLogLevelVerbose;
    QRLLogError("shared");
    QRLUploaderLogInfo("uploader info");
    QRLUploaderLogWarn("uploader warn");
    QRLAppLogVerbose("app verbose");
    ASSERT_EQ(logged().size(), 2u);
    EXPECT_EQ(logged()[0].context, kLogContextUploader);
    EXPECT_EQ(logged()[0].level, kLogLevelWarning);
    EXPECT_EQ(logged()[1].context, kLogContextApplication);
    EXPECT_EQ(logged()[1].level, kLogLevelVerbose);
}

TEST_F(LogGuards, MasterSwitchSilencesEveryForm) {
    qrl_loggingEnabled = false;
    sharedLogLevel = uploaderLogLevel = applicationLogLevel = kLogLevelVerbose;
    additionalApplicationLogLevel = 0xffffffffu;
    int evaluations = 0;
    QRLLogError("%d", counted(evaluations));
    QRLUploaderLogError("%d", counted(evaluations));
    QRLAppLogError("%d", counted(evaluations));
    QRLDomainLogError(kLoggingAudio, "%d", counted(evaluations));
    QRLAppDomainLogError(kLoggingOpenGL, "%d", counted(evaluations));
    EXPECT_EQ(evaluations, 0);
    EXPECT_TRUE(logged().empty());
}

TEST_F(LogGuards, DomainFormNeedsTheBitAndTheFlag) {
    sharedLogLevel = kLogLevelWarning;
    int evaluations = 0;
    QRLDomainLogWarn(kLoggingAudio, "audio %d", counted(evaluations));
    EXPECT_EQ(evaluations, 0);  // bit clear
    additionalApplicationLogLevel = kLoggingAudio;
    QRLDomainLogWarn(kLoggingAudio, "audio %d", counted(evaluations));
    QRLDomainLogInfo(kLoggingAudio, "audio info %d", counted(evaluations));  // flag missing
    QRLDomainLogWarn(kLoggingVideo, "video %d", counted(evaluations));       // other bit
    ASSERT_EQ(logged().size(), 1u);
    EXPECT_EQ(evaluations, 1);
    EXPECT_EQ(logged()[0].message, "audio 1");
    EXPECT_EQ(logged()[0].level, kLogLevelWarning);
    EXPECT_EQ(logged()[0].context, kLogContextShared);  // the domain itself is not passed on
}

TEST_F(LogGuards, DomainMaskIgnoresBitsAboveTwentyFive) {
    applicationLogLevel = kLogLevelVerbose;
    additionalApplicationLogLevel = 0xffffffffu;
    int evaluations = 0;
    QRLAppDomainLogInfo(0x2000000u, "%d", counted(evaluations));  // first bit outside the mask
    QRLAppDomainLogInfo(0x80000000u, "%d", counted(evaluations));
    EXPECT_EQ(evaluations, 0);
    QRLAppDomainLogInfo(0x1000000u, "%d", counted(evaluations));  // last bit inside
    QRLAppDomainLogInfo(0x3000000u, "%d", counted(evaluations));  // one bit inside is enough
    EXPECT_EQ(evaluations, 2);
    ASSERT_EQ(logged().size(), 2u);
    EXPECT_EQ(logged()[1].context, kLogContextApplication);
}

TEST_F(LogGuards, DomainConstantsKeepTheirGap) {
    const uint32_t all[] = {kLoggingAudio,       kLoggingVideo,         kLoggingDebug,         kLoggingCapture,
                            kLoggingCompositing, kLoggingCompression,   kLoggingDiskStage,     kLoggingDatabase,
                            kLoggingOpenGL,      kLoggingResume,        kLoggingQueueing,      kLoggingQuartzUpdates,
                            kLoggingHTTPDiscovery, kLoggingHTTPMessaging, kLoggingQRLAVFoundation};
    uint32_t seen = 0;
    for (uint32_t bit : all) {
        EXPECT_EQ(bit & (bit - 1), 0u) << bit;  // one bit each
        EXPECT_EQ(seen & bit, 0u) << bit;
        seen |= bit;
    }
    EXPECT_EQ(seen, 0x7u | 0xfff00u);
}

TEST_F(LogGuards, NullFormatDoesNothing) {
    QRLLog::log(false, 1, 1, 1, __FILE__, __func__, __LINE__, nullptr);
    EXPECT_TRUE(logged().empty());
}

}  // namespace
}  // namespace qrl
