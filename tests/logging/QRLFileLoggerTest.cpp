#include "qrl/logging/QRLFileLogger.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <algorithm>
#include <cmath>
#include <csignal>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "logging/CapturingLogger.h"
#include "logging/QRLLogFileTestSupport.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFileFormatterDefault.h"
#include "qrl/logging/QRLLogFileInfo.h"
#include "qrl/logging/QRLLogFileManagerDefault.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using test::logText;
using test::CapturedPlatformLog;
using test::ScopedLogger;
using test::TemporaryFolder;

// A manager that answers the two optional operations and keeps what it heard.
class RecordingManager : public QRLLogFileManagerDefault {
public:
    using QRLLogFileManagerDefault::QRLLogFileManagerDefault;

    bool answers(Operation) const override { return true; }
    void didArchiveLogFile(const std::string& path) override {
        std::lock_guard lock(mutex_);
        archived_.push_back(path);
    }
    void didRollAndArchiveLogFile(const std::string& path) override {
        std::lock_guard lock(mutex_);
        rolled_.push_back(path);
    }
    std::vector<std::string> archived() const {
        std::lock_guard lock(mutex_);
        return archived_;
    }
    std::vector<std::string> rolled() const {
        std::lock_guard lock(mutex_);
        return rolled_;
    }

private:
    mutable std::mutex mutex_;
    std::vector<std::string> archived_, rolled_;
};

bool archived(const std::string& path) { return QRLLogFileInfo::logFileWithPath(path)->isArchived(); }

// The manager's files, newest first, with their text.
struct FileState {
    std::string path;
    bool archived;
    std::string text;
};
std::vector<FileState> filesOf(QRLLogFileManager& manager) {
    std::vector<FileState> files;
    for (const auto& info : manager.sortedLogFileInfos())
        files.push_back({info->filePath(), info->isArchived(), test::readFile(info->filePath())});
    return files;
}

// A folder of its own, a recording manager on it and a file logger.
class FileLoggerTest : public ::testing::Test {
protected:
    TemporaryFolder folder_;
    std::shared_ptr<RecordingManager> manager_ = std::make_shared<RecordingManager>(folder_.path());
    std::shared_ptr<QRLFileLogger> logger_ = QRLFileLogger::create(manager_);
};

TEST(QRLFileLogger, ARollingFrequencyThatIsNoNumberIsRefused) {
    CapturedPlatformLog log;
    auto logger = QRLFileLogger::create(nullptr);  // the default manager
    EXPECT_NE(logger->logFileManager(), nullptr);
    logger->setRollingFrequency(std::nan(""));
    EXPECT_EQ(logger->rollingFrequency(), 86400.0);
    EXPECT_EQ(log.countContaining("QRLFileLogger: rollingFrequency must be a number"), 1u);
}

TEST_F(FileLoggerTest, ArchivesAFullFileLeftFromBeforeAndMakesANewOne) {
    const std::string full = folder_.file("log-ABCDEF.txt");
    const std::string fullText = std::string(0x100000 - 1, 'x') + "\n";  // exactly 1 MiB
    ASSERT_TRUE(test::writeFile(full, fullText));
    {
        ScopedLogger scope(logger_);
        logText("first");
    }
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_NE(files[0].path, full);
    EXPECT_FALSE(files[0].archived);
    EXPECT_EQ(files[0].text, "first\n");
    EXPECT_EQ(files[1].path, full);
    EXPECT_TRUE(files[1].archived);
    EXPECT_EQ(files[1].text.size(), fullText.size());
    EXPECT_EQ(manager_->archived(), std::vector<std::string>{full});
    EXPECT_TRUE(manager_->rolled().empty());
}

TEST_F(FileLoggerTest, AFileThatOutlivedItsTimeIsArchivedAtStart) {
    const std::string old = folder_.file("log-ABCDEF.txt");
    ASSERT_TRUE(test::writeFile(old, "from before\n"));
    logger_->setRollingFrequency(1e-9);  // every file on disk is older than that
    {
        ScopedLogger scope(logger_);
        logText("fresh");
    }
    EXPECT_EQ(manager_->archived(), std::vector<std::string>{old});
    EXPECT_TRUE(archived(old));
    EXPECT_EQ(test::readFile(old), "from before\n");
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].text, "fresh\n");
}

TEST_F(FileLoggerTest, WritesFormattedLinesThroughTheEngine) {
    logger_->setLogFormatter(std::make_shared<QRLLogFileFormatterDefault>());
    {
        ScopedLogger scope(logger_);
        logText("hello");
        logText("ends in a line feed\n");
        logText("two\nlines");
    }
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 1u);
    const std::string d = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3})";
    EXPECT_TRUE(std::regex_match(files[0].text,
                                 std::regex(d + "  hello\n" + d + "  ends in a line feed\n" + d + "  two\nlines\n")))
        << files[0].text;
}

