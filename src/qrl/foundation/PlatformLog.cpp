#include "qrl/foundation/PlatformLog.h"

#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <memory>
#include <mutex>
#include <optional>

#include "qrl/foundation/Value.h"
#include "qrl/foundation/detail/SyslogClient.h"

namespace qrl {

namespace {
std::mutex gWriterMutex;
std::shared_ptr<PlatformLogWriter> gWriter;

void writeAll(int fd, const char* data, size_t size) {
    while (size > 0) {
        ssize_t n = ::write(fd, data, size);
        if (n < 0) {
            if (errno == EINTR) continue;
            return;  // nowhere left to report to
        }
        data += n;
        size -= static_cast<size_t>(n);
    }
}
// The system log's copy. Its outages go unreported: every line it would
// have carried is on standard error already.
struct SystemLog {
    std::mutex mutex;
    std::string socketPath = "/dev/log";
    std::optional<detail::SyslogClient> client;  // made on first use
};

SystemLog& systemLog() {
    static auto* s = new SystemLog;  // never destroyed: static objects log while ending
    return *s;
}

constexpr int kNoticeSeverity = 5;

void sendToSystemLog(std::string_view message) {
    SystemLog& s = systemLog();
    std::lock_guard lock(s.mutex);
    if (s.socketPath.empty()) return;
    if (!s.client) {
        detail::SyslogClient::Options options;
        options.socketPath = s.socketPath;
        options.report = [](std::string_view) {};
        s.client.emplace(std::move(options));
    }
    s.client->send(kNoticeSeverity, Date::now(), message);
}

}  // namespace

void platformLog(std::string_view message) {
    std::shared_ptr<PlatformLogWriter> writer;
    {
        std::lock_guard lock(gWriterMutex);
        writer = gWriter;
    }
    if (writer) {
        (*writer)(message);
        return;
    }
    timespec ts{};
    clock_gettime(CLOCK_REALTIME, &ts);
    tm local{};
    localtime_r(&ts.tv_sec, &local);
    char stamp[64];
    size_t n = strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    std::snprintf(stamp + n, sizeof stamp - n, ".%03ld", ts.tv_nsec / 1'000'000);
    std::string line;
    line.reserve(message.size() + 96);
    line += stamp;
    line += ' ';
    line += program_invocation_short_name;
    line += '[';
    line += std::to_string(::getpid());
    line += ':';
    line += std::to_string(static_cast<long>(::syscall(SYS_gettid)));
    line += "] ";
    line += message;
    line += '\n';
    writeAll(STDERR_FILENO, line.data(), line.size());
    sendToSystemLog(message);
}

void platformLogToSystemLog(std::string_view message) { sendToSystemLog(message); }

std::string setPlatformSystemLogSocket(std::string socketPath) {
    SystemLog& s = systemLog();
    std::lock_guard lock(s.mutex);
    s.client.reset();
    std::swap(s.socketPath, socketPath);
    return socketPath;
}

PlatformLogWriter setPlatformLogWriter(PlatformLogWriter writer) {
    auto next = writer ? std::make_shared<PlatformLogWriter>(std::move(writer)) : nullptr;
    std::lock_guard lock(gWriterMutex);
    auto previous = std::move(gWriter);
    gWriter = std::move(next);
    return previous ? *previous : PlatformLogWriter{};
}

}  // namespace qrl
