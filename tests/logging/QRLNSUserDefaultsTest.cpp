// The persistent store: registered defaults beneath stored values, the
// platform's coercions, observers, saving across objects and processes,
// damaged files and failed saves, and use from many threads.
#include "qrl/logging/QRLNSUserDefaults.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <fstream>
#include <latch>
#include <mutex>
#include <sstream>
#include <thread>
#include <vector>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {
namespace {

namespace fs = std::filesystem;

// A private XDG_CONFIG_HOME for one test, with a fresh standard store.
class QRLNSUserDefaultsTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qrl-defaults-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        home_ = pattern;
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) saved_ = old;
        setenv("XDG_CONFIG_HOME", home_.c_str(), 1);
        UserDefaults::resetStandardUserDefaults();
        previousWriter_ = setPlatformLogWriter([this](std::string_view message) {
            std::lock_guard lock(logMutex_);
            log_.emplace_back(message);
        });
        path_ = UserDefaults::standardPath();
    }
    void TearDown() override {
        UserDefaults::resetStandardUserDefaults();
        setPlatformLogWriter(previousWriter_);
        saved_ ? setenv("XDG_CONFIG_HOME", saved_->c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
        fs::remove_all(home_);
    }

    std::vector<std::string> log() {
        std::lock_guard lock(logMutex_);
        return log_;
    }
    static std::string contents(const fs::path& path) {
        std::ifstream in(path, std::ios::binary);
        std::stringstream out;
        out << in.rdbuf();
        return out.str();
    }
    std::vector<std::string> folderEntries() const {
        std::vector<std::string> names;
        for (const auto& entry : fs::directory_iterator(fs::path(path_).parent_path()))
            names.push_back(entry.path().filename().string());
        std::sort(names.begin(), names.end());
        return names;
    }
    // Runs `body` in a child process; its result is the exit status.
    static int inChild(const std::function<bool()>& body) {
        const pid_t pid = ::fork();
        if (pid == 0) _exit(body() ? 0 : 1);
        int status = 0;
        ::waitpid(pid, &status, 0);
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128;
    }

    std::string home_, path_;
    std::optional<std::string> saved_;
    PlatformLogWriter previousWriter_;
    std::mutex logMutex_;
    std::vector<std::string> log_;
};

TEST_F(QRLNSUserDefaultsTest, RegisteredDefaultsLieBeneathStoredValuesAndAreNeverSaved) {
    QRLNSUserDefaults defaults;
    EXPECT_EQ(path_, home_ + "/" + Bundle::main()->identifier + "/preferences.json");
    defaults.registerDefaults(Dictionary{{"level", 2}, {"name", "registered"}});
    defaults.setInteger(4, "level");
    defaults.registerDefaults(Dictionary{{"level", 3}});  // does not reach above the stored 4
    EXPECT_EQ(defaults.integerForKey("level"), 4);
    EXPECT_EQ(defaults.objectForKey("name"), Value("registered"));
    EXPECT_EQ(defaults.dictionaryRepresentation()->keys(), (std::vector<std::string>{"level", "name"}));
    defaults.setObject(Value(), "level");  // a removal: the registered value shows again
    EXPECT_EQ(defaults.integerForKey("level"), 3);
    defaults.setInteger(5, "level");
    defaults.synchronize();
    EXPECT_EQ(contents(path_), "{\n  \"level\" : 5\n}\n");
    UserDefaults fresh(path_);
    EXPECT_EQ(fresh.objectForKey("name"), Value());
    EXPECT_EQ(fresh.integerForKey("level"), 5);
}

TEST_F(QRLNSUserDefaultsTest, TypedGettersCoerceAsThePlatformDoes) {
    QRLNSUserDefaults defaults;
    const std::pair<Value, std::pair<int32_t, bool>> cases[] = {
        {"42", {42, true}},      {" -7x", {-7, true}},  {"YES", {0, true}},  {"true", {0, true}},
        {"NO", {0, false}},      {"0", {0, false}},     {3.9, {3, true}},     {true, {1, true}},
        {Value::array({1}), {0, false}},                {Value(int64_t{0x100000005}), {5, true}}};
    for (const auto& [value, expected] : cases) {
        defaults.setObject(value, "k");
        EXPECT_EQ(defaults.integerForKey("k"), expected.first) << value.description();
        EXPECT_EQ(defaults.boolForKey("k"), expected.second) << value.description();
    }
    EXPECT_EQ(UserDefaults::standardUserDefaults()->integerForKey("k"), 0x100000005);  // 64 bits underneath
    EXPECT_EQ(defaults.objectForKey("missing"), Value());
    EXPECT_EQ(defaults.integerForKey("missing"), 0);
    EXPECT_FALSE(defaults.boolForKey("missing"));
}

