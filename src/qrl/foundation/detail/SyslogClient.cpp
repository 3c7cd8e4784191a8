#include "qrl/foundation/detail/SyslogClient.h"

#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "qrl/foundation/PlatformLog.h"

namespace qrl::detail {

namespace {

constexpr size_t kMaxTag = 32;

// A tag is a word: no blanks, and none of the characters that end it.
std::string cleanTag(std::string_view tag) {
    std::string out;
    for (char c : tag) {
        if (out.size() == kMaxTag) break;
        const auto u = static_cast<unsigned char>(c);
        out += (u <= ' ' || u == 0x7f || c == ':' || c == '[' || c == ']') ? '_' : c;
    }
    return out.empty() ? std::string("qrl") : out;
}

// "Mmm dd HH:MM:SS", the day padded with a blank.
void appendTimestamp(std::string& out, Date timestamp) {
    static constexpr const char* kMonths[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                              "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    int64_t seconds = timestamp.nanosecondsSinceEpoch / 1'000'000'000;
    if (timestamp.nanosecondsSinceEpoch % 1'000'000'000 < 0) --seconds;
    const time_t t = static_cast<time_t>(seconds);
    tm local{};
    if (localtime_r(&t, &local) == nullptr) local = tm{};
    char text[32];
    const int n = std::snprintf(text, sizeof text, "%s %2d %02d:%02d:%02d", kMonths[local.tm_mon % 12], local.tm_mday,
                                local.tm_hour, local.tm_min, local.tm_sec);
    if (n > 0) out.append(text, static_cast<size_t>(n));
}

// The longest prefix of `text` of at most `limit` bytes that does not end
// inside a UTF-8 sequence (at least one byte, so that cutting progresses).
size_t cutAt(std::string_view text, size_t limit) {
    if (text.size() <= limit) return text.size();
    size_t n = limit;
    while (n > 0 && (static_cast<unsigned char>(text[n]) & 0xC0) == 0x80) --n;
    return n == 0 ? limit : n;
}

bool isDisconnection(int error) {
    return error == ECONNREFUSED || error == ENOTCONN || error == ECONNRESET || error == EPIPE || error == ENOENT ||
           error == EDESTADDRREQ;
}

}  // namespace

SyslogClient::SyslogClient(Options options) : options_(std::move(options)) {
    const std::string tag = cleanTag(options_.tag.empty() ? std::string_view(program_invocation_short_name)
                                                          : std::string_view(options_.tag));
    headerTail_ = " " + tag + "[" + std::to_string(::getpid()) + "]: ";
}

bool SyslogClient::connect() {
    socket_.reset();
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (options_.socketPath.empty() || options_.socketPath.size() >= sizeof address.sun_path) {
        reportOutage("the socket path is empty or too long");
        return false;
    }
    std::memcpy(address.sun_path, options_.socketPath.data(), options_.socketPath.size());
    UniqueFd fd(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
    if (!fd) {
        reportOutage(std::strerror(errno));
        return false;
    }
    int rc;
    do {
        rc = ::connect(fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address);
    } while (rc != 0 && errno == EINTR);
    if (rc != 0) {
        reportOutage(std::strerror(errno));
        return false;
    }
    socket_ = std::move(fd);
    return true;
}

void SyslogClient::report(const std::string& text) {
    const std::string line = options_.label + ": " + text;
    if (options_.report)
        options_.report(line);
    else
        platformLog(line);
}

void SyslogClient::reportOutage(const std::string& what) {
    if (outageReported_) return;
    outageReported_ = true;
    report("the system log at " + options_.socketPath + " cannot be reached (" + what +
           "); its messages are dropped until it can be");
}

SyslogClient::Outcome SyslogClient::sendDatagram(std::string_view datagram,
                                                 std::chrono::steady_clock::time_point deadline) {
    for (;;) {
        const ssize_t n = ::send(socket_.get(), datagram.data(), datagram.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (n >= 0) return Outcome::Sent;
        const int error = errno;
        if (error == EINTR) continue;
        if (error == EAGAIN || error == ENOBUFS) {
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (!stalled_ && left.count() > 0) {
                pollfd p{socket_.get(), POLLOUT, 0};
                if (::poll(&p, 1, static_cast<int>(left.count())) >= 0) continue;
            }
            stalled_ = true;
            reportOutage("it reads no more messages");
            return Outcome::Dropped;
        }
        if (isDisconnection(error)) return Outcome::Reconnect;
        reportOutage(std::strerror(error));
        return Outcome::Dropped;
    }
}

void SyslogClient::send(int severity, Date timestamp, std::string_view text) {
    const auto now = std::chrono::steady_clock::now();
    if (!socket_) {
        if (now < nextConnectAttempt_) {
            ++dropped_;
            return;
        }
        if (!connect()) {
            nextConnectAttempt_ = now + options_.reconnectInterval;
            ++dropped_;
            return;
        }
    }
    const auto deadline = now + options_.sendTimeout;

    datagram_.clear();
    datagram_ += '<';
    datagram_ += std::to_string(kFacilityUser * 8 + (severity & 7));
    datagram_ += '>';
    appendTimestamp(datagram_, timestamp);
    datagram_ += headerTail_;
    const size_t headerSize = datagram_.size();
    const size_t room = kMaxDatagram > headerSize ? kMaxDatagram - headerSize : 1;

    bool reconnected = false;
    do {
        const size_t take = cutAt(text, room);
        datagram_.resize(headerSize);
        datagram_.append(text.data(), take);
        Outcome outcome = sendDatagram(datagram_, deadline);
        if (outcome == Outcome::Reconnect && !reconnected) {
            // The daemon went away and may be back under the same name.
            reconnected = true;
            if (connect()) outcome = sendDatagram(datagram_, deadline);
        }
        if (outcome == Outcome::Reconnect) {
            socket_.reset();
            nextConnectAttempt_ = now + options_.reconnectInterval;
            reportOutage("it refuses connections");
            ++dropped_;
            return;
        }
        if (outcome == Outcome::Dropped) {
            ++dropped_;
            return;
        }
        if (outageReported_ || dropped_ > 0) {
            if (dropped_ > 0) report("the system log takes messages again; " + std::to_string(dropped_) +
                                     (dropped_ == 1 ? " message was" : " messages were") + " dropped meanwhile");
            outageReported_ = false;
            stalled_ = false;
            dropped_ = 0;
        }
        text.remove_prefix(take);
    } while (!text.empty());
}

}  // namespace qrl::detail
