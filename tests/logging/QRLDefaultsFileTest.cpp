// The preferences file: its tagged JSON form, dates and base64, where it
// lives, and how the persistent store reads, merges, sets aside and replaces
// it.
#include "qrl/logging/detail/DefaultsFile.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <limits>
#include <random>

#include "logging/LoggingTestSupport.h"
#include "logging/QRLLogFileTestSupport.h"
#include "qrl/foundation/Decimal.h"

namespace qrl::detail {
namespace {

// Same type and same payload, recursively; reals bit for bit.
bool same(const Value& a, const Value& b) {
    if (a.type() != b.type()) return false;
    switch (a.type()) {
    case Value::Type::Real: {
        const double x = *a.asReal(), y = *b.asReal();
        return std::memcmp(&x, &y, sizeof x) == 0 || (std::isnan(x) && std::isnan(y));
    }
    case Value::Type::Decimal: return a.asDecimal()->toString() == b.asDecimal()->toString();
    case Value::Type::Array: {
        if (a.asArray()->size() != b.asArray()->size()) return false;
        for (size_t i = 0; i < a.asArray()->size(); ++i)
            if (!same((*a.asArray())[i], (*b.asArray())[i])) return false;
        return true;
    }
    case Value::Type::Dictionary: {
        if (a.asDictionary()->keys() != b.asDictionary()->keys()) return false;
        for (const auto& [key, item] : *a.asDictionary())
            if (!same(item, *b.asDictionary()->find(key))) return false;
        return true;
    }
    default: return a == b;
    }
}

// A random property-list value, biased towards the awkward cases.
Value randomValue(std::mt19937_64& rng, int depth) {
    std::uniform_int_distribution<int> kind(0, depth > 0 ? 9 : 7);
    const double reals[] = {3.0, -0.0, 0.1, 1e300, 5e-324, 1e21, -2.5e-7, 123456789.125,
                            std::numeric_limits<double>::infinity(), std::nan("")};
    const char* keys[] = {"a", "$date", "$data", "$dict", "$", "plain", "émoji 😀", ""};
    switch (kind(rng)) {
    case 0: return Value(static_cast<bool>(rng() & 1));
    case 1: return Value(static_cast<long long>(rng()));
    case 2: return Value(reals[rng() % std::size(reals)]);
    case 3: return Value(std::bit_cast<double>(rng() & 0x7FEFFFFFFFFFFFFFULL));  // finite
    case 4: return Value(*Decimal::parse(std::to_string(static_cast<int64_t>(rng())) + "e-" + std::to_string(rng() % 40)));
    case 5: return Value(Date{static_cast<int64_t>(rng())});
    case 6: {
        Data data(rng() % 7);
        for (auto& byte : data) byte = static_cast<uint8_t>(rng());
        return Value(std::move(data));
    }
    case 7: return Value(std::string(keys[rng() % std::size(keys)]) + "\"\\\n");
    case 8: {
        auto array = std::make_shared<Array>();
        for (size_t i = rng() % 4; i > 0; --i) array->push_back(randomValue(rng, depth - 1));
        return Value(std::move(array));
    }
    default: {
        auto dictionary = std::make_shared<Dictionary>();
        for (size_t i = rng() % 3; i > 0; --i) dictionary->set(keys[rng() % std::size(keys)], randomValue(rng, depth - 1));
        return Value(std::move(dictionary));
    }
    }
}

TEST(QRLDefaultsFileTest, GeneratedValuesComeBackWithTheirTypes) {
    std::mt19937_64 rng(20261121);
    for (int round = 0; round < 400; ++round) {
        Dictionary values;
        for (int i = 0; i < 4; ++i) values.set("k" + std::to_string(i), randomValue(rng, 3));
        ASSERT_EQ(defaultsValueProblem(Value(std::make_shared<Dictionary>(values))), std::nullopt);
        std::string problem;
        const auto text = defaultsFileText(values, &problem);
        ASSERT_TRUE(text) << problem;
        const auto back = parseDefaultsFileText(*text, &problem);
        ASSERT_TRUE(back) << problem << "\n" << *text;
        for (const auto& [key, item] : values)
            ASSERT_TRUE(same(item, back->get(key))) << item.description() << "\n" << *text;
    }
}

TEST(QRLDefaultsFileTest, TaggedAndPlainFormsAsTheyAppearInTheFile) {
    std::string problem;
    Dictionary values{{"when", Value(Date{978307200'000000001})},
                      {"bytes", Value(Data{0, 1, 2, 255})},
                      {"ratio", 0.5},
                      {"whole", 3.0},
                      {"trap", Value::dictionary({{"$date", "x"}})}};
    EXPECT_EQ(*defaultsFileText(values, &problem),
              "{\n  \"when\" : {\n    \"$date\" : \"2001-01-01T00:00:00.000000001Z\"\n  },\n"
              "  \"bytes\" : {\n    \"$data\" : \"AAEC/w==\"\n  },\n  \"ratio\" : 0.5,\n"
              "  \"whole\" : {\n    \"$real\" : \"3\"\n  },\n"
              "  \"trap\" : {\n    \"$dict\" : {\n      \"$date\" : \"x\"\n    }\n  }\n}\n");

    // Hand-edited files: tags that do not decode stay dictionaries, reals and
    // huge integers read as doubles, top-level nulls as absent.
    auto read = parseDefaultsFileText(R"({"a": {"$date": "2001-02-29T00:00:00Z"}, "b": {"$what": 1}, "c": 1.5,
        "d": 123456789012345678901234, "e": null, "f": {"$data": "Zh=="}, "g": [null]})", &problem);
    ASSERT_TRUE(read) << problem;
    EXPECT_TRUE(read->get("a").isDictionary());
    EXPECT_TRUE(read->get("b").isDictionary());
    EXPECT_TRUE(same(read->get("c"), Value(1.5)));
    EXPECT_TRUE(same(read->get("d"), Value(1.2345678901234568e23)));
    EXPECT_FALSE(read->contains("e"));
    EXPECT_TRUE(read->get("f").isDictionary());
    EXPECT_TRUE(read->get("g")[0].isNull());
}

TEST(QRLDefaultsFileTest, DatesAreUTCToTheNanosecondAndRefuseWhatIsOutOfRange) {
    EXPECT_EQ(formatDefaultsDate(Date{0}), "1970-01-01T00:00:00.000000000Z");
    EXPECT_EQ(formatDefaultsDate(Date{-1}), "1969-12-31T23:59:59.999999999Z");
    EXPECT_EQ(formatDefaultsDate(Date{951782400'000000000}), "2000-02-29T00:00:00.000000000Z");
    EXPECT_EQ(formatDefaultsDate(Date{INT64_MIN}), "1677-09-21T00:12:43.145224192Z");
    EXPECT_EQ(formatDefaultsDate(Date{INT64_MAX}), "2262-04-11T23:47:16.854775807Z");
    EXPECT_EQ(parseDefaultsDate("2001-01-01T00:00:00Z"), Date{978307200'000000000});
    EXPECT_EQ(parseDefaultsDate("2001-01-01T00:00:00.5Z"), Date{978307200'500000000});
    for (const char* bad : {"2001-02-29T00:00:00Z", "2000-13-01T00:00:00Z", "2000-01-01T24:00:00Z",
                            "2000-01-01T00:00:00", "2000-01-01T00:00:00.0000000001Z", "2262-04-11T23:47:16.854775808Z",
                            "1677-09-21T00:12:43.145224191Z", "20-01-01T00:00:00Z", "2000-01-01 00:00:00Z"})
        EXPECT_EQ(parseDefaultsDate(bad), std::nullopt) << bad;
}

TEST(QRLDefaultsFileTest, TheFileLivesUnderTheConfigHomeInAFolderPerApplication) {
    test::ScopedEnvironmentVariable xdg("XDG_CONFIG_HOME", "/x/conf"), home("HOME", "/home/someone/");
    EXPECT_EQ(defaultsPathForIdentifier("com.tessara.recorder"), "/x/conf/com.tessara.recorder/preferences.json");
    EXPECT_EQ(defaultsPathForIdentifier("a/../b"), "/x/conf/a_.._b/preferences.json");
    EXPECT_EQ(defaultsPathForIdentifier(".."), "/x/conf/_../preferences.json");
    setenv("XDG_CONFIG_HOME", "relative/conf", 1);  // not absolute: ignored
    EXPECT_EQ(defaultsPathForIdentifier("id"), "/home/someone/.config/id/preferences.json");
}


// ---- The persistent store and its file.

namespace fs = std::filesystem;

class PersistentStoreFile : public ::testing::Test {
protected:
    static std::string contents(const fs::path& path) { return test::readFile(path.string()); }
    std::vector<std::string> folderEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(fs::path(path_).parent_path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }

    test::ScopedConfigHome home_;
    test::CapturedPlatformLog log_;
    const std::string path_ = UserDefaults::standardPath();
};

TEST_F(PersistentStoreFile, TwoWritersOfOneFileKeepEachOthersKeys) {
    UserDefaults first(path_), second(path_);
    first.setInteger(1, "a");
    second.setInteger(2, "b");
    second.setInteger(9, "a");
    ASSERT_TRUE(second.synchronize());
    first.setInteger(3, "c");
    ASSERT_TRUE(first.synchronize());   // its own "a" wins: it set it
    ASSERT_TRUE(second.synchronize());  // nothing to save, picks up the other's keys
    EXPECT_EQ(Value(second.dictionaryRepresentation()), Value::dictionary({{"b", 2}, {"a", 1}, {"c", 3}}));
    EXPECT_EQ(Value(UserDefaults(path_).dictionaryRepresentation()), Value(second.dictionaryRepresentation()));
}

TEST_F(PersistentStoreFile, DamagedFilesAreReportedOnceAndKeptAsideAndTheStoreStartsEmpty) {
    {
        UserDefaults defaults(path_);
        defaults.setObject(Value::dictionary({{"k", "a long enough value"}}), "key");
    }
    const std::string whole = contents(path_);
    const std::string damaged[] = {whole.substr(0, whole.size() / 2), "\xff\xfe{}", "[1]", "", "{} {}"};
    for (const std::string& bytes : damaged) {
        { std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes; }
        const size_t reportsBefore = log_.lines().size();
        UserDefaults defaults(path_);
        EXPECT_EQ(defaults.dictionaryRepresentation()->size(), 0u) << bytes;
        ASSERT_EQ(log_.lines().size(), reportsBefore + 1) << bytes;
        EXPECT_NE(log_.lines().back().find(path_), std::string::npos);
        EXPECT_FALSE(fs::exists(path_));
        defaults.setInteger(1, "fresh");
        EXPECT_TRUE(defaults.synchronize());
        EXPECT_TRUE(defaults.synchronize());
        EXPECT_EQ(log_.lines().size(), reportsBefore + 1);
        EXPECT_EQ(contents(path_), "{\n  \"fresh\" : 1\n}\n");
    }
    // Every damaged file is still there, byte for byte, under a dated name.
    std::vector<std::string> kept;
    for (const std::string& name : folderEntries())
        if (name != "preferences.json") {
            EXPECT_EQ(name.rfind("preferences.corrupt-", 0), 0u) << name;
            kept.push_back(contents(fs::path(path_).parent_path() / name));
        }
    std::sort(kept.begin(), kept.end());
    std::vector<std::string> expected(std::begin(damaged), std::end(damaged));
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(kept, expected);
}

TEST_F(PersistentStoreFile, AFailedSaveLeavesTheOldFileWholeAndKeepsTheChanges) {
    {
        UserDefaults defaults(path_);
        defaults.setInteger(1, "old");
    }
    const std::string before = contents(path_);
    // In a child process, a file size limit makes the write of the temporary
    // file fail halfway.
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::signal(SIGXFSZ, SIG_IGN);
        const rlimit limit{4096, 4096};
        ::setrlimit(RLIMIT_FSIZE, &limit);
        UserDefaults defaults(path_);
        defaults.setObject(std::string(100000, 'x'), "big");
        _exit(!defaults.synchronize() && defaults.hasUnsavedChanges() && log_.lines().size() == 1 ? 0 : 1);
    }
    int status = 0;
    ::waitpid(pid, &status, 0);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    EXPECT_EQ(contents(path_), before);
    EXPECT_EQ(folderEntries(), std::vector<std::string>{"preferences.json"});

    // A folder that cannot be made: reported once, saved once it can be.
    const std::string blocked = home_.path() + "/blocker/app/preferences.json";
    { std::ofstream(home_.path() + "/blocker") << "a file where a folder should be"; }
    UserDefaults defaults(blocked);
    defaults.setInteger(2, "k");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(log_.lines().size(), 1u);
    EXPECT_TRUE(defaults.hasUnsavedChanges());
    fs::remove(home_.path() + "/blocker");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_FALSE(defaults.hasUnsavedChanges());
    EXPECT_EQ(UserDefaults(blocked).integerForKey("k"), 2);
}

}  // namespace
}  // namespace qrl::detail
