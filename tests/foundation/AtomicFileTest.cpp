// Whole-file replacement (contents, modes, failures that leave the old file
// whole and no temporary behind) and base64.
#include "qrl/foundation/AtomicFile.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstring>
#include <filesystem>
#include <fstream>
#include <set>
#include <sstream>

#include "qrl/foundation/Base64.h"
#include "support/TemporaryFolder.h"

namespace qrl {
namespace {

std::string contents(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    std::stringstream text;
    text << in.rdbuf();
    return text.str();
}

std::set<std::string> entries(const std::string& folder) {
    std::set<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(folder)) names.insert(entry.path().filename());
    return names;
}

mode_t modeOf(const std::string& path) {
    struct stat info {};
    EXPECT_EQ(::stat(path.c_str(), &info), 0);
    return info.st_mode & 07777;
}

TEST(AtomicFileTest, ReplacesWholeFilesAndKeepsTheTargetsMode) {
    test::TemporaryFolder folder;
    const std::string path = folder.file("prefs.json");
    std::string problem;
    ASSERT_TRUE(writeFileAtomically(path, "first\n", &problem)) << problem;
    EXPECT_EQ(contents(path), "first\n");
    EXPECT_EQ(modeOf(path), 0644u);

    ASSERT_EQ(::chmod(path.c_str(), 0600), 0);
    AtomicFileWriter writer(path);
    ASSERT_TRUE(writer.ok()) << writer.error();
    const std::string chunk(100000, 'x');
    for (int i = 0; i < 30; ++i) ASSERT_TRUE(writer.write(chunk));
    // Until the commit the target holds the old file, the new one lies beside it.
    EXPECT_EQ(contents(path), "first\n");
    EXPECT_EQ(entries(folder.path()).size(), 2u);
    EXPECT_EQ(contents(writer.temporaryPath()).size(), 3000000u);
    ASSERT_TRUE(writer.commit()) << writer.error();
    EXPECT_TRUE(writer.committed());
    EXPECT_EQ(contents(path).size(), 3000000u);
    EXPECT_EQ(modeOf(path), 0600u);
    EXPECT_EQ(entries(folder.path()), std::set<std::string>{"prefs.json"});
    EXPECT_FALSE(writer.write("late"));  // a committed writer takes no more

    const std::string fresh = folder.file("fresh");
    ASSERT_TRUE(writeFileAtomically(fresh, "", &problem, {.newFileMode = 0600})) << problem;
    EXPECT_EQ(modeOf(fresh), 0600u);
    EXPECT_EQ(contents(fresh), "");
}

TEST(AtomicFileTest, FailuresSayWhatFailedAndLeaveNoTemporaryBehind) {
    test::TemporaryFolder folder;
    // A target that is a folder refuses the rename; the folder and what it holds stay.
    const std::string target = folder.file("taken");
    ASSERT_EQ(::mkdir(target.c_str(), 0755), 0);
    ASSERT_TRUE(writeFileAtomically(target + "/inside", "kept"));
    std::string problem;
    EXPECT_FALSE(writeFileAtomically(target, "new", &problem));
    EXPECT_NE(problem.find("cannot rename"), std::string::npos) << problem;
    EXPECT_NE(problem.find(target), std::string::npos) << problem;
    EXPECT_NE(problem.find(std::strerror(EISDIR)), std::string::npos) << problem;
    EXPECT_EQ(entries(folder.path()), std::set<std::string>{"taken"});
    EXPECT_EQ(contents(target + "/inside"), "kept");

    // A missing folder fails at once; the writer then refuses everything.
    const std::string lost = folder.file("missing/file");
    AtomicFileWriter writer(lost);
    EXPECT_FALSE(writer.ok());
    EXPECT_NE(writer.error().find("cannot create a temporary file beside " + lost), std::string::npos);
    EXPECT_NE(writer.error().find(std::strerror(ENOENT)), std::string::npos) << writer.error();
    EXPECT_TRUE(writer.temporaryPath().empty());
    EXPECT_FALSE(writer.write("bytes"));
    EXPECT_FALSE(writer.commit());
    EXPECT_NE(writer.error().find(std::strerror(ENOENT)), std::string::npos);  // the first failure stays
    EXPECT_FALSE(writeFileAtomically(lost, "bytes", &problem));
    EXPECT_EQ(problem, writer.error());
}

TEST(AtomicFileTest, AbortAndDestructionRemoveTheTemporaryAndKeepTheOldFile) {
    test::TemporaryFolder folder;
    const std::string path = folder.file("movie.y4m");
    ASSERT_TRUE(writeFileAtomically(path, "old movie"));
    {
        AtomicFileWriter writer(path);
        ASSERT_TRUE(writer.write("half a new mo"));
        writer.abort();
        EXPECT_TRUE(writer.temporaryPath().empty());
        EXPECT_FALSE(writer.write("vie"));
        EXPECT_FALSE(writer.commit());
        writer.abort();  // twice is harmless
    }
    {
        AtomicFileWriter writer(path);
        ASSERT_TRUE(writer.write("interrupted"));
    }  // never committed
    EXPECT_EQ(contents(path), "old movie");
    EXPECT_EQ(entries(folder.path()), std::set<std::string>{"movie.y4m"});
}

std::vector<uint8_t> bytes(std::string_view text) { return {text.begin(), text.end()}; }

TEST(AtomicFileTest, Base64MatchesTheStandardVectorsAndRoundTrips) {
    const std::pair<const char*, const char*> vectors[] = {{"", ""},           {"f", "Zg=="},        {"fo", "Zm8="},
                                                           {"foo", "Zm9v"},    {"foob", "Zm9vYg=="}, {"fooba", "Zm9vYmE="},
                                                           {"foobar", "Zm9vYmFy"}};
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(bytes(plain)), encoded);
        EXPECT_EQ(base64Decode(encoded), bytes(plain));
    }
    // Strict: padding only at the end, no stray bits under it, no other characters.
    for (const char* bad : {"Zg=", "Zh==", "Zm9=", "Z===", "Zg==Zg==", "Zm9v\n", "Zm-v", "=Zm9", "Zm=v"})
        EXPECT_EQ(base64Decode(bad), std::nullopt) << bad;
}

}  // namespace
}  // namespace qrl
