#include "qrl/logging/detail/MessageRoom.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <thread>
#include <vector>

namespace qrl::detail {
namespace {

TEST(MessageRoom, NeverHandsOutMoreThanItHasAndLetsEveryoneThrough) {
    MessageRoom room(8, 3);
    std::atomic<int> held{0}, most{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < 6; ++t)
        threads.emplace_back([&] {
            for (int i = 0; i < 2000; ++i) {
                room.take();
                const int now = held.fetch_add(1) + 1;
                int seen = most.load();
                while (now > seen && !most.compare_exchange_weak(seen, now)) {
                }
                held.fetch_sub(1);
                room.give();
            }
        });
    for (auto& t : threads) t.join();
    EXPECT_LE(most.load(), 8);
    EXPECT_EQ(room.pending(), 0);
}

TEST(MessageRoom, OnceDryItOpensOnlyForABatch) {
    MessageRoom room(4, 3);
    for (int i = 0; i < 4; ++i) room.take();
    std::atomic<bool> through{false};
    std::thread late([&] {
        room.take();
        through = true;
    });
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    while (room.pending() != 5 && std::chrono::steady_clock::now() < until) std::this_thread::yield();
    EXPECT_EQ(room.pending(), 5);  // four held, one waiting
    room.give();
    room.give();
    EXPECT_FALSE(through.load());  // two back: still shut
    room.give();                   // the third opens it
    late.join();
    EXPECT_TRUE(through.load());
    EXPECT_EQ(room.pending(), 2);
}

}  // namespace
}  // namespace qrl::detail
