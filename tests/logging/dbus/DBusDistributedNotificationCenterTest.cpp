// The session-bus centre on a private dbus-daemon: a post reaches every
// connection that listens, the sender's own included, with its values
// intact; foreign and malformed signals; and a bus that goes away.
#include <gtest/gtest.h>

#include <limits>

#include "logging/LoggingTestSupport.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/dbus/DBusDistributedNotificationCenter.h"
#include "support/PrivateServer.h"

namespace qrl {
namespace {

using Center = DBusDistributedNotificationCenter;

class DBusCenterTest : public ::testing::Test {
protected:
    void SetUp() override { QRL_REQUIRE_SERVER(bus_); }
    void TearDown() override {
        for (int i = 0; i < 10 && RunLoop::main().runOnce(0.0); ++i) {
        }
    }

    std::shared_ptr<Center> open() {
        std::string why;
        auto center = Center::open(bus_.address(), RunLoop::main(), &why);
        EXPECT_TRUE(center) << why;
        return center;
    }

    // Runs the main loop until `done`, for at most five seconds.
    static bool runUntil(const std::function<bool()>& done) { return RunLoop::main().runUntil(done, 5.0); }

    test::CapturedPlatformLog log_;
    test::PrivateServer bus_ = test::PrivateServer::dbusDaemon();
};

// What one centre heard.
struct Heard {
    std::vector<DistributedNotification> notifications;
    void listen(DistributedNotificationCenter& center, std::optional<std::string> object = std::nullopt) {
        center.addObserver(this, "n", std::move(object),
                           [this](const DistributedNotification& n) { notifications.push_back(n); });
    }
};

TEST_F(DBusCenterTest, APostReachesEveryListenerAndTheSenderWithItsValues) {
    auto a = open();
    auto b = open();
    ASSERT_TRUE(a && b);
    EXPECT_EQ(a->backendName(), "dbus");
    EXPECT_TRUE(a->connected());
    EXPECT_EQ(a->uniqueName().rfind(":", 0), 0u) << a->uniqueName();
    Heard heardA, heardB, heardFiltered;
    heardA.listen(*a);
    heardB.listen(*b);
    heardFiltered.listen(*b, std::string("someone else"));

    Value deep = Value::dictionary({{"leaf", "bottom"}});
    for (int i = 0; i < DistributedNotificationCenter::kMaxNesting - 2; ++i) deep = Value::dictionary({{"d", deep}});
    const Value info = Value::dictionary({
        {"bool", false},
        {"min", std::numeric_limits<int64_t>::min()},
        {"max", std::numeric_limits<int64_t>::max()},
        {"real", -0.1},
        {"text", "caf\xC3\xA9"},
        {"empty", ""},
        {"data", Data{0, 255, 7}},
        {"noData", Data{}},
        {"list", Value::array({1, "two", Value::array({}), Value::dictionary({{"k", true}})})},
        {"deep", deep},
        {"dropped", Date{1}},
    });
    a->postNotificationName("n", "<Logging: 0xa>", info);
    ASSERT_TRUE(runUntil([&] { return heardA.notifications.size() == 1 && heardB.notifications.size() == 1; }));

    Value expected = DistributedNotificationCenter::portableUserInfo(info);
    for (const Heard* heard : {&heardA, &heardB}) {
        const DistributedNotification& n = heard->notifications[0];
        EXPECT_EQ(n.name, "n");
        EXPECT_EQ(n.object, "<Logging: 0xa>");
        EXPECT_EQ(n.userInfo, expected) << n.userInfo.description();
        EXPECT_EQ(n.userInfo.asDictionary()->keys(), expected.asDictionary()->keys());  // order kept
        EXPECT_FALSE(n.userInfo.asDictionary()->contains("dropped"));
    }
    EXPECT_TRUE(heardFiltered.notifications.empty());
}

TEST_F(DBusCenterTest, ForeignSignalsAreReadAsFarAsTheyCanBeAndMalformedOnesIgnored) {
    QRL_SKIP_UNLESS(!test::findProgram("gdbus").empty(), "gdbus is not installed");
    auto center = open();
    ASSERT_TRUE(center);
    Heard heard;
    heard.listen(*center);
    auto emit = [&](const std::vector<std::string>& body) {
        // As a client of the bus (--address alone would skip the greeting,
        // and the bus would route nothing).
        std::vector<std::string> arguments = {"gdbus", "emit", "--session", "--object-path", Center::kObjectPath,
                                              "--signal", std::string(Center::kInterface) + "." + Center::kMember};
        arguments.insert(arguments.end(), body.begin(), body.end());
        EXPECT_TRUE(test::Process::outputOf(arguments, {"DBUS_SESSION_BUS_ADDRESS=" + bus_.address()}));
    };
    emit({"'s'"});  // wrong signature
    emit({"'n'", "'from gdbus'",
          "{'u32': <uint32 4000000000>, 'u64': <uint64 18446744073709551615>, 'byte': <byte 7>, "
          "'i16': <int16 -3>, 'path': <objectpath '/a/b'>, 'pair': <(1, 2)>, 'intKeys': <@a{ii} {1: 2}>, "
          "'nested': <{'k': <@as ['x', 'y']>}>}"});
    ASSERT_TRUE(runUntil([&] { return heard.notifications.size() == 1; })) << testing::PrintToString(log_.lines());
    EXPECT_EQ(center->ignoredCount(), 1u);
    EXPECT_EQ(log_.countContaining("ignored a signal from"), 1u) << testing::PrintToString(log_.lines());
    const Value& info = heard.notifications[0].userInfo;
    EXPECT_EQ(heard.notifications[0].object, "from gdbus");
    EXPECT_EQ(info["u32"], Value(4000000000LL));
    EXPECT_EQ(info["u64"], Value(18446744073709551615ULL));
    EXPECT_EQ(info["byte"], Value(7));
    EXPECT_EQ(info["i16"], Value(-3));
    EXPECT_EQ(info["path"], Value("/a/b"));
    EXPECT_FALSE(info.asDictionary()->contains("pair"));     // structures are left out
    EXPECT_FALSE(info.asDictionary()->contains("intKeys"));  // so are maps with other keys
    EXPECT_EQ(info["nested"], Value::dictionary({{"k", Value::array({"x", "y"})}}));
}

TEST_F(DBusCenterTest, WhenTheBusGoesAwayItSaysSoOnceAndKeepsToThisProcess) {
    auto center = open();
    ASSERT_TRUE(center);
    Heard heard;
    heard.listen(*center);
    bus_.stop();
    ASSERT_TRUE(runUntil([&] { return !center->connected(); }));
    EXPECT_EQ(log_.countContaining("the session bus went away"), 1u) << testing::PrintToString(log_.lines());
    center->postNotificationName("n", "alone");
    center->postNotificationName("n", "still alone");
    ASSERT_TRUE(runUntil([&] { return heard.notifications.size() == 2; }));
    EXPECT_EQ(heard.notifications[1].object, "still alone");
    EXPECT_EQ(log_.countContaining("the session bus went away"), 1u);
}

TEST_F(DBusCenterTest, AnUnreachableBusGivesAReason) {
    std::string why;
    EXPECT_EQ(Center::open(std::string("unix:path=/nonexistent/qrl-bus"), RunLoop::main(), &why), nullptr);
    EXPECT_NE(why.find("cannot connect to the bus"), std::string::npos) << why;
}

}  // namespace
}  // namespace qrl
