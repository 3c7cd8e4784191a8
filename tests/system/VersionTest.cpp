#include "qrl/system/Version.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "qrl/foundation/FourCC.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/system/SystemFacts.h"
#include "qrl/system/Utils.h"
#include "qrl/system/linux/SystemFactsLinux.h"
#include "qrl/system/sim/SystemFactsSim.h"
#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using PlatformLines = test::CapturedPlatformLog;

struct TempDir : test::TemporaryFolder {
    TempDir() : TemporaryFolder("qrl-version") {}
    void write(const std::string& relative, const std::string& text) const {
        std::filesystem::create_directories(std::filesystem::path(file(relative)).parent_path());
        std::ofstream(file(relative)) << text;
    }
};

TEST(Version, FromText) {
    struct Row {
        const char* text;
        int major, minor, build;
        bool lion, lion01;
    } rows[] = {{"10.7.2", 10, 7, 2, true, false}, {"10.7.1", 10, 7, 1, true, true}, {"10", 10, 0, 0, false, false},
                {"10.8.1.4", 10, 8, 1, false, false}, {"", 0, 0, 0, false, false}, {" 10.x7.-3", 10, 0, -3, false, false},
                {"99999999999.1", 2147483647, 1, 0, false, false}, {"...", 0, 0, 0, false, false}};
    for (const Row& r : rows) {
        const auto v = Version::initWithVersionString(std::string_view(r.text));
        ASSERT_TRUE(v) << r.text;
        EXPECT_EQ(v->major(), r.major) << r.text;
        EXPECT_EQ(v->minor(), r.minor) << r.text;
        EXPECT_EQ(v->build(), r.build) << r.text;
        EXPECT_EQ(v->version(), 0);
        EXPECT_EQ(v->isLion(), r.lion) << r.text;
        EXPECT_EQ(v->isLionVersion0OrVersion1(), r.lion01) << r.text;
    }
    PlatformLines log;
    EXPECT_FALSE(Version::initWithVersionString(std::nullopt));
    EXPECT_EQ(log.lines(), std::vector<std::string>{"Couldn't build version string from (null). Didn't contain any . chars"});
    EXPECT_EQ(Version().description(), "0.0.0");
    EXPECT_EQ(Version(10, 6, 8).description(), "10.6.8");
}

TEST(Version, FromABundle) {
    TempDir dir;
    dir.write("Good.app/Contents/Info.plist",
              "<?xml version=\"1.0\"?>\n<plist version=\"1.0\">\n<dict>\n"
              "  <key>Nested</key><dict><key>CFBundleShortVersionString</key><string>9.9.9</string></dict>\n"
              "  <!-- <key>CFBundleShortVersionString</key><string>8.8.8</string> -->\n"
              "  <key>Flag</key><true/>\n"
              "  <key>CFBundleShortVersionString</key>\n  <string>2.1.3 &amp; more</string>\n"
              "</dict>\n</plist>\n");
    dir.write("NoKey.app/Contents/Info.plist", "<plist><dict><key>CFBundleName</key><string>x</string></dict></plist>");
    dir.write("Garbage.app/Contents/Info.plist", "not a property list");
    const auto v = Version::versionForBundle(dir.file("Good.app"));
    ASSERT_TRUE(v);
    EXPECT_EQ(v->description(), "2.1.3");

    PlatformLines log;
    const std::string missing = dir.file("Missing.app");
    EXPECT_FALSE(Version::initWithBundlePath(missing));
    EXPECT_FALSE(Version::initWithBundlePath(dir.file("Garbage.app")));
    EXPECT_FALSE(Version::initWithBundlePath(dir.file("NoKey.app")));
    ASSERT_EQ(log.lines().size(), 3u);
    EXPECT_EQ(log.lines()[0], "No bundle at path " + missing);
    EXPECT_EQ(log.lines()[2], "Couldn't build version string from (null). Didn't contain any . chars");
    EXPECT_EQ(propertyListString("<dict><key>a</key><integer>1</integer></dict>", "a"), std::nullopt);
    EXPECT_EQ(propertyListString("<dict><key>a</key><string>&lt;&bogus;&gt;</string></dict>", "a"), "<&bogus;>");
}

TEST(Version, SystemAndMediaVersions) {
    auto facts = std::make_shared<SystemFactsSim>(std::string("10.7.2.9"));
    ScopedSystemFacts scoped(facts);
    EXPECT_EQ(Utils::systemVersion(), Version(10, 7, 2));
    facts->setProductVersion(std::nullopt);
    EXPECT_EQ(Utils::systemVersion(), Version());

    // The media framework query fails on Linux: an empty version that asks for an upgrade.
    EXPECT_EQ(Utils::quickTimeVersion(), Version());
    EXPECT_TRUE(Utils::upgradeQuickTime());
    facts->setGestalt(fourCC("qtim"), 0x07138000);
    EXPECT_FALSE(Utils::upgradeQuickTime());
    const Version qt = Utils::quickTimeVersion();
    EXPECT_EQ(qt.description(), "7.1.3");
    EXPECT_EQ(qt.version(), 0x07138000);
    // A negative answer is widened with its sign, so it is below the threshold.
    facts->setGestalt(fourCC("qtim"), static_cast<int32_t>(0xF7654321u));
    EXPECT_EQ(Utils::quickTimeVersion().version(), static_cast<int32_t>(0xF7654321u));
    EXPECT_EQ(Utils::quickTimeVersion().description(), "7.6.5");
    EXPECT_TRUE(Utils::upgradeQuickTime());
}

TEST(Version, OsRelease) {
    EXPECT_EQ(SystemFactsLinux::osReleaseValue("NAME=\"Debian\"\nVERSION_ID=\"12\"\n", "VERSION_ID"), "12");
    EXPECT_EQ(SystemFactsLinux::osReleaseValue("# c\n  VERSION_ID='22.04'\r\n", "VERSION_ID"), "22.04");
    EXPECT_EQ(SystemFactsLinux::osReleaseValue("VERSION_ID=\"a\\\"b\"", "VERSION_ID"), "a\"b");
    EXPECT_EQ(SystemFactsLinux::osReleaseValue("VERSION_IDX=1\nID=arch\n", "VERSION_ID"), std::nullopt);
    TempDir dir;
    dir.write("os-release", "ID=debian\nVERSION_ID=\"10.7.2\"\n");
    SystemFactsLinux facts({dir.file("absent"), dir.file("os-release")});
    ScopedSystemFacts scoped(std::shared_ptr<SystemFacts>(&facts, [](SystemFacts*) {}));
    EXPECT_EQ(Utils::systemVersion(), Version(10, 7, 2));
    EXPECT_FALSE(facts.gestalt(fourCC("qtim")));
}

}  // namespace
}  // namespace qrl
