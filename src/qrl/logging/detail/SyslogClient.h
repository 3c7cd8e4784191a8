// Sends messages to the local system log: RFC 3164 datagrams on its Unix
// socket, written here rather than through syslog(3), which drops messages
// silently when the socket is missing.
#pragma once

#include <chrono>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"
#include "qrl/foundation/detail/UniqueFd.h"

namespace qrl::detail {

// A datagram is "<PRI>Mmm dd HH:MM:SS tag[pid]: text" with the local time
// and PRI = facility * 8 + severity; the facility is user (1). That is the
// local form of RFC 3164, without the host name, as local daemons read it.
// A text longer than one datagram holds goes out in several, cut between
// characters, each with the full header.
//
// Failures never block for long and never throw: when the socket is missing
// or refuses, the client reconnects (at most once per reconnectInterval) and
// drops messages meanwhile; a socket that stays full longer than sendTimeout
// loses that message. Each outage is reported once through the platform log.
//
// Not thread-safe: one client serves one logger's queue.
class SyslogClient {
public:
    struct Options {
        std::string socketPath = "/dev/log";
        std::string tag;  // empty: the program's name
        std::chrono::milliseconds reconnectInterval{1000};
        std::chrono::milliseconds sendTimeout{500};
    };

    static constexpr int kFacilityUser = 1;
    static constexpr size_t kMaxDatagram = 8192;

    explicit SyslogClient(Options options);

    void send(int severity, Date timestamp, std::string_view text);

    bool connected() const { return static_cast<bool>(socket_); }

private:
    enum class Outcome { Sent, Reconnect, Dropped };
    bool connect();
    Outcome sendDatagram(std::string_view datagram, std::chrono::steady_clock::time_point deadline);
    void reportOutage(const std::string& what);

    Options options_;
    std::string headerTail_;  // " tag[pid]: "
    UniqueFd socket_;
    std::chrono::steady_clock::time_point nextConnectAttempt_{};
    bool outageReported_ = false;
    std::string datagram_;  // reused
};

}  // namespace qrl::detail
