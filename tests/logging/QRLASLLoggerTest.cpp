#include "qrl/logging/QRLASLLogger.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <chrono>
#include <optional>
#include <regex>
#include <string>
#include <vector>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/detail/UniqueFd.h"
#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl {
namespace {

using detail::UniqueFd;

// A stand-in log daemon: a datagram socket bound at `path`.
class Daemon {
public:
    explicit Daemon(std::string path)
        : path_(std::move(path)), socket_(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0)) {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::strncpy(address.sun_path, path_.c_str(), sizeof address.sun_path - 1);
        bound_ = ::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Daemon() { ::unlink(path_.c_str()); }
    bool bound() const { return bound_; }

    // The next datagram, waiting up to ten seconds; nullopt if none came.
    std::optional<std::string> receive(int waitMilliseconds = 10000) const {
        pollfd p{socket_.get(), POLLIN, 0};
        if (::poll(&p, 1, waitMilliseconds) <= 0) return std::nullopt;
        std::string buffer(70000, '\0');
        const ssize_t n = ::recv(socket_.get(), buffer.data(), buffer.size(), 0);
        if (n < 0) return std::nullopt;
        buffer.resize(static_cast<size_t>(n));
        return buffer;
    }

private:
    std::string path_;
    UniqueFd socket_;
    bool bound_ = false;
};

using PlatformLines = ::qrl::test::CapturedPlatformLog;

void logAt(int32_t level, int32_t flag, const char* text) {
    QRLLog::log(false, level, flag, 1, __FILE__, __func__, __LINE__, "%s", text);
}

// "<PRI>Mmm dd HH:MM:SS tag[pid]: " for this process.
std::string headerPattern(const char* priority) {
    return std::string("<") + priority +
           R"(>(Jan|Feb|Mar|Apr|May|Jun|Jul|Aug|Sep|Oct|Nov|Dec) [ 1-3]\d \d\d:\d\d:\d\d )" +
           program_invocation_short_name + "\\[" + std::to_string(::getpid()) + "\\]: ";
}

// A logger writing to a socket in a folder of its own.
class QRLASLLoggerTest : public ::testing::Test {
protected:
    test::TemporaryFolder folder_{"qrl-syslog"};
    const std::string path_ = folder_.file("log");
    std::shared_ptr<QRLASLLogger> logger_ = QRLASLLogger::createForSocket(path_, std::chrono::milliseconds(0));
};

TEST_F(QRLASLLoggerTest, SeverityGoesByTheLevelNotTheFlag) {
    Daemon daemon(path_);
    ASSERT_TRUE(daemon.bound());
    {
        test::ScopedLogger scope(logger_);
        logAt(1, 1, "critical");
        logAt(3, 1, "an error flag at the warning level");
        logAt(7, 1, "an error flag at the info level");
    }
    const char* expected[][2] = {
        {"10", "critical"}, {"12", "an error flag at the warning level"}, {"13", "an error flag at the info level"}};
    for (const auto& [priority, text] : expected) {
        const auto datagram = daemon.receive();
        ASSERT_TRUE(datagram.has_value()) << text;
        EXPECT_TRUE(std::regex_match(*datagram, std::regex(headerPattern(priority) + text))) << *datagram;
    }
}

TEST_F(QRLASLLoggerTest, AMissingDaemonIsReportedOnceAndFoundAgain) {
    PlatformLines platform;
    test::ScopedLogger scope(logger_);
    for (int i = 0; i < 5; ++i) logAt(3, 2, "into the void");
    QRLLog::flushLog();
    ASSERT_EQ(platform.lines().size(), 1u);
    EXPECT_NE(platform.lines()[0].find(path_), std::string::npos) << platform.lines()[0];

    {
        Daemon daemon(path_);
        ASSERT_TRUE(daemon.bound());
        logAt(3, 2, "first heard");
        const auto datagram = daemon.receive();
        ASSERT_TRUE(datagram.has_value());
        EXPECT_TRUE(datagram->ends_with(": first heard")) << *datagram;
    }
    // Back, it says what was lost meanwhile; gone again, the next message is
    // lost and said so, once more.
    logAt(3, 2, "lost");
    logAt(3, 2, "lost too");
    QRLLog::flushLog();
    ASSERT_EQ(platform.lines().size(), 3u);
    EXPECT_NE(platform.lines()[1].find("5 messages were dropped"), std::string::npos) << platform.lines()[1];
}

// A daemon that stops reading costs one short wait; later messages are
// dropped at once until it reads again, and then the count is told.
TEST_F(QRLASLLoggerTest, AReaderThatStopsReadingIsNeverWaitedForAgain) {
    Daemon daemon(path_);
    ASSERT_TRUE(daemon.bound());
    std::vector<std::string> reports;
    detail::SyslogClient::Options options;
    options.socketPath = path_;
    options.report = [&](std::string_view line) { reports.emplace_back(line); };
    detail::SyslogClient client(options);
    const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(2);
    int sent = 0;
    for (; sent < 1000 && std::chrono::steady_clock::now() < until; ++sent) client.send(5, Date::now(), "flood");
    EXPECT_EQ(sent, 1000);
    const std::size_t dropped = client.droppedCount();
    EXPECT_GT(dropped, 0u);
    ASSERT_EQ(reports.size(), 1u);
    EXPECT_NE(reports[0].find("reads no more messages"), std::string::npos) << reports[0];

    while (daemon.receive(0)) {
    }
    client.send(5, Date::now(), "read again");
    ASSERT_EQ(reports.size(), 2u);
    EXPECT_NE(reports[1].find(std::to_string(dropped) + " messages were dropped"), std::string::npos) << reports[1];
    EXPECT_EQ(client.droppedCount(), 0u);
}

TEST_F(QRLASLLoggerTest, ThePlatformLogReachesTheSystemLogToo) {
    Daemon daemon(path_);
    ASSERT_TRUE(daemon.bound());
    const std::string previous = setPlatformSystemLogSocket(path_);
    platformLog("told on the platform log");
    setPlatformSystemLogSocket(previous);
    const auto datagram = daemon.receive();
    ASSERT_TRUE(datagram.has_value());
    EXPECT_TRUE(std::regex_match(*datagram, std::regex(headerPattern("13") + "told on the platform log"))) << *datagram;
}

TEST_F(QRLASLLoggerTest, ALongMessageArrivesWholeInSeveralDatagrams) {
    Daemon daemon(path_);
    ASSERT_TRUE(daemon.bound());
    std::string text;
    for (int i = 0; i < 10000; ++i) text += (i % 3 == 0) ? "\xc3\xa9" : "a";  // "é" is two bytes
    {
        test::ScopedLogger scope(logger_);
        logAt(7, 4, text.c_str());
    }
    std::string joined;
    int datagrams = 0;
    const std::regex header(headerPattern("13"));
    while (joined.size() < text.size()) {
        const auto datagram = daemon.receive();
        ASSERT_TRUE(datagram.has_value()) << joined.size() << " of " << text.size();
        ASSERT_LE(datagram->size(), detail::SyslogClient::kMaxDatagram);
        std::smatch match;
        ASSERT_TRUE(std::regex_search(*datagram, match, header) && match.position(0) == 0);
        const std::string piece = datagram->substr(static_cast<size_t>(match.length(0)));
        ASSERT_NE(static_cast<unsigned char>(piece[0]) & 0xC0, 0x80) << "cut inside a character";
        joined += piece;
        ++datagrams;
    }
    EXPECT_EQ(joined, text);
    EXPECT_EQ(datagrams, 2);
}

}  // namespace
}  // namespace qrl
