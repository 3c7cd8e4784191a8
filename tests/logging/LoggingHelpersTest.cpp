// The helpers Logging reads and observes with: a map's integer and boolean
// by key, from numbers and strings only, and observation of a list of keys,
// whose removal logs and skips a key it cannot take off.
#include <gtest/gtest.h>

#include <limits>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/DictionaryHelpers.h"
#include "qrl/logging/KeyObservationHelpers.h"
#include "qrl/logging/LogLevels.h"

namespace qrl {
namespace {

TEST(LoggingMapHelpers, NumbersAndStringsConvertAndEverythingElseIsZero) {
    const Dictionary map{
        {"int", 4},
        {"real", -2.9},
        {"true", true},
        {"digits", "42 apples"},
        {"signed", "  -7"},
        {"yes", "YES"},
        {"word", "no"},
        {"huge", 1e300},
        {"null", Value()},
        {"data", Data{1}},
        {"list", Value::array({1})},
        {"map", Value::dictionary({{"a", 1}})},
        {"date", Date{1'000'000'000}},
    };
    struct Row {
        const char* key;
        int64_t integer;
        bool boolean;
    };
    const Row rows[] = {
        {"int", 4, true},      {"real", -2, true},    {"true", 1, true},    {"digits", 42, true},
        {"signed", -7, true},  {"yes", 0, true},      {"word", 0, false},   {"null", 0, false},
        {"data", 0, false},    {"list", 0, false},    {"map", 0, false},    {"date", 0, false},
        {"missing", 0, false}, {"huge", std::numeric_limits<int64_t>::max(), true},
    };
    for (const Row& row : rows) {
        EXPECT_EQ(integerValueForKey(map, row.key), row.integer) << row.key;
        EXPECT_EQ(boolValueForKey(map, row.key), row.boolean) << row.key;
    }

    // Through a Value: only a dictionary answers.
    const Value boxed(std::make_shared<Dictionary>(map));
    EXPECT_EQ(integerValueForKey(boxed, "int"), 4);
    EXPECT_TRUE(boolValueForKey(boxed, "yes"));
    EXPECT_EQ(integerValueForKey(Value(), "int"), 0);
    EXPECT_FALSE(boolValueForKey(Value("int"), "int"));
    EXPECT_EQ(integerValueForKey(Value::array({4}), "0"), 0);
}

// Notes every call with its key and context.
class NotingObserver : public KeyValueObserver {
public:
    void observeValueForKeyPath(std::string_view keyPath, KeyObservable& object, const KeyValueChange& change,
                                void* context) override {
        calls.push_back(std::string(keyPath) + (change.newValue ? "=" + change.newValue->description() : ""));
        objects.push_back(&object);
        contexts.push_back(context);
    }
    std::string description() const override { return "<NotingObserver>"; }
    std::vector<std::string> calls;
    std::vector<KeyObservable*> objects;
    std::vector<void*> contexts;
};

TEST(LoggingObservationHelpers, AListOfKeysIsObservedInOneCallWithItsOptionsAndContext) {
    Dictionary values{{"a", 1}, {"b", 2}};
    KeyObservable object([&](std::string_view key) { return values.get(key); });
    NotingObserver observer;
    int context = 0;
    addObserver(object, observer, {"a", "b"}, NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionNew,
                &context);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"a=1", "b=2"}));
    addObserver(object, observer, {"c"}, 0);
    object.notifyChange("c", Value(), 3);
    object.notifyChange("b", 2, 5);
    EXPECT_EQ(observer.calls, (std::vector<std::string>{"a=1", "b=2", "c", "b=5"}));
    EXPECT_EQ(observer.contexts, (std::vector<void*>{&context, &context, nullptr, &context}));
    for (KeyObservable* o : observer.objects) EXPECT_EQ(o, &object);
    EXPECT_EQ(object.observerCount(), 3u);

    removeObserver(object, observer, {"a", "b", "c"});
    EXPECT_EQ(object.observerCount(), 0u);
    object.notifyChange("a", 1, 2);
    EXPECT_EQ(observer.calls.size(), 4u);
}

TEST(LoggingObservationHelpers, AKeyThatCannotBeTakenOffIsLoggedInTheDebugDomainAndTheWalkGoesOn) {
    KeyObservable object;
    NotingObserver observer;
    addObserver(object, observer, {"a", "c"}, 0);

    const auto savedEnabled = qrl_loggingEnabled.load();
    const auto savedLevel = applicationLogLevel.load();
    const auto savedMask = additionalApplicationLogLevel.load();
    qrl_loggingEnabled = true;
    applicationLogLevel = kLogLevelVerbose;
    additionalApplicationLogLevel = 0;
    auto capture = std::make_shared<test::CapturingLogger>();
    {
        test::ScopedLogger scoped(capture);
        EXPECT_NO_THROW(removeObserver(object, observer, {"never"}));  // without the domain: silent
        additionalApplicationLogLevel = kLoggingDebug;
        removeObserver(object, observer, {"a", "b", "c"});
    }
    qrl_loggingEnabled = savedEnabled;
    applicationLogLevel = savedLevel;
    additionalApplicationLogLevel = savedMask;

    EXPECT_EQ(object.observerCount(), 0u);  // "c" after the failing "b"
    const auto messages = capture->messages();
    ASSERT_EQ(messages.size(), 1u);
    EXPECT_EQ(messages[0].message.rfind("Ignored Exception while removing observer <NotingObserver>. ", 0), 0u)
        << messages[0].message;
    EXPECT_NE(messages[0].message.find("b"), std::string::npos);
    EXPECT_EQ(messages[0].flag, kLogFlagVerbose);
    EXPECT_EQ(messages[0].context, kLogContextApplication);
}

}  // namespace
}  // namespace qrl