TEST_F(QRLNSUserDefaultsTest, ObserversHearEverySetAtOnceEvenOfTheSameValue) {
    QRLNSUserDefaults defaults;
    defaults.registerDefaults(Dictionary{{"level", 2}});
    std::vector<std::string> heard;
    auto observable = defaults.observableObject();
    EXPECT_EQ(observable, UserDefaults::standardUserDefaults());
    observable->addObserver(
        "level",
        [&](std::string_view, const KeyValueChange& change) {
            // Reading the store back from inside the call must not deadlock.
            auto show = [](const std::optional<Value>& v) { return v ? v->description() : std::string("-"); };
            heard.push_back(show(change.oldValue) + ">" + show(change.newValue) + " reads " +
                            std::to_string(defaults.integerForKey("level")));
        },
        NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionOld | NSKeyValueObservingOptionNew);
    defaults.setInteger(3, "level");
    defaults.setInteger(3, "level");
    defaults.setObject(Value(3), "level");
    defaults.registerDefaults(Dictionary{{"level", 1}});  // tells nobody
    defaults.setObject(Value(), "level");
    EXPECT_EQ(heard, (std::vector<std::string>{"->2 reads 2", "2>3 reads 3", "3>3 reads 3", "3>3 reads 3",
                                               "3>1 reads 1"}));
}

TEST_F(QRLNSUserDefaultsTest, ValuesThatCannotBeSavedAreRefusedAndChangeNothing) {
    QRLNSUserDefaults defaults;
    defaults.setInteger(1, "k");
    struct Thing : Object {
        std::string description() const override { return "thing"; }
    };
    Value deep = Value::array({1});
    for (int i = 0; i < 128; ++i) deep = Value::array({deep});  // one level past the limit
    const Value refused[] = {Value(std::static_pointer_cast<Object>(std::make_shared<Thing>())),
                             Value::array({1, Value()}), Value("\xed\xa0\x80"), deep};
    for (const Value& value : refused) {
        try {
            defaults.setObject(value, "k");
            ADD_FAILURE() << value.description();
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), "NSInvalidArgumentException");
        }
    }
    EXPECT_THROW(defaults.setObject(1, "\xc0"), Exception);
    EXPECT_EQ(defaults.integerForKey("k"), 1);
    // Containers are copied in and out.
    Value list = Value::array({1, 2});
    defaults.setObject(list, "list");
    list.asArray()->push_back(3);
    defaults.objectForKey("list").asArray()->push_back(4);
    EXPECT_EQ(defaults.objectForKey("list"), Value::array({1, 2}));
}

TEST_F(QRLNSUserDefaultsTest, ValuesOutliveTheStoreObjectAndTheProcess) {
    const Dictionary values{{"date", Value(Date{-1})}, {"data", Value(Data{0, 255})}, {"real", 0.25},
                            {"nested", Value::dictionary({{"list", Value::array({true, "s", Value(Date{5})})}})}};
    {
        QRLNSUserDefaults defaults;
        for (const auto& [key, value] : values) defaults.setObject(value, key);
    }
    UserDefaults::resetStandardUserDefaults();  // saves, as the end of the process does
    EXPECT_EQ(inChild([&] {
                  UserDefaults defaults(path_);
                  for (const auto& [key, value] : values)
                      if (!(defaults.objectForKey(key) == value)) return false;
                  defaults.setInteger(7, "fromChild");
                  return defaults.synchronize();
              }),
              0);
    QRLNSUserDefaults defaults;  // a new standard store reading the file
    EXPECT_TRUE(defaults.objectForKey("date").isDate());
    EXPECT_TRUE(defaults.objectForKey("data").isData());
    EXPECT_EQ(Value(defaults.dictionaryRepresentation()),
              Value::dictionary({{"date", Value(Date{-1})}, {"data", Value(Data{0, 255})}, {"real", 0.25},
                                 {"nested", values.get("nested")}, {"fromChild", 7}}));
    EXPECT_TRUE(log().empty());
}

