#include "qrl/logging/QRLLogFileInfo.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <string>

#include "logging/QRLLogFileTestSupport.h"
#include "qrl/logging/QRLLogFileManagerDefault.h"
#include "qrl/logging/detail/LogFileSidecarAttributes.h"
#include "qrl/logging/detail/LogFileSystem.h"
#include "qrl/logging/detail/LogFileXattrAttributes.h"

namespace qrl {
namespace {

using test::CapturedPlatformLog;
using test::ScopedLogFileAttributes;
using test::TemporaryFolder;

// The real port on a file system that refuses every user attribute.
class NoUserAttributes : public detail::LogFileXattrAttributes {
protected:
    int systemGet(const std::string&, const std::string&) override { return EOPNOTSUPP; }
    int systemSet(const std::string&, const std::string&) override { return ENOTSUP; }
    int systemRemove(const std::string&, const std::string&) override { return EOPNOTSUPP; }
};

// A folder of its own, the platform log captured, and one log file in it.
class LogFileInfoTest : public ::testing::Test {
protected:
    // Writes the file with `text` and answers its info.
    std::shared_ptr<QRLLogFileInfo> make(const std::string& text) {
        EXPECT_TRUE(test::writeFile(path, text));
        return QRLLogFileInfo::logFileWithPath(path);
    }
    TemporaryFolder folder;
    CapturedPlatformLog log;
    const std::string path = folder.file("log-ABCDEF.txt");
};

TEST_F(LogFileInfoTest, ReadsTheFileOnceAndKeepsItUntilReset) {
    auto info = make("0123456789");
    EXPECT_EQ(info->filePath(), path);
    EXPECT_EQ(info->fileName(), "log-ABCDEF.txt");
    EXPECT_EQ(info->fileSize(), 10u);
    ASSERT_TRUE(info->creationDate() && info->modificationDate());
    EXPECT_LE(info->creationDate()->nanosecondsSinceEpoch, info->modificationDate()->nanosecondsSinceEpoch);
    EXPECT_GE(info->age(), 0.0);
    EXPECT_LT(info->age(), 600.0);

    const Value attributes = info->fileAttributes();
    EXPECT_EQ(attributes["NSFileType"], Value("NSFileTypeRegular"));
    EXPECT_EQ(attributes["NSFileSize"], Value(10));
    EXPECT_EQ(attributes["NSFileCreationDate"], Value(*info->creationDate()));

    // Cached until reset.
    ASSERT_TRUE(test::writeFile(path, "0123456789abcdef"));
    EXPECT_EQ(info->fileSize(), 10u);
    info->reset();
    EXPECT_EQ(info->fileSize(), 16u);

    // A file that is not there.
    auto missing = QRLLogFileInfo::logFileWithPath(folder.file("log-000000.txt"));
    EXPECT_EQ(missing->fileSize(), 0u);
    EXPECT_FALSE(missing->creationDate());
    EXPECT_EQ(missing->age(), 0.0);
    EXPECT_FALSE(missing->isArchived());
    EXPECT_TRUE(missing->fileAttributes().asDictionary()->empty());
}

TEST_F(LogFileInfoTest, CreationDateIsTheBirthTimeElseTheModificationTime) {
    struct statx status {};
    status.stx_mtime = {1'000'000'000, 5, 0};
    status.stx_btime = {900'000'000, 7, 0};
    status.stx_mask = STATX_BASIC_STATS;
    EXPECT_EQ(detail::creationDateFromStatx(status).nanosecondsSinceEpoch, 1'000'000'000'000'000'005);
    status.stx_mask |= STATX_BTIME;
    EXPECT_EQ(detail::creationDateFromStatx(status).nanosecondsSinceEpoch, 900'000'000'000'000'007);
}

TEST_F(LogFileInfoTest, ArchiveMarkIsARealUserAttribute) {
    auto info = make("x");
    if (::setxattr(path.c_str(), "user.qrl.probe", "", 0, 0) != 0)
        GTEST_SKIP() << "the temporary folder's file system refuses user attributes (errno " << errno << ")";
    ::removexattr(path.c_str(), "user.qrl.probe");
    EXPECT_FALSE(info->isArchived());
    info->setIsArchived(true);
    EXPECT_TRUE(info->isArchived());
    EXPECT_TRUE(test::hasRealAttribute(path, "user.qrl.log.archived"));
    EXPECT_FALSE(test::exists(detail::LogFileSidecarAttributes::markFolder(path)));
    // A name without a namespace is a user attribute.
    EXPECT_TRUE(info->hasExtendedAttributeWithName("qrl.log.archived"));

    info->setIsArchived(false);
    EXPECT_FALSE(info->isArchived());
    EXPECT_FALSE(test::hasRealAttribute(path, "user.qrl.log.archived"));
    info->setIsArchived(false);  // absent: no failure
    EXPECT_TRUE(log.lines().empty());
}

// Each way a mark can be kept: the sidecar form installed outright, and the
// real form on a file system that refuses user attributes.
class FallbackMark : public LogFileInfoTest, public ::testing::WithParamInterface<bool> {
protected:
    std::shared_ptr<detail::LogFileAttributes> port() const {
        if (GetParam()) return std::make_shared<detail::LogFileSidecarAttributes>();
        return std::make_shared<NoUserAttributes>();
    }
};

TEST_P(FallbackMark, ReadsBackAsTheAttributeWouldAndTravelsWithTheFile) {
    ScopedLogFileAttributes scoped(port());
    auto info = make("x");

    EXPECT_FALSE(info->isArchived());
    info->setIsArchived(true);
    info->setIsArchived(true);  // again: no failure
    EXPECT_TRUE(info->isArchived());
    EXPECT_TRUE(info->hasExtendedAttributeWithName("qrl.log.archived"));
    EXPECT_FALSE(info->hasExtendedAttributeWithName("qrl.other"));
    EXPECT_FALSE(test::hasRealAttribute(path, "user.qrl.log.archived"));
    const std::string mark = folder.file(".log-ABCDEF.txt.xattr/qrl.log.archived");
    EXPECT_EQ(detail::LogFileSidecarAttributes::markFile(path, "user.qrl.log.archived"), mark);
    EXPECT_TRUE(test::exists(mark));

    // The mark is no log file of its own.
    auto manager = std::make_shared<QRLLogFileManagerDefault>(folder.path());
    EXPECT_EQ(manager->unsortedLogFileNames(), std::vector<std::string>{"log-ABCDEF.txt"});

    // A rename takes the mark along; a file made later under the old name
    // starts unmarked.
    info->renameFile("log-123456.txt");
    EXPECT_EQ(info->fileName(), "log-123456.txt");
    EXPECT_TRUE(info->isArchived());
    EXPECT_FALSE(test::exists(mark));
    ASSERT_TRUE(test::writeFile(path, "y"));
    EXPECT_FALSE(QRLLogFileInfo::logFileWithPath(path)->isArchived());

    info->setIsArchived(false);
    EXPECT_FALSE(info->isArchived());
    EXPECT_FALSE(test::exists(folder.file(".log-123456.txt.xattr")));
    info->setIsArchived(false);  // absent: no failure
    EXPECT_TRUE(log.lines().empty());

    // Failures read as they do with attributes.
    auto missing = QRLLogFileInfo::logFileWithPath(folder.file("log-FFFFFF.txt"));
    missing->setIsArchived(true);
    EXPECT_FALSE(missing->isArchived());
    missing->removeExtendedAttributeWithName("qrl.log.archived");
    EXPECT_EQ(log.lines(), (std::vector<std::string>{
                               "QRLLogFileInfo: setxattr(user.qrl.log.archived, log-FFFFFF.txt): error = 2",
                               "QRLLogFileInfo: removexattr(user.qrl.log.archived, log-FFFFFF.txt): error = 2",
                           }));
}

INSTANTIATE_TEST_SUITE_P(Forms, FallbackMark, ::testing::Values(true, false),
                         [](const auto& param) { return param.param ? "Sidecar" : "RefusedUserAttributes"; });

TEST_F(LogFileInfoTest, RenameFailureIsLoggedAndThePathTakenAllTheSame) {
    auto info = make("0123");
    EXPECT_EQ(info->fileSize(), 4u);

    info->renameFile("log-ABCDEF.txt");  // the same name: nothing
    EXPECT_TRUE(log.lines().empty());

    // A folder of that name is in the way.
    ASSERT_EQ(::mkdir(folder.file("log-111111.txt").c_str(), 0755), 0);
    ASSERT_EQ(::mkdir(folder.file("log-111111.txt/inside").c_str(), 0755), 0);
    info->renameFile("log-111111.txt");
    ASSERT_EQ(log.lines().size(), 1u);
    EXPECT_TRUE(log.lines()[0].starts_with("QRLLogFileInfo: Error renaming file (log-ABCDEF.txt): Error "
                                           "Domain=NSPOSIXErrorDomain Code=21 \"Is a directory\""))
        << log.lines()[0];
    EXPECT_EQ(info->filePath(), folder.file("log-111111.txt"));
    EXPECT_EQ(info->fileName(), "log-111111.txt");
    EXPECT_TRUE(test::exists(path));
    // The caches went with the old path: the folder's status now.
    EXPECT_EQ(info->fileAttributes()["NSFileType"], Value("NSFileTypeDirectory"));
}

}  // namespace
}  // namespace qrl