TEST_F(FileLoggerTest, NothingIsLostAcrossSizeRolls) {
    manager_->setMaximumNumberOfLogFiles(100000);
    constexpr uint64_t kSize = 512;
    logger_->setMaximumFileSize(kSize);

    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    {
        ScopedLogger scope(logger_);
        for (int i = 0; i < kPerThread; ++i)
            for (int t = 0; t < kThreads; ++t)
                logText(qrl::format("t%d %03d %.*s", t, i, (i + t) % 37, "....................................."));
    }

    std::map<std::string, int> seen;
    size_t current = 0;
    size_t maxLine = 0;
    const auto files = filesOf(*manager_);
    for (const auto& file : files) {
        std::vector<int> last(kThreads, -1);
        for (const auto& line : test::linesOf(file.text)) {
            ++seen[line];
            maxLine = std::max(maxLine, line.size() + 1);
            int t = -1, i = -1;
            ASSERT_EQ(std::sscanf(line.c_str(), "t%d %d", &t, &i), 2) << line;
            ASSERT_TRUE(t >= 0 && t < kThreads) << line;
            EXPECT_GT(i, last[static_cast<size_t>(t)]) << "out of order in " << file.path;
            last[static_cast<size_t>(t)] = i;
        }
        if (file.archived) {
            EXPECT_GE(file.text.size(), kSize) << file.path;
        } else {
            ++current;
            EXPECT_LT(file.text.size(), kSize) << file.path;
        }
    }
    for (const auto& file : files)
        if (file.archived) {
            EXPECT_LT(file.text.size(), kSize + maxLine) << file.path;
        }
    EXPECT_LE(current, 1u);
    EXPECT_GT(files.size(), 10u);
    ASSERT_EQ(seen.size(), static_cast<size_t>(kThreads * kPerThread));
    for (const auto& [line, count] : seen) EXPECT_EQ(count, 1) << line;
}

// A file-size limit lets a line in only partly: the part is cut off again,
// and the next line starts a line of its own.
TEST_F(FileLoggerTest, ALineIsWholeInTheFileOrAbsent) {
    const auto write = [&](std::string text) {
        logger_->logMessage(QRLLogMessage(std::move(text), 7, 4, 1, __FILE__, __func__, __LINE__));
    };
    write("first");
    CapturedPlatformLog platform;
    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_FSIZE, &saved), 0);
    const auto previousHandler = ::signal(SIGXFSZ, SIG_IGN);
    rlimit small = saved;
    small.rlim_cur = 16;  // "first\n" and ten bytes more
    ASSERT_EQ(::setrlimit(RLIMIT_FSIZE, &small), 0);
    write(std::string(100, 'x'));
    ::setrlimit(RLIMIT_FSIZE, &saved);
    ::signal(SIGXFSZ, previousHandler);
    write("last");
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].text, "first\nlast\n");
    EXPECT_EQ(platform.countContaining("Error writing to log file"), 1u);
}

TEST_F(FileLoggerTest, AMaximumBelowThePresentSizeRollsAtOnce) {
    ScopedLogger scope(logger_);
    logText("one");
    logText("two");
    logText("three");
    QRLLog::flushLog();
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 1u);
    const std::string first = files[0].path;
    EXPECT_FALSE(files[0].archived);

    logger_->setMaximumFileSize(8);
    EXPECT_EQ(logger_->maximumFileSize(), 8u);  // read on the logging queue, after the roll
    EXPECT_TRUE(archived(first));
    EXPECT_EQ(manager_->rolled(), std::vector<std::string>{first});
    EXPECT_EQ(manager_->sortedLogFilePaths(), std::vector<std::string>{first});  // no new file before a message
}

TEST_F(FileLoggerTest, RollsByAgeOnTheRunLoopTimer) {
    ASSERT_TRUE(RunLoop::isMainThread()) << "the age timer is on the main loop, run here";
    test::ScopedSimulatedClock clock;
    RunLoop& loop = RunLoop::main();
    const size_t timersBefore = loop.timerCount();
    logger_->setRollingFrequency(60.0);
    auto scope = std::make_unique<ScopedLogger>(logger_);

    logText("a");
    QRLLog::flushLog();
    const auto files = filesOf(*manager_);
    ASSERT_EQ(files.size(), 1u);
    const std::string first = files[0].path;
    EXPECT_EQ(loop.timerCount(), timersBefore + 1);

    loop.runFor(30.0);
    QRLLog::flushLog();  // what the timer sent to the logging queue has run
    EXPECT_FALSE(archived(first));
    loop.runFor(31.0);
    QRLLog::flushLog();
    EXPECT_TRUE(archived(first));
    EXPECT_EQ(manager_->rolled(), std::vector<std::string>{first});
    EXPECT_EQ(manager_->sortedLogFilePaths().size(), 1u);

    // A logger that goes takes its timer along.
    logText("d");
    scope.reset();
    EXPECT_EQ(loop.timerCount(), timersBefore + 1);
    logger_.reset();
    EXPECT_EQ(loop.timerCount(), timersBefore);
    loop.runFor(120.0);
    QRLLog::flushLog();
    EXPECT_FALSE(archived(filesOf(*manager_)[0].path));
}

}  // namespace
}  // namespace qrl
