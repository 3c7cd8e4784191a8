// The in-memory store and the ways it differs on purpose from the persistent one.
#include "qrl/logging/QRLNonPersistentDefaults.h"

#include <gtest/gtest.h>

#include <latch>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

TEST(QRLNonPersistentDefaultsTest, ARegisteredValueOverwritesASetOne) {
    auto defaults = std::make_shared<QRLNonPersistentDefaults>();
    defaults->setInteger(3, "level");
    defaults->setInteger(1, "other");
    defaults->registerDefaults(Dictionary{{"level", 2}});
    EXPECT_EQ(defaults->integerForKey("level"), 2);
    EXPECT_EQ(defaults->dict()->keys(), (std::vector<std::string>{"other", "level"}));  // removed, then added
    EXPECT_EQ(defaults->objectForKey("missing"), Value());
    EXPECT_EQ(defaults->integerForKey("missing"), 0);
    EXPECT_FALSE(defaults->boolForKey("missing"));
}

TEST(QRLNonPersistentDefaultsTest, OnlyNumbersCoerceAndIntegersKeep32Bits) {
    QRLNonPersistentDefaults defaults;
    const std::pair<Value, std::pair<int32_t, bool>> cases[] = {
        {"42", {0, false}},  {"YES", {0, false}},  {3.9, {3, true}},  {-0.5, {0, true}},
        {true, {1, true}},   {Value(int64_t{0x100000005}), {5, true}}, {Value::array({1}), {0, false}}};
    for (const auto& [value, expected] : cases) {
        defaults.setObject(value, "k");
        EXPECT_EQ(defaults.integerForKey("k"), expected.first) << value.description();
        EXPECT_EQ(defaults.boolForKey("k"), expected.second) << value.description();
        EXPECT_EQ(defaults.objectForKey("k"), value);
    }
    const std::pair<int64_t, int64_t> stored[] = {{0x100000007, 7}, {0xFFFFFFFF, -1}, {-1, -1}, {0x80000000, INT32_MIN}};
    for (const auto& [argument, kept] : stored) {
        defaults.setInteger(argument, "i");
        EXPECT_EQ(defaults.objectForKey("i"), Value(static_cast<long long>(kept))) << argument;
    }
}

TEST(QRLNonPersistentDefaultsTest, TheMapIsLiveAndObserversHearOnlyTheirInitialCall) {
    auto defaults = std::make_shared<QRLNonPersistentDefaults>();
    const auto map = defaults->dictionaryRepresentation();
    EXPECT_EQ(map, defaults->dict());
    defaults->setInteger(1, "level");
    EXPECT_EQ(map->get("level"), Value(1));  // a later change shows

    std::vector<std::string> heard;
    auto observable = defaults->observableObject();
    EXPECT_EQ(observable.get(), static_cast<KeyObservable*>(defaults.get()));
    observable->addObserver(
        "level", [&](std::string_view, const KeyValueChange& change) { heard.push_back(change.newValue->description()); },
        NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionNew);
    defaults->setInteger(2, "level");
    defaults->setObject(3, "level");
    defaults->registerDefaults(Dictionary{{"level", 4}});
    defaults->synchronize();  // does nothing
    EXPECT_EQ(heard, std::vector<std::string>{"1"});

    // The observable object shares the store's ownership.
    std::weak_ptr<QRLNonPersistentDefaults> weak = defaults;
    defaults.reset();
    EXPECT_FALSE(weak.expired());
    observable.reset();
    EXPECT_TRUE(weak.expired());
}

TEST(QRLNonPersistentDefaultsTest, NullsAreRefusedAndANullMapIgnoresEverything) {
    QRLNonPersistentDefaults defaults;
    defaults.setInteger(1, "k");
    EXPECT_THROW(defaults.setObject(Value(), "k"), Exception);
    EXPECT_EQ(defaults.integerForKey("k"), 1);
    defaults.setDict(nullptr);
    defaults.setObject(Value(), "k");
    defaults.setInteger(2, "k");
    defaults.registerDefaults(Dictionary{{"k", 3}});
    EXPECT_EQ(defaults.objectForKey("k"), Value());
    EXPECT_EQ(defaults.integerForKey("k"), 0);
    EXPECT_EQ(defaults.dictionaryRepresentation(), nullptr);
    EXPECT_EQ(defaults.description().rfind("<QRLNonPersistentDefaults: 0x", 0), 0u);
}

TEST(QRLNonPersistentDefaultsTest, TheStoresOwnOperationsMayRunOnManyThreads) {
    QRLNonPersistentDefaults defaults;
    std::latch start(4);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < 500; ++i) {
                defaults.setInteger(i, "k" + std::to_string(t));
                defaults.registerDefaults(Dictionary{{"shared", t}});
                defaults.integerForKey("shared");
            }
        });
    for (auto& thread : threads) thread.join();
    for (int t = 0; t < 4; ++t) EXPECT_EQ(defaults.integerForKey("k" + std::to_string(t)), 499);
}

}  // namespace
}  // namespace qrl
