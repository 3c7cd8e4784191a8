#include "qrl/foundation/KeyObservation.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <mutex>
#include <stdexcept>
#include <thread>
#include <vector>

#include "qrl/foundation/Exception.h"

namespace qrl {
namespace {

// A small preference store: the kind of object the observation serves.
class Store : public KeyObservable {
public:
    Store() {
        setValueGetter([this](std::string_view key) {
            std::lock_guard lock(mutex_);
            auto it = values_.find(std::string(key));
            return it == values_.end() ? Value() : it->second;
        });
    }
    void set(const std::string& key, Value value) {
        willChangeValueForKey(key);
        {
            std::lock_guard lock(mutex_);
            values_[key] = std::move(value);
        }
        didChangeValueForKey(key);
    }

private:
    std::mutex mutex_;
    std::map<std::string, Value> values_;
};

std::string show(const std::optional<Value>& v) { return v ? v->description() : "-"; }

// "old>new" for a change, with "-" where a value was not asked for.
std::string show(const KeyValueChange& c) { return (c.isPrior ? "prior " : "") + show(c.oldValue) + ">" + show(c.newValue); }

TEST(KeyObservationTest, OptionsDecideWhatAnObserverIsTold) {
    Store store;
    store.set("level", 2);
    std::vector<std::string> seen;
    auto record = [&](const char* who) {
        return [&, who](std::string_view key, const KeyValueChange& c) {
            EXPECT_EQ(c.kind, NSKeyValueChange::Setting);
            seen.push_back(std::string(who) + " " + std::string(key) + " " + show(c));
        };
    };
    store.addObserver("level", record("initial+new"), NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionNew);
    store.addObserver("level", record("initial"), NSKeyValueObservingOptionInitial);
    // Initial fires inside addObserver, before it returns.
    EXPECT_EQ(seen, (std::vector<std::string>{"initial+new level ->2", "initial level ->-"}));
    seen.clear();
    store.addObserver("level", record("old+new"), NSKeyValueObservingOptionOld | NSKeyValueObservingOptionNew);
    store.addObserver("level", record("prior"), NSKeyValueObservingOptionPrior | NSKeyValueObservingOptionOld);
    store.addObserver("missing", record("missing"), NSKeyValueObservingOptionInitial | NSKeyValueObservingOptionNew);
    store.set("level", 3);
    store.notifyChange("level", 3, "three");
    EXPECT_EQ(seen, (std::vector<std::string>{
                        "missing missing ->(null)",  // a key without a value is null, and present
                        "prior level prior 2>-",
                        "initial+new level ->3", "initial level ->-", "old+new level 2>3", "prior level 2>-",
                        "initial+new level ->three", "initial level ->-", "old+new level 3>three", "prior level 3>-"}));
}

TEST(KeyObservationTest, CallbacksMayChangeValuesAndAddOrRemoveObservers) {
    Store store;
    std::vector<std::string> seen;
    KeyObservable::Token self = 0, later = 0, added = 0;
    // Changing "a" sets "b" from inside the callback (a nested announcement),
    // and a callback of "a" removes itself on its second call.
    store.addObserver("a", [&](std::string_view, const KeyValueChange& c) {
        seen.push_back("a1 " + show(c.newValue));
        store.set("b", c.newValue->integerValue() * 10);
        store.removeObserver(later);  // not called later in this announcement
        if (!added) added = store.addObserver("a", [&](std::string_view, const KeyValueChange&) { seen.push_back("added"); }, 0);
    }, NSKeyValueObservingOptionNew);
    self = store.addObserver("a", [&](std::string_view, const KeyValueChange&) {
        seen.push_back("self");
        EXPECT_TRUE(store.removeObserver(self));
    }, 0);
    later = store.addObserver("a", [&](std::string_view, const KeyValueChange&) { seen.push_back("later"); }, 0);
    store.addObserver("b", [&](std::string_view, const KeyValueChange& c) {
        seen.push_back("b " + show(c));
        // The same key again, nested inside its own announcement.
        if (c.newValue->integerValue() == 10) store.set("b", 11);
    }, NSKeyValueObservingOptionOld | NSKeyValueObservingOptionNew);

    store.set("a", 1);
    store.set("a", 2);
    EXPECT_EQ(seen, (std::vector<std::string>{"a1 1", "b (null)>10", "b 10>11", "self",
                                              "a1 2", "b 11>20", "added"}));
    EXPECT_EQ(store.observerCount(), 3u);
}

TEST(KeyObservationTest, MisuseGetsAClearErrorAndChangesNothing) {
    Store store;
    EXPECT_THROW(store.didChangeValueForKey("never"), Exception);
    EXPECT_THROW(store.addObserver("", [](std::string_view, const KeyValueChange&) {}, 0), Exception);
    EXPECT_THROW(store.addObserver("k", nullptr, 0), Exception);

    int owner = 0;
    try {
        store.removeObserver(&owner, "k");
        FAIL() << "removing an unregistered observer was accepted";
    } catch (const Exception& e) {
        EXPECT_EQ(e.name(), "NSRangeException");
        EXPECT_NE(e.reason().find("\"k\""), std::string::npos);
    }
    store.addObserver("k", [](std::string_view, const KeyValueChange&) {}, 0, &owner);
    store.addObserver("k", [](std::string_view, const KeyValueChange&) {}, 0);
    EXPECT_NO_THROW(store.removeObserver(&owner, "k"));
    EXPECT_EQ(store.observerCount(), 1u);

    // Throwing observers do not keep the others from hearing of a change.
    int heard = 0;
    store.addObserver("t", [](std::string_view, const KeyValueChange&) { throw std::runtime_error("bad"); }, 0);
    store.addObserver("t", [&](std::string_view, const KeyValueChange&) { ++heard; }, 0);
    EXPECT_THROW(store.set("t", 1), std::runtime_error);
    EXPECT_EQ(heard, 1);
    store.set("never", 1);  // pairs stay matched after the failures above
}

TEST(KeyObservationTest, ConcurrentChangesAndRegistrations) {
    Store store;
    std::atomic<long> heard{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([&, t] {
            const std::string key = t % 2 ? "odd" : "even";
            for (int i = 0; i < 300; ++i) {
                auto token = store.addObserver(key, [&](std::string_view, const KeyValueChange& c) {
                    if (c.newValue && c.oldValue) heard.fetch_add(1);
                }, NSKeyValueObservingOptionOld | NSKeyValueObservingOptionNew);
                store.set(key, i);
                store.removeObserver(token);
            }
        });
    }
    for (auto& th : threads) th.join();
    EXPECT_GE(heard.load(), 1200);
    EXPECT_EQ(store.observerCount(), 0u);
}

}  // namespace
}  // namespace qrl
