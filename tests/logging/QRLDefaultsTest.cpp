// The two preference stores behind one interface: what they share, and the
// documented ways the in-memory store differs from the persistent one; then
// the factory that hands out the current store.
#include "qrl/logging/QRLDefaults.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "logging/LoggingTestSupport.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/logging/QRLDefaultsFactory.h"
#include "qrl/logging/QRLNSUserDefaults.h"
#include "qrl/logging/QRLNonPersistentDefaults.h"

namespace qrl {
namespace {

using Strings = std::vector<std::string>;

// Run over both stores; `persistent()` selects the expected behaviour where
// they differ. Each test has a private config home and the platform log
// captured.
class QRLDefaultsContract : public ::testing::TestWithParam<bool> {
protected:
    bool persistent() const { return GetParam(); }

    test::ScopedConfigHome home_;
    test::CapturedPlatformLog log_;
    std::shared_ptr<QRLDefaults> store_ =
        persistent() ? std::shared_ptr<QRLDefaults>(std::make_shared<QRLNSUserDefaults>())
                     : std::make_shared<QRLNonPersistentDefaults>();
    QRLDefaults& d = *store_;
};

INSTANTIATE_TEST_SUITE_P(Stores, QRLDefaultsContract, ::testing::Bool(),
                         [](const auto& store) { return store.param ? "Persistent" : "InMemory"; });

TEST_P(QRLDefaultsContract, RegisteredDefaultsAndSetValues) {
    EXPECT_EQ(d.objectForKey("missing"), Value());
    EXPECT_EQ(d.integerForKey("missing"), 0);
    EXPECT_FALSE(d.boolForKey("missing"));
    d.setInteger(3, "level");
    d.setInteger(1, "other");
    d.registerDefaults(Dictionary{{"level", 2}, {"name", "registered"}});
    // Persistent: registered values lie beneath set ones. In memory: the key
    // is removed and added again, overwriting the set value.
    EXPECT_EQ(d.integerForKey("level"), persistent() ? 3 : 2);
    EXPECT_EQ(d.objectForKey("name"), Value("registered"));
    EXPECT_EQ(d.dictionaryRepresentation()->keys(),
              persistent() ? (Strings{"level", "name", "other"}) : (Strings{"other", "level", "name"}));
    // A null value removes the key from the persistent store, and the
    // registered value shows again; the in-memory store refuses it.
    if (persistent()) {
        d.setObject(Value(), "level");
        EXPECT_EQ(d.integerForKey("level"), 2);
    } else {
        EXPECT_THROW(d.setObject(Value(), "level"), Exception);
        EXPECT_EQ(d.integerForKey("level"), 2);
    }
    EXPECT_TRUE(log_.lines().empty());
}

TEST_P(QRLDefaultsContract, TypedGettersCoerceNumbersAlikeAndOnlyThePersistentStoreReadsText) {
    const bool p = persistent();
    const std::pair<Value, std::pair<int32_t, bool>> cases[] = {
        {"42", p ? std::pair{42, true} : std::pair{0, false}},
        {" -7x", p ? std::pair{-7, true} : std::pair{0, false}},
        {"YES", {0, p}},
        {"true", {0, p}},
        {"NO", {0, false}},
        {"0", {0, false}},
        {3.9, {3, true}},
        {true, {1, true}},
        {Value::array({1}), {0, false}},
        {Value(int64_t{0x100000005}), {5, true}}};
    for (const auto& [value, expected] : cases) {
        d.setObject(value, "k");
        EXPECT_EQ(d.objectForKey("k"), value);
        EXPECT_EQ(d.integerForKey("k"), expected.first) << value.description();
        EXPECT_EQ(d.boolForKey("k"), expected.second) << value.description();
    }
    // setInteger keeps 64 bits in the persistent store, the lower 32 (signed)
    // in memory.
    const std::pair<int64_t, int64_t> stored[] = {
        {0x100000007, 7}, {0xFFFFFFFF, -1}, {-1, -1}, {0x80000000, INT32_MIN}};
    for (const auto& [argument, kept] : stored) {
        d.setInteger(argument, "i");
        EXPECT_EQ(d.objectForKey("i"), Value(static_cast<long long>(p ? argument : kept))) << argument;
    }
}

TEST_P(QRLDefaultsContract, ObserversTheMapAndContainers) {
    const bool p = persistent();
    d.registerDefaults(Dictionary{{"level", 2}});
    auto observable = d.observableObject();
    if (p) EXPECT_EQ(observable, UserDefaults::standardUserDefaults());
    else EXPECT_EQ(observable.get(), static_cast<KeyObservable*>(dynamic_cast<QRLNonPersistentDefaults*>(&d)));
    Strings heard;
    observable->addObserver(
        "level",
        [&](std::string_view, const KeyValueChange& change) {
            // Reading the store back from inside the call must not deadlock.
            auto show = [](const std::optional<Value>& v) { return v ? v->description() : std::string("-"); };
            heard.push_back(show(change.oldValue) + ">" + show(change.newValue) + " reads " +
                            std::to_string(d.integerForKey("level")));
        },
        NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionOld | NSKeyValueObservingOptionNew);
    d.setInteger(3, "level");
    d.setInteger(3, "level");
    d.setObject(Value(3), "level");
    d.registerDefaults(Dictionary{{"level", 1}});  // tells nobody
    d.synchronize();
    // Persistent: every set is heard at once, the same value too. In memory:
    // only the initial call.
    if (p) {
        d.setObject(Value(), "level");
        EXPECT_EQ(heard, (Strings{"->2 reads 2", "2>3 reads 3", "3>3 reads 3", "3>3 reads 3", "3>1 reads 1"}));
    } else {
        EXPECT_EQ(heard, Strings{"->2 reads 2"});
    }

    // The in-memory map is live and containers stay shared with the caller;
    // the persistent store copies both in and out.
    const auto map = d.dictionaryRepresentation();
    d.setInteger(7, "later");
    EXPECT_EQ(map->contains("later"), !p);
    Value list = Value::array({1, 2});
    d.setObject(list, "list");
    list.asArray()->push_back(3);
    d.objectForKey("list").asArray()->push_back(4);
    EXPECT_EQ(d.objectForKey("list"), p ? Value::array({1, 2}) : Value::array({1, 2, 3, 4}));
}

TEST_P(QRLDefaultsContract, OnlyThePersistentStoreRefusesValuesItCannotSave) {
    struct Thing : Object {
        std::string description() const override { return "thing"; }
    };
    Value deep = Value::array({1});
    for (int i = 0; i < 128; ++i) deep = Value::array({deep});  // one level past the limit
    const Value unsaveable[] = {Value(std::static_pointer_cast<Object>(std::make_shared<Thing>())),
                                Value::array({1, Value()}), Value("\xed\xa0\x80"), deep};
    for (const Value& value : unsaveable) {
        d.setInteger(1, "k");
        if (!persistent()) {
            d.setObject(value, "k");
            EXPECT_EQ(d.objectForKey("k"), value);
            continue;
        }
        try {
            d.setObject(value, "k");
            ADD_FAILURE() << value.description();
        } catch (const Exception& e) {
            EXPECT_EQ(e.name(), "NSInvalidArgumentException");
        }
        EXPECT_EQ(d.integerForKey("k"), 1);
    }
    if (persistent()) {
        EXPECT_THROW(d.setObject(1, "\xc0"), Exception);
    }
}

TEST_P(QRLDefaultsContract, ManyThreadsSetRegisterReadObserveAndSave) {
    constexpr int kThreads = 4, kRounds = 200;
    std::atomic<int> calls{0};
    d.observableObject()->addObserver("shared", [&](std::string_view, const KeyValueChange&) {
        d.objectForKey("shared");  // back into the store from any thread
        calls.fetch_add(1, std::memory_order_relaxed);
    }, 0);
    std::latch start(kThreads + 1);
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t)
        threads.emplace_back([&, t] {
            start.arrive_and_wait();
            for (int i = 0; i < kRounds; ++i) {
                d.setInteger(i, "own" + std::to_string(t));
                d.setInteger(t, "shared");
                d.registerDefaults(Dictionary{{"registered", t}});
                d.integerForKey("registered");
                if (persistent()) d.dictionaryRepresentation();  // a copy: safe beside the writers
            }
        });
    threads.emplace_back([&] {
        start.arrive_and_wait();
        for (int i = 0; i < 20; ++i) d.synchronize();
    });
    for (auto& thread : threads) thread.join();
    EXPECT_EQ(calls.load(), persistent() ? kThreads * kRounds : 0);
    for (int t = 0; t < kThreads; ++t) EXPECT_EQ(d.integerForKey("own" + std::to_string(t)), kRounds - 1);
    if (persistent()) {
        ASSERT_TRUE(UserDefaults::standardUserDefaults()->synchronize());
        UserDefaults reread(UserDefaults::standardPath());
        for (int t = 0; t < kThreads; ++t) EXPECT_EQ(reread.integerForKey("own" + std::to_string(t)), kRounds - 1);
        EXPECT_EQ(reread.integerForKey("shared"), d.integerForKey("shared"));
    }
}

TEST(QRLNonPersistentDefaults, ANullMapIgnoresEverythingAndTheObservableSharesOwnership) {
    auto defaults = std::make_shared<QRLNonPersistentDefaults>();
    auto observable = defaults->observableObject();
    std::weak_ptr<QRLNonPersistentDefaults> weak = defaults;
    defaults.reset();
    EXPECT_FALSE(weak.expired());
    observable.reset();
    EXPECT_TRUE(weak.expired());

    QRLNonPersistentDefaults d;
    d.setDict(nullptr);
    d.setObject(Value(), "k");
    d.setInteger(2, "k");
    d.registerDefaults(Dictionary{{"k", 3}});
    EXPECT_EQ(d.objectForKey("k"), Value());
    EXPECT_EQ(d.integerForKey("k"), 0);
    EXPECT_EQ(d.dictionaryRepresentation(), nullptr);
    EXPECT_EQ(d.description().rfind("<QRLNonPersistentDefaults: 0x", 0), 0u);
}

// ---- The factory.

class QRLDefaultsFactoryTest : public ::testing::Test {
protected:
    void TearDown() override { QRLDefaultsFactory::useNSUserDefaults(); }
    test::ScopedConfigHome home_;
};

TEST_F(QRLDefaultsFactoryTest, EverySwitchAnnouncesTheEndAndDropsTheStore) {
    QRLDefaultsFactory::useNonPersistentDefaults();
    auto first = QRLDefaultsFactory::shared();
    EXPECT_EQ(QRLDefaultsFactory::shared(), first);
    ASSERT_TRUE(std::dynamic_pointer_cast<QRLNonPersistentDefaults>(first));
    first->setInteger(3, "level");

    std::vector<std::shared_ptr<QRLDefaults>> seenDuring;
    auto token = NotificationCenter::defaultCenter().addObserver(
        QRLDefaultsBeingDeallocated, QRLDefaultsFactory::classObject(),
        // The lock is recursive: the old store is still the current one here.
        [&](const Notification&) { seenDuring.push_back(QRLDefaultsFactory::shared()); });

    std::weak_ptr<QRLDefaults> weakFirst = first;
    first.reset();
    QRLDefaultsFactory::useNonPersistentDefaults();  // same kind: still announced, still dropped
    ASSERT_EQ(seenDuring.size(), 1u);
    EXPECT_EQ(seenDuring[0], weakFirst.lock());
    seenDuring.clear();
    EXPECT_TRUE(weakFirst.expired());
    auto second = QRLDefaultsFactory::shared();
    EXPECT_EQ(second->objectForKey("level"), Value());  // nothing carried over

    QRLDefaultsFactory::useNSUserDefaults();
    EXPECT_EQ(seenDuring, std::vector<std::shared_ptr<QRLDefaults>>{second});
    auto persistent = QRLDefaultsFactory::shared();
    EXPECT_TRUE(std::dynamic_pointer_cast<QRLNSUserDefaults>(persistent));
    persistent->setInteger(5, "level");
    EXPECT_EQ(UserDefaults::standardUserDefaults()->integerForKey("level"), 5);
    NotificationCenter::defaultCenter().removeObserver(token);
}

TEST_F(QRLDefaultsFactoryTest, AThrowingObserverDoesNotStopTheSwitch) {
    QRLDefaultsFactory::shared();
    auto token = NotificationCenter::defaultCenter().addObserver(
        QRLDefaultsBeingDeallocated, nullptr, [](const Notification&) { throw std::runtime_error("observer"); });
    EXPECT_THROW(QRLDefaultsFactory::useNonPersistentDefaults(), std::runtime_error);
    NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_TRUE(std::dynamic_pointer_cast<QRLNonPersistentDefaults>(QRLDefaultsFactory::shared()));
}

TEST_F(QRLDefaultsFactoryTest, ThreadsAlwaysGetAStoreWhileItIsSwitched) {
    std::atomic<bool> done{false};
    std::atomic<int> nulls{0};
    std::latch start(4);
    std::vector<std::thread> readers;
    for (int t = 0; t < 3; ++t)
        readers.emplace_back([&] {
            start.arrive_and_wait();
            while (!done.load()) {
                auto store = QRLDefaultsFactory::shared();
                if (!store) nulls.fetch_add(1);
                else store->integerForKey("level");
            }
        });
    start.arrive_and_wait();
    for (int i = 0; i < 200; ++i)
        i % 2 ? QRLDefaultsFactory::useNSUserDefaults() : QRLDefaultsFactory::useNonPersistentDefaults();
    done.store(true);
    for (auto& reader : readers) reader.join();
    EXPECT_EQ(nulls.load(), 0);
}

}  // namespace
}  // namespace qrl
