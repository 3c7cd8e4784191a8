#include "qrl/logging/QRLASLLogger.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <optional>
#include <regex>
#include <string>

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
    std::optional<std::string> receive() const {
        pollfd p{socket_.get(), POLLIN, 0};
        if (::poll(&p, 1, 10000) <= 0) return std::nullopt;
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
    // The daemon went away: the next message is lost and said so, once more.
    logAt(3, 2, "lost");
    logAt(3, 2, "lost too");
    QRLLog::flushLog();
    EXPECT_EQ(platform.lines().size(), 2u);
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
