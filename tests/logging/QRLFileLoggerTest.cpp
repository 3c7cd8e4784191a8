#include "qrl/logging/QRLFileLogger.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <map>
#include <mutex>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "logging/CapturingLogger.h"
#include "logging/QRLLogFileTestSupport.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFileFormatterDefault.h"
#include "qrl/logging/QRLLogFileInfo.h"
#include "qrl/logging/QRLLogFileManagerDefault.h"
#include "qrl/logging/QRLLogMessage.h"
#include "qrl/logging/detail/LocalDateFormatter.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using test::logText;
using test::PlatformLogCapture;
using test::ScopedLogger;
using test::TempFolder;

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

// Drops the messages that begin with "skip".
class DroppingFormatter : public QRLLogFormatter {
public:
    std::optional<std::string> formatLogMessage(const QRLLogMessage& m) override {
        if (m.logMsg().starts_with("skip")) return std::nullopt;
        return m.logMsg();
    }
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

TEST(QRLFileLogger, DefaultsAndName) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    auto logger = QRLFileLogger::create(std::make_shared<QRLLogFileManagerDefault>(folder.path()));
    EXPECT_EQ(logger->loggerName(), "tigostu.fileLogger");
    EXPECT_EQ(logger->maximumFileSize(), 0x100000u);
    EXPECT_EQ(logger->rollingFrequency(), 86400.0);
    EXPECT_EQ(logger->logFileManager()->maximumNumberOfLogFiles(), 5u);

    PlatformLogCapture log;
    logger->setRollingFrequency(std::nan(""));
    EXPECT_EQ(logger->rollingFrequency(), 86400.0);
    EXPECT_EQ(log.countContaining("QRLFileLogger: rollingFrequency must be a number"), 1u);
    EXPECT_NE(QRLFileLogger::create(nullptr)->logFileManager(), nullptr);  // the default manager
}

TEST(QRLFileLogger, ArchivesAFullFileLeftFromBeforeAndMakesANewOne) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    const std::string full = folder / "log-ABCDEF.txt";
    const std::string fullText = std::string(0x100000 - 1, 'x') + "\n";  // exactly 1 MiB
    ASSERT_TRUE(test::writeFile(full, fullText));
    auto manager = std::make_shared<RecordingManager>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    {
        ScopedLogger scope(logger);
        logText("first");
    }
    const auto files = filesOf(*manager);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_NE(files[0].path, full);
    EXPECT_FALSE(files[0].archived);
    EXPECT_EQ(files[0].text, "first\n");
    EXPECT_EQ(files[1].path, full);
    EXPECT_TRUE(files[1].archived);
    EXPECT_EQ(files[1].text.size(), fullText.size());
    EXPECT_EQ(manager->archived(), std::vector<std::string>{full});
    EXPECT_TRUE(manager->rolled().empty());

    // One byte less, and young: it is taken up where it ends.
    TempFolder other;
    ASSERT_TRUE(other.ok());
    const std::string partial = other / "log-012345.txt";
    ASSERT_TRUE(test::writeFile(partial, std::string(0x100000 - 2, 'y') + "\n"));
    auto continuing = QRLFileLogger::create(std::make_shared<RecordingManager>(other.path()));
    {
        ScopedLogger scope(continuing);
        logText("next");  // takes it past the size: archived after the write
    }
    const auto after = filesOf(*continuing->logFileManager());
    ASSERT_EQ(after.size(), 1u);
    EXPECT_EQ(after[0].path, partial);
    EXPECT_TRUE(after[0].text.ends_with("y\nnext\n"));
    EXPECT_TRUE(after[0].archived);
}

TEST(QRLFileLogger, AFileThatOutlivedItsTimeIsArchivedAtStart) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    const std::string old = folder / "log-ABCDEF.txt";
    ASSERT_TRUE(test::writeFile(old, "from before\n"));
    auto manager = std::make_shared<RecordingManager>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    logger->setRollingFrequency(1e-9);  // every file on disk is older than that
    {
        ScopedLogger scope(logger);
        logText("fresh");
    }
    EXPECT_EQ(manager->archived(), std::vector<std::string>{old});
    EXPECT_TRUE(archived(old));
    EXPECT_EQ(test::readFile(old), "from before\n");
    const auto files = filesOf(*manager);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].text, "fresh\n");
}

