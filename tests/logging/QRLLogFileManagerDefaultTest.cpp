#include "qrl/logging/QRLLogFileManagerDefault.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <deque>
#include <filesystem>
#include <string>

#include "logging/QRLLogFileTestSupport.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFileInfo.h"
#include "qrl/logging/detail/LogFileSidecarAttributes.h"

namespace qrl {
namespace {

using test::CapturedPlatformLog;
using test::TemporaryFolder;

// A manager whose names come from a script, then from the real generator.
class ScriptedNames : public QRLLogFileManagerDefault {
public:
    using QRLLogFileManagerDefault::QRLLogFileManagerDefault;
    std::deque<std::string> script;
    std::string repeat;  // when set, answered for ever once the script is spent
    int calls = 0;

    std::string generateShortUUID() override {
        ++calls;
        if (!script.empty()) {
            std::string name = script.front();
            script.pop_front();
            return name;
        }
        return repeat.empty() ? QRLLogFileManagerDefault::generateShortUUID() : repeat;
    }
};

// Archived log files named log-<hex>.txt, made one after another.
std::vector<std::string> makeArchivedFiles(const TemporaryFolder& folder, const std::vector<std::string>& hexNames) {
    std::vector<std::string> paths;
    for (const auto& hex : hexNames) {
        const std::string path = folder.file("log-" + hex + ".txt");
        test::writeFile(path, hex + "\n");
        QRLLogFileInfo::logFileWithPath(path)->setIsArchived(true);
        paths.push_back(path);
    }
    return paths;
}

size_t countArchived(QRLLogFileManagerDefault& manager) {
    size_t n = 0;
    for (const auto& info : manager.sortedLogFileInfos()) n += info->isArchived() ? 1 : 0;
    return n;
}

TEST(QRLLogFileManagerDefault, TellsLogFilesByName) {
    QRLLogFileManagerDefault manager(std::string("/nonexistent"));
    struct Case {
        const char* name;
        bool isLog;
    };
    const Case cases[] = {
        {"log-ABCDEF.txt", true}, {"log-abcdef.txt", false},    {"log-ABCDE", false},
        {"log-ABCDEF", true},     {"log-0123456789.txt", true}, {"log-ABCDEG.txt", false},
    };
    for (const auto& c : cases) EXPECT_EQ(manager.isLogFile(c.name), c.isLog) << c.name;
}

TEST(QRLLogFileManagerDefault, MakesTheFolderAndSaysWhenItCannot) {
    TemporaryFolder folder;
    CapturedPlatformLog log;
    const std::string nested = folder.file("a/b/Logs");
    QRLLogFileManagerDefault manager(nested);
    EXPECT_EQ(manager.logsDirectory(), nested);
    struct stat s {};
    ASSERT_EQ(::stat(nested.c_str(), &s), 0);
    EXPECT_TRUE(S_ISDIR(s.st_mode));
    EXPECT_TRUE(log.lines().empty());

    // A file stands where a folder should be.
    test::writeFile(folder.file("blocked"), "");
    QRLLogFileManagerDefault blocked(folder.file("blocked/Logs"));
    EXPECT_TRUE(blocked.unsortedLogFileNames().empty());
    ASSERT_FALSE(log.lines().empty());
    EXPECT_TRUE(log.lines()[0].starts_with(
        "QRLFileLogManagerDefault: Error creating logsDirectory: Error Domain=NSPOSIXErrorDomain Code=20"))
        << log.lines()[0];

    // No file can be made there: said once, however often it is tried.
    log.clear();
    EXPECT_FALSE(blocked.createNewLogFile());
    EXPECT_FALSE(blocked.createNewLogFile());
    EXPECT_EQ(log.countContaining("QRLLogFileManagerDefault: Error creating log file: "), 1u);
    EXPECT_EQ(log.countContaining("Error creating logsDirectory"), 0u);
}

TEST(QRLLogFileManagerDefault, CollidingNamesAreDrawnAgain) {
    TemporaryFolder folder;
    test::writeFile(folder.file("log-AAAAAA.txt"), "kept");
    auto manager = std::make_shared<ScriptedNames>(folder.path());
    manager->script = {"AAAAAA", "AAAAAA", "BBBBBB"};
    EXPECT_EQ(manager->createNewLogFile(), folder.file("log-BBBBBB.txt"));
    EXPECT_EQ(manager->calls, 3);
    EXPECT_EQ(test::readFile(folder.file("log-AAAAAA.txt")), "kept");
    EXPECT_EQ(test::readFile(folder.file("log-BBBBBB.txt")), "");

    // A generator that never finds a free name gives up, and says so once.
    CapturedPlatformLog log;
    manager->calls = 0;
    manager->repeat = "AAAAAA";
    EXPECT_FALSE(manager->createNewLogFile());
    EXPECT_EQ(manager->calls, QRLLogFileManagerDefault::kMaximumNameAttempts);
    EXPECT_FALSE(manager->createNewLogFile());
    EXPECT_EQ(log.countContaining("QRLLogFileManagerDefault: Error creating log file: no free name in"), 1u);
}

TEST(QRLLogFileManagerDefault, NewFileKeepsTheNewestArchivedFilesAndDeletesTheOldest) {
    TemporaryFolder folder;
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    EXPECT_EQ(manager->maximumNumberOfLogFiles(), 5u);
    makeArchivedFiles(folder, {"000001", "000002", "000003", "000004", "000005", "000006"});
    // Six archived: the manager's oldest is the last of its sorted list.
    const auto before = manager->sortedLogFilePaths();
    ASSERT_EQ(before.size(), 6u);
    const std::string oldest = before.back();

    const auto made = manager->createNewLogFile();
    ASSERT_TRUE(made);
    const auto after = manager->sortedLogFilePaths();
    ASSERT_EQ(after.size(), 6u);
    EXPECT_EQ(after.front(), *made);  // newest, and not archived
    EXPECT_FALSE(QRLLogFileInfo::logFileWithPath(*made)->isArchived());
    EXPECT_EQ(std::count(after.begin(), after.end(), oldest), 0);
    EXPECT_FALSE(test::exists(oldest));
    EXPECT_EQ(std::vector<std::string>(after.begin() + 1, after.end()),
              std::vector<std::string>(before.begin(), before.end() - 1));
    EXPECT_EQ(countArchived(*manager), 5u);

    // The file in use is never counted nor deleted.
    manager->deleteOldLogFiles();
    EXPECT_EQ(manager->sortedLogFilePaths(), after);
}

TEST(QRLLogFileManagerDefault, ChangingTheMaximumPrunesOnTheLoggingQueue) {
    TemporaryFolder folder;
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    makeArchivedFiles(folder, {"00000A", "00000B", "00000C", "00000D", "00000E", "00000F", "000010"});
    const std::string inUse = folder.file("log-FFFFFF.txt");
    test::writeFile(inUse, "in use\n");

    manager->setMaximumNumberOfLogFiles(5);  // the same: nothing is pruned
    QRLLog::flushLog();
    EXPECT_EQ(countArchived(*manager), 7u);

    manager->setMaximumNumberOfLogFiles(0);
    QRLLog::flushLog();
    EXPECT_EQ(manager->sortedLogFilePaths(), std::vector<std::string>{inUse});
    EXPECT_EQ(test::readFile(inUse), "in use\n");
}

TEST(QRLLogFileManagerDefault, PruningTakesFallbackMarksWithTheFiles) {
    TemporaryFolder folder;
    test::ScopedLogFileAttributes scoped(std::make_shared<detail::LogFileSidecarAttributes>());
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    const auto paths = makeArchivedFiles(folder, {"0000A1", "0000A2"});
    for (const auto& path : paths) ASSERT_TRUE(test::exists(detail::LogFileSidecarAttributes::markFolder(path)));
    manager->setMaximumNumberOfLogFiles(0);
    QRLLog::flushLog();
    std::error_code error;
    EXPECT_TRUE(std::filesystem::is_empty(folder.path(), error)) << "marks left behind";
}

}  // namespace
}  // namespace qrl
