// Sends messages to the local system log: RFC 3164 datagrams on its Unix
// socket, written here rather than through syslog(3), which drops messages
// silently when the socket is missing.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
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
// Failures never block for long and never throw. When the socket is missing
// or refuses, the client reconnects (at most once per reconnectInterval) and
// drops messages meanwhile. A socket that stays full for sendTimeout (a few
// milliseconds: a reader that stopped reading) loses that message, and from
// then on messages that do not fit at once are dropped without waiting, until
// a send goes through again. Each outage is reported once, and how many
// messages it cost when it ends.
//
// Not thread-safe: one client serves one logger's queue.
class SyslogClient {
public:
    struct Options {
        std::string socketPath = "/dev/log";
        std::string tag;  // empty: the program's name
        std::chrono::milliseconds reconnectInterval{1000};
        std::chrono::milliseconds sendTimeout{5};
        // Where outages are told; null: the platform log.
        std::function<void(std::string_view)> report;
        std::string label = "QRLASLLogger";  // names the sender in reports
    };

    static constexpr int kFacilityUser = 1;
    static constexpr size_t kMaxDatagram = 8192;

    explicit SyslogClient(Options options);

    void send(int severity, Date timestamp, std::string_view text);

    bool connected() const { return static_cast<bool>(socket_); }
    // Messages lost in the outage under way (0 when none is).
    std::size_t droppedCount() const { return dropped_; }

private:
    enum class Outcome { Sent, Reconnect, Dropped };
    bool connect();
    Outcome sendDatagram(std::string_view datagram, std::chrono::steady_clock::time_point deadline);
    void reportOutage(const std::string& what);
    void report(const std::string& text);

    Options options_;
    std::string headerTail_;  // " tag[pid]: "
    UniqueFd socket_;
    std::chrono::steady_clock::time_point nextConnectAttempt_{};
    bool outageReported_ = false;
    bool stalled_ = false;   // the reader stopped reading: no more waiting
    std::size_t dropped_ = 0;
    std::string datagram_;  // reused
};

}  // namespace qrl::detail
