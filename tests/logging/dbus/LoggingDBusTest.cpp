// Two processes of the product on a private session bus: a level changed in
// one is followed by the other within a second, each hears its own
// broadcast, and neither answers what it received.
#include <gtest/gtest.h>

#include <filesystem>

#include "support/PrivateServer.h"

#ifndef QRL_LOGGING_PEER
#error "QRL_LOGGING_PEER must name the logging_peer program"
#endif

namespace qrl {
namespace {

// One logging_peer with a config home of its own on the bus.
class Peer {
public:
    Peer(const std::string& busAddress, const std::string& home)
        : process_({QRL_LOGGING_PEER},
                   {.environment = {"DBUS_SESSION_BUS_ADDRESS=" + busAddress, "XDG_CONFIG_HOME=" + home,
                                    "QRL_NOTIFICATION_PLATFORM=dbus"},
                    .pipeInput = true,
                    .pipeOutput = true}) {}

    // Waits for "ready"; gives the backend's name, or empty.
    std::string ready() {
        const auto line = process_.waitForLine([](const std::string& l) { return l.rfind("ready ", 0) == 0; },
                                               test::after(20));
        return line ? line->substr(6, line->find(' ', 6) - 6) : std::string();
    }
    // Waits for a notification that left the levels as given. (Senders are
    // not told apart by their object: two processes of one program may well
    // give Logging the same address.)
    bool received(int shared, int application, test::Deadline deadline) {
        const std::string levels = " shared=" + std::to_string(shared) + " application=" + std::to_string(application);
        return process_
            .waitForLine(
                [&](const std::string& l) {
                    return l.rfind("received ", 0) == 0 && l.size() >= levels.size() &&
                           l.compare(l.size() - levels.size(), levels.size(), levels) == 0;
                },
                deadline)
            .has_value();
    }
    bool waitFor(const std::string& line) {
        return process_.waitForLine([&](const std::string& l) { return l == line; }, test::after(5)).has_value();
    }
    bool command(const std::string& line) { return process_.writeLine(line); }
    // Ends the process; gives the number of notifications it received, or -1.
    int quit() {
        process_.writeLine("quit");
        int total = -1;
        if (auto line = process_.waitForLine([](const std::string& l) { return l.rfind("total ", 0) == 0; },
                                             test::after(10)))
            total = std::stoi(line->substr(6));
        exitStatus_ = process_.wait(test::after(10));
        return total;
    }
    int exitStatus() const { return exitStatus_; }
    std::string seen() const { return testing::PrintToString(process_.lines()); }
    bool started() const { return process_.started(); }

private:
    test::Process process_;
    int exitStatus_ = -1;
};

TEST(LoggingAcrossProcesses, ALevelChangedInOneProcessIsFollowedByTheOther) {
    auto bus = test::PrivateServer::dbusDaemon();
    QRL_REQUIRE_SERVER(bus);
    // The config homes live in the bus's private folder.
    const std::string homes = bus.folder();
    std::filesystem::create_directories(homes + "/a");
    std::filesystem::create_directories(homes + "/b");
    {
        // One after the other, so that every broadcast of the start-up is
        // over before the test changes anything: A's reaches A alone, B's
        // reaches both.
        Peer a(bus.address(), homes + "/a");
        ASSERT_TRUE(a.started());
        ASSERT_EQ(a.ready(), "dbus") << a.seen();
        ASSERT_TRUE(a.received(3, 3, test::after(10))) << a.seen();

        Peer b(bus.address(), homes + "/b");
        ASSERT_TRUE(b.started());
        ASSERT_EQ(b.ready(), "dbus") << b.seen();
        const auto startDeadline = test::after(10);
        ASSERT_TRUE(b.received(3, 3, startDeadline)) << b.seen();
        ASSERT_TRUE(a.received(3, 3, startDeadline)) << a.seen();

        const auto sent = std::chrono::steady_clock::now();
        ASSERT_TRUE(a.command("set shared 15"));
        ASSERT_TRUE(b.received(15, 3, test::after(5))) << b.seen();
        const double followed = std::chrono::duration<double>(std::chrono::steady_clock::now() - sent).count();
        EXPECT_LT(followed, 1.0) << "the other process followed after " << followed << " s";
        // The sender hears its own broadcast too.
        ASSERT_TRUE(a.received(15, 3, test::after(5))) << a.seen();

        // No echo: having applied what it received, neither has a broadcast
        // waiting.
        ASSERT_TRUE(b.command("pending"));
        EXPECT_TRUE(b.waitFor("pending 0")) << b.seen();
        ASSERT_TRUE(a.command("pending"));
        EXPECT_TRUE(a.waitFor("pending 0")) << a.seen();

        // A heard its start-up, B's and its change; B its start-up and A's change.
        EXPECT_EQ(a.quit(), 3) << a.seen();
        EXPECT_EQ(b.quit(), 2) << b.seen();
        EXPECT_EQ(a.exitStatus(), 0);
        EXPECT_EQ(b.exitStatus(), 0);
    }
}

}  // namespace
}  // namespace qrl