TEST(QRLFileLogger, WritesFormattedLinesThroughTheEngine) {
    // The formatter on its own: the message's own date, two blanks, the text.
    QRLLogMessage message("text", 3, 2, 1, __FILE__, __func__, __LINE__);
    QRLLogFileFormatterDefault formatter;
    EXPECT_EQ(formatter.formatLogMessage(message),
              detail::LocalDateFormatter("yyyy/MM/dd HH:mm:ss:SSS").format(message.timestamp()) + "  text");

    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    logger->setLogFormatter(std::make_shared<QRLLogFileFormatterDefault>());
    {
        ScopedLogger scope(logger);
        logText("hello");
        logText("ends in a line feed\n");
        logText("");
        logText("two\nlines");
        logText("ünïcödé ✓");
    }
    auto files = filesOf(*manager);
    ASSERT_EQ(files.size(), 1u);
    const std::string d = R"(\d{4}/\d\d/\d\d \d\d:\d\d:\d\d:\d{3})";
    EXPECT_TRUE(std::regex_match(files[0].text, std::regex(d + "  hello\n" + d + "  ends in a line feed\n" + d +
                                                           "  \n" + d + "  two\nlines\n" + d + "  ünïcödé ✓\n")))
        << files[0].text;

    // No text from the formatter: nothing written; no formatter: the bare message.
    const std::string before = files[0].text;
    logger->setLogFormatter(std::make_shared<DroppingFormatter>());
    {
        ScopedLogger scope(logger);
        logText("skip me");
        logText("keep me");
    }
    logger->setLogFormatter(nullptr);
    {
        ScopedLogger scope(logger);
        logText("bare\n");
    }
    files = filesOf(*manager);
    ASSERT_EQ(files.size(), 1u);
    EXPECT_EQ(files[0].text, before + "keep me\nbare\n");
}

TEST(QRLFileLogger, NothingIsLostAcrossSizeRolls) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    manager->setMaximumNumberOfLogFiles(100000);
    auto logger = QRLFileLogger::create(manager);
    constexpr uint64_t kSize = 512;
    logger->setMaximumFileSize(kSize);

    constexpr int kThreads = 4;
    constexpr int kPerThread = 150;
    {
        ScopedLogger scope(logger);
        std::vector<std::thread> threads;
        for (int t = 0; t < kThreads; ++t)
            threads.emplace_back([t] {
                for (int i = 0; i < kPerThread; ++i)
                    logText(qrl::format("t%d %03d %.*s", t, i, i % 37, "....................................."));
            });
        for (auto& thread : threads) thread.join();
    }

    std::map<std::string, int> seen;
    size_t current = 0;
    size_t maxLine = 0;
    const auto files = filesOf(*manager);
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

TEST(QRLFileLogger, AMaximumBelowThePresentSizeRollsAtOnce) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    auto manager = std::make_shared<RecordingManager>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    ScopedLogger scope(logger);
    logText("one");
    logText("two");
    logText("three");
    QRLLog::flushLog();
    auto files = filesOf(*manager);
    ASSERT_EQ(files.size(), 1u);
    const std::string first = files[0].path;
    EXPECT_FALSE(files[0].archived);

    logger->setMaximumFileSize(8);
    EXPECT_EQ(logger->maximumFileSize(), 8u);  // read on the logging queue, after the roll
    EXPECT_TRUE(archived(first));
    EXPECT_EQ(manager->rolled(), std::vector<std::string>{first});
    EXPECT_EQ(manager->sortedLogFilePaths(), std::vector<std::string>{first});  // no new file before a message

    logText("four");  // 5 bytes: stays
    QRLLog::flushLog();
    files = filesOf(*manager);
    ASSERT_EQ(files.size(), 2u);
    EXPECT_EQ(files[0].text, "four\n");
    EXPECT_FALSE(files[0].archived);
    logText("five");  // 10 bytes: rolls after the write
    QRLLog::flushLog();
    EXPECT_TRUE(archived(files[0].path));
    EXPECT_EQ(test::readFile(files[0].path), "four\nfive\n");

}