TEST_F(QRLNSUserDefaultsTest, TwoWritersOfOneFileKeepEachOthersKeys) {
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

TEST_F(QRLNSUserDefaultsTest, DamagedFilesAreReportedOnceAndKeptAsideAndTheStoreStartsEmpty) {
    {
        UserDefaults defaults(path_);
        defaults.setObject(Value::dictionary({{"k", "a long enough value"}}), "key");
    }
    const std::string whole = contents(path_);
    const std::string damaged[] = {whole.substr(0, whole.size() / 2), "\xff\xfe{}", "[1]", "", "{} {}"};
    for (const std::string& bytes : damaged) {
        { std::ofstream(path_, std::ios::binary | std::ios::trunc) << bytes; }
        const size_t reportsBefore = log().size();
        UserDefaults defaults(path_);
        EXPECT_EQ(defaults.dictionaryRepresentation()->size(), 0u) << bytes;
        ASSERT_EQ(log().size(), reportsBefore + 1) << bytes;
        EXPECT_NE(log().back().find(path_), std::string::npos);
        EXPECT_FALSE(fs::exists(path_));
        defaults.setInteger(1, "fresh");
        EXPECT_TRUE(defaults.synchronize());
        EXPECT_TRUE(defaults.synchronize());
        EXPECT_EQ(log().size(), reportsBefore + 1);
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

    // A folder in the file's place is no file either.
    fs::remove(path_);
    fs::create_directory(path_);
    const size_t reportsBefore = log().size();
    UserDefaults defaults(path_);
    EXPECT_EQ(log().size(), reportsBefore + 1);
    EXPECT_FALSE(fs::exists(path_));
}

TEST_F(QRLNSUserDefaultsTest, AFailedSaveLeavesTheOldFileWholeAndKeepsTheChanges) {
    {
        UserDefaults defaults(path_);
        defaults.setInteger(1, "old");
    }
    const std::string before = contents(path_);
    // A file size limit makes the write of the temporary file fail halfway.
    EXPECT_EQ(inChild([&] {
                  ::signal(SIGXFSZ, SIG_IGN);
                  const rlimit limit{4096, 4096};
                  ::setrlimit(RLIMIT_FSIZE, &limit);
                  UserDefaults defaults(path_);
                  defaults.setObject(std::string(100000, 'x'), "big");
                  return !defaults.synchronize() && defaults.hasUnsavedChanges() && log().size() == 1;
              }),
              0);
    EXPECT_EQ(contents(path_), before);
    EXPECT_EQ(folderEntries(), std::vector<std::string>{"preferences.json"});

    // A folder that cannot be made: reported once, saved once it can be.
    const std::string blocked = home_ + "/blocker/app/preferences.json";
    { std::ofstream(home_ + "/blocker") << "a file where a folder should be"; }
    UserDefaults defaults(blocked);
    defaults.setInteger(2, "k");
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_FALSE(defaults.synchronize());
    EXPECT_EQ(log().size(), 1u);
    EXPECT_TRUE(defaults.hasUnsavedChanges());
    fs::remove(home_ + "/blocker");
    EXPECT_TRUE(defaults.synchronize());
    EXPECT_FALSE(defaults.hasUnsavedChanges());
    EXPECT_EQ(UserDefaults(blocked).integerForKey("k"), 2);
}

TEST_F(QRLNSUserDefaultsTest, ManyThreadsSetReadObserveAndSave) {
    auto store = UserDefaults::standardUserDefaults();
    constexpr int kThreads = 4, kRounds = 200;
    std::atomic<int> calls{0};
    store->addObserver("shared", [&](std::string_view, const KeyValueChange&) {
        store->objectForKey("shared");  // back into the store from any thread
        calls.fetch_add(1, std::memory_order_relaxed);
    }, 0);
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                store->setInteger(i, "own" + std::to_string(t));
                store->setInteger(t, "shared");
                store->dictionaryRepresentation();
            }
        });
    std::thread saver([&] {
        start.arrive_and_wait();
        for (int i = 0; i < 20; ++i) store->synchronize();
    });
    for (auto& thread : threads) thread.join();
    saver.join();
    EXPECT_EQ(calls.load(), kThreads * kRounds);
    ASSERT_TRUE(store->synchronize());
    UserDefaults reread(path_);
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(reread.integerForKey("own" + std::to_string(t)), kRounds - 1);
    EXPECT_EQ(reread.integerForKey("shared"), store->integerForKey("shared"));
}

}  // namespace
}  // namespace qrl
