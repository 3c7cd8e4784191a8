// The factory: one current store, switched at run time with an announcement.
#include "qrl/logging/QRLDefaultsFactory.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <latch>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qrl/foundation/NotificationCenter.h"
#include "qrl/logging/QRLNSUserDefaults.h"
#include "qrl/logging/QRLNonPersistentDefaults.h"

namespace qrl {
namespace {

// The persistent store may be made: keep it in a private config home.
class QRLDefaultsFactoryTest : public ::testing::Test {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/qrl-factory-XXXXXX";
        ASSERT_NE(::mkdtemp(pattern), nullptr);
        home_ = pattern;
        if (const char* old = std::getenv("XDG_CONFIG_HOME")) saved_ = old;
        setenv("XDG_CONFIG_HOME", home_.c_str(), 1);
        UserDefaults::resetStandardUserDefaults();
    }
    void TearDown() override {
        QRLDefaultsFactory::useNSUserDefaults();
        UserDefaults::resetStandardUserDefaults();
        saved_ ? setenv("XDG_CONFIG_HOME", saved_->c_str(), 1) : unsetenv("XDG_CONFIG_HOME");
        std::filesystem::remove_all(home_);
    }
    std::string home_;
    std::optional<std::string> saved_;
};

TEST_F(QRLDefaultsFactoryTest, EverySwitchAnnouncesTheEndAndDropsTheStore) {
    QRLDefaultsFactory::useNonPersistentDefaults();
    auto first = QRLDefaultsFactory::shared();
    EXPECT_EQ(QRLDefaultsFactory::shared(), first);
    ASSERT_TRUE(std::dynamic_pointer_cast<QRLNonPersistentDefaults>(first));
    first->setInteger(3, "level");
    first->registerDefaults(Dictionary{{"level", 2}});
    EXPECT_EQ(first->integerForKey("level"), 2);

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
    EXPECT_EQ(seenDuring.size(), 1u);
    EXPECT_EQ(seenDuring[0], second);
    auto persistent = QRLDefaultsFactory::shared();
    EXPECT_TRUE(std::dynamic_pointer_cast<QRLNSUserDefaults>(persistent));
    persistent->setInteger(5, "level");
    EXPECT_EQ(UserDefaults::standardUserDefaults()->integerForKey("level"), 5);
    NotificationCenter::defaultCenter().removeObserver(token);
}

TEST_F(QRLDefaultsFactoryTest, AThrowingObserverDoesNotStopTheSwitch) {
    QRLDefaultsFactory::useNSUserDefaults();
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
