// Two processes of the product on a private session bus: a level changed in
// one is followed by the other within a second, each hears its own
// broadcast, and neither answers what it received.
#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>

#include "logging/dbus/PrivateSessionBus.h"

#ifndef QRL_LOGGING_PEER
#error "QRL_LOGGING_PEER must name the logging_peer program"
#endif

namespace qrl {
namespace {

using Clock = std::chrono::steady_clock;

// One logging_peer with a config home of its own on the bus.
class Peer {
public:
    Peer(const std::string& busAddress, const std::string& home)
        : process_({QRL_LOGGING_PEER}, {"DBUS_SESSION_BUS_ADDRESS=" + busAddress, "XDG_CONFIG_HOME=" + home,
                                        "QRL_NOTIFICATION_PLATFORM=dbus"}) {}

    // Waits for "ready"; gives the backend's name, or empty.
    std::string ready() {
        const auto line = process_.waitForLine([](const std::string& l) { return l.rfind("ready ", 0) == 0; },
                                               Clock::now() + std::chrono::seconds(20), &seen_);
        if (!line) return {};
        const std::string rest = line->substr(6);
        return rest.substr(0, rest.find(' '));
    }
    // Waits for a notification that left the levels as given. (Senders are
    // not told apart by their object: two processes of one program may well
    // give Logging the same address.)
    bool received(int shared, int application, Clock::time_point deadline) {
        const std::string levels = " shared=" + std::to_string(shared) + " application=" + std::to_string(application);
        return process_
            .waitForLine(
                [&](const std::string& l) {
                    return l.rfind("received ", 0) == 0 && l.size() >= levels.size() &&
                           l.compare(l.size() - levels.size(), levels.size(), levels) == 0;
                },
                deadline, &seen_)
            .has_value();
    }
    bool waitFor(const std::string& line, Clock::time_point deadline) {
        return process_.waitForLine([&](const std::string& l) { return l == line; }, deadline, &seen_).has_value();
    }
    bool command(const std::string& line) { return process_.writeLine(line); }
    // Ends the process; gives the number of notifications it received, or -1.
    int quit() {
        process_.writeLine("quit");
        int total = -1;
        if (auto line = process_.waitForLine([](const std::string& l) { return l.rfind("total ", 0) == 0; },
                                             Clock::now() + std::chrono::seconds(10), &seen_))
            total = std::stoi(line->substr(6));
        exitStatus_ = process_.finish(Clock::now() + std::chrono::seconds(10));
        return total;
    }
    int exitStatus() const { return exitStatus_; }
    const std::vector<std::string>& seen() const { return seen_; }
    bool started() const { return process_.started(); }

private:
    test::ChildProcess process_;
    std::vector<std::string> seen_;
    int exitStatus_ = -1;
};

TEST(LoggingAcrossProcesses, ALevelChangedInOneProcessIsFollowedByTheOther) {
    test::PrivateSessionBus bus;
    if (bus.address().empty()) {
        if (test::underCIRun()) FAIL() << "dbus-daemon needed under CI: " << bus.why();
        GTEST_SKIP() << "no private session bus: " << bus.why();
    }
    char pattern[] = "/tmp/qrl-logging-peers-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    const std::string homes = pattern;
    struct RemoveAtEnd {
        std::string path;
        ~RemoveAtEnd() { std::filesystem::remove_all(path); }
    } removeAtEnd{homes};
    std::filesystem::create_directories(homes + "/a");
    std::filesystem::create_directories(homes + "/b");
    {
        // One after the other, so that every broadcast of the start-up is
        // over before the test changes anything: A's reaches A alone, B's
        // reaches both.
        Peer a(bus.address(), homes + "/a");
        ASSERT_TRUE(a.started());
        ASSERT_EQ(a.ready(), "dbus") << testing::PrintToString(a.seen());
        ASSERT_TRUE(a.received(3, 3, Clock::now() + std::chrono::seconds(10))) << testing::PrintToString(a.seen());

        Peer b(bus.address(), homes + "/b");
        ASSERT_TRUE(b.started());
        ASSERT_EQ(b.ready(), "dbus") << testing::PrintToString(b.seen());
        const auto startDeadline = Clock::now() + std::chrono::seconds(10);
        ASSERT_TRUE(b.received(3, 3, startDeadline)) << testing::PrintToString(b.seen());
        ASSERT_TRUE(a.received(3, 3, startDeadline)) << testing::PrintToString(a.seen());

        const auto sent = Clock::now();
        ASSERT_TRUE(a.command("set shared 15"));
        ASSERT_TRUE(b.received(15, 3, sent + std::chrono::seconds(5))) << testing::PrintToString(b.seen());
        const double followed = std::chrono::duration<double>(Clock::now() - sent).count();
        EXPECT_LT(followed, 1.0) << "the other process followed after " << followed << " s";
        // The sender hears its own broadcast too.
        ASSERT_TRUE(a.received(15, 3, Clock::now() + std::chrono::seconds(5))) << testing::PrintToString(a.seen());

        // No echo: having applied what it received, neither has a broadcast
        // waiting.
        ASSERT_TRUE(b.command("pending"));
        EXPECT_TRUE(b.waitFor("pending 0", Clock::now() + std::chrono::seconds(5))) << testing::PrintToString(b.seen());
        ASSERT_TRUE(a.command("pending"));
        EXPECT_TRUE(a.waitFor("pending 0", Clock::now() + std::chrono::seconds(5))) << testing::PrintToString(a.seen());

        // A heard its start-up, B's and its change; B its start-up and A's change.
        EXPECT_EQ(a.quit(), 3) << testing::PrintToString(a.seen());
        EXPECT_EQ(b.quit(), 2) << testing::PrintToString(b.seen());
        EXPECT_EQ(a.exitStatus(), 0);
        EXPECT_EQ(b.exitStatus(), 0);
    }
}

}  // namespace
}  // namespace qrl
