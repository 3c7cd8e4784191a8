#include "qrl/logging/QRLTTYLogger.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <sys/syscall.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <regex>
#include <string>

#include "logging/CapturingLogger.h"
#include "qrl/foundation/Format.h"
#include "qrl/logging/ThreadLogger.h"
#include "qrl/foundation/detail/UniqueFd.h"

namespace qrl {
namespace {

using detail::UniqueFd;

// A pseudo-terminal in raw mode: what the logger writes to the slave side
// comes out of the master side unchanged.
struct Terminal {
    UniqueFd master, slave;
    Terminal() {
        int m = -1, s = -1;
        if (::openpty(&m, &s, nullptr, nullptr, nullptr) != 0) return;
        master.reset(m);
        slave.reset(s);
        termios mode{};
        ::tcgetattr(s, &mode);
        ::cfmakeraw(&mode);
        ::tcsetattr(s, TCSANOW, &mode);
    }

    // Reads until `lines` line feeds have come, or ten seconds have passed.
    std::string read(int lines) const {
        std::string out;
        const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (std::count(out.begin(), out.end(), '\n') < lines && std::chrono::steady_clock::now() < until) {
            pollfd p{master.get(), POLLIN, 0};
            if (::poll(&p, 1, 100) <= 0) continue;
            char buffer[4096];
            const ssize_t n = ::read(master.get(), buffer, sizeof buffer);
            if (n > 0) out.append(buffer, static_cast<size_t>(n));
        }
        return out;
    }
};

void logWarning(const char* text) { QRLLog::log(false, 3, 2, 1, __FILE__, __func__, __LINE__, "%s", text); }

TEST(QRLTTYLogger, WritesOneLinePerMessageToATerminal) {
    Terminal terminal;
    ASSERT_TRUE(terminal.slave) << "no pseudo-terminal available";
    auto logger = QRLTTYLogger::createWritingTo(terminal.slave.get());
    ASSERT_TRUE(logger->isaTTY());
    EXPECT_EQ(logger->loggerName(), "tigostu.ttyLogger");
    {
        test::ScopedLogger scope(logger);
        logWarning("bare message");
        logWarning("ends in a line feed\n");
    }
    const std::string bare = terminal.read(3);
    const std::string tid = qrl::format("%x", static_cast<uint32_t>(::syscall(SYS_gettid)));
    const std::string head = std::string(R"(\d{4}-\d\d-\d\d \d\d:\d\d:\d\d:\d{3} )") + program_invocation_short_name +
                             "\\[" + std::to_string(::getpid()) + ":" + tid + "\\] ";
    EXPECT_TRUE(std::regex_match(bare, std::regex(head + "bare message\n" + head + "ends in a line feed\n\n"))) << bare;

    auto formatter = std::make_shared<ThreadLogger>();
    formatter->setIncludeClassAndMethod(true);
    logger->setLogFormatter(formatter);
    {
        test::ScopedLogger scope(logger);
        logWarning("formatted");
    }
    EXPECT_EQ(terminal.read(1), "[(null)] [QRLTTYLoggerTest logWarning] formatted\n");
}

}  // namespace
}  // namespace qrl