TEST(QRLFileLogger, KeepsFiveArchivedFilesAsItRolls) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    {
        ScopedLogger scope(logger);
        for (int i = 0; i < 9; ++i) {
            logText(qrl::format("m%d", i));
            logger->rollLogFile();
        }
        QRLLog::flushLog();
        // Nine archived, pruned to five whenever a file was made: m3 to m8.
        std::vector<std::string> texts;
        for (const auto& file : filesOf(*manager)) {
            EXPECT_TRUE(file.archived);
            texts.push_back(file.text);
        }
        EXPECT_EQ(texts, (std::vector<std::string>{"m8\n", "m7\n", "m6\n", "m5\n", "m4\n", "m3\n"}));
        // One more file: the oldest goes.
        logText("last");
    }
    std::vector<std::string> texts;
    for (const auto& file : filesOf(*manager)) texts.push_back(file.text);
    EXPECT_EQ(texts, (std::vector<std::string>{"last\n", "m8\n", "m7\n", "m6\n", "m5\n", "m4\n"}));

}

TEST(QRLFileLogger, RollsByAgeOnTheRunLoopTimer) {
    ASSERT_TRUE(RunLoop::isMainThread()) << "the age timer is on the main loop, run here";
    test::ScopedSimulatedClock clock;
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    RunLoop& loop = RunLoop::main();
    const size_t timersBefore = loop.timerCount();
    auto manager = std::make_shared<RecordingManager>(folder.path());
    auto logger = QRLFileLogger::create(manager);
    logger->setRollingFrequency(60.0);
    auto scope = std::make_unique<ScopedLogger>(logger);

    logText("a");
    QRLLog::flushLog();
    auto files = filesOf(*manager);
    ASSERT_EQ(files.size(), 1u);
    const std::string first = files[0].path;
    EXPECT_EQ(loop.timerCount(), timersBefore + 1);

    loop.runFor(30.0);
    QRLLog::flushLog();  // what the timer sent to the logging queue has run
    EXPECT_FALSE(archived(first));
    loop.runFor(31.0);
    QRLLog::flushLog();
    EXPECT_TRUE(archived(first));
    EXPECT_EQ(manager->rolled(), std::vector<std::string>{first});
    EXPECT_EQ(manager->sortedLogFilePaths().size(), 1u);

    // The next file gets a timer of its own.
    logText("b");
    QRLLog::flushLog();
    files = filesOf(*manager);
    ASSERT_EQ(files.size(), 2u);
    const std::string second = files[0].path;
    EXPECT_EQ(files[0].text, "b\n");
    loop.runFor(59.0);
    QRLLog::flushLog();
    EXPECT_FALSE(archived(second));
    loop.runFor(2.0);
    QRLLog::flushLog();
    EXPECT_TRUE(archived(second));

    // A frequency below the present age rolls at once.
    logText("c");
    QRLLog::flushLog();
    const std::string third = filesOf(*manager)[0].path;
    loop.runFor(10.0);
    logger->setRollingFrequency(5.0);
    EXPECT_EQ(logger->rollingFrequency(), 5.0);
    EXPECT_TRUE(archived(third));
    EXPECT_EQ(manager->rolled(), (std::vector<std::string>{first, second, third}));

    // A logger that goes takes its timer along.
    logText("d");
    scope.reset();
    EXPECT_EQ(loop.timerCount(), timersBefore + 1);
    logger.reset();
    EXPECT_EQ(loop.timerCount(), timersBefore);
    loop.runFor(120.0);
    QRLLog::flushLog();
    EXPECT_FALSE(archived(filesOf(*manager)[0].path));
}

TEST(QRLFileLogger, AFolderThatCannotBeMadeLosesTheLinesWithOneReport) {
    TempFolder folder;
    ASSERT_TRUE(folder.ok());
    ASSERT_TRUE(test::writeFile(folder / "blocked", ""));
    PlatformLogCapture log;
    auto logger = QRLFileLogger::create(std::make_shared<QRLLogFileManagerDefault>(folder / "blocked/Logs"));
    {
        ScopedLogger scope(logger);
        for (int i = 0; i < 5; ++i) logText("nowhere to go");
    }
    EXPECT_EQ(log.countContaining("QRLFileLogManagerDefault: Error creating logsDirectory: "), 1u);
    EXPECT_EQ(log.countContaining("QRLLogFileManagerDefault: Error creating log file: "), 1u);
    EXPECT_EQ(log.lines().size(), 2u);
}

}  // namespace
}  // namespace qrl
