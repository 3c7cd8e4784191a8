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

// ---- The factory.

class QRLDefaultsFactoryTest : public ::testing::Test {
protected:
    void TearDown() override { QRLDefaultsFactory::useNSUserDefaults(); }
    test::ScopedConfigHome home_;
};

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
