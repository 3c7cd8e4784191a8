// QRLASLLogger: writes each message to the system log, with a severity taken
// from the message's level.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <string>

#include "qrl/foundation/detail/SyslogClient.h"
#include "qrl/logging/QRLAbstractLogger.h"

namespace qrl {

// The severity follows the effective level, not the flag: level 1 is
// critical (2), 2 error (3), 3 warning (4), anything else notice (5). A
// statement in a context at level 7 or 15 therefore arrives as a notice
// whatever its flag. With a formatter the line is its text (none written for
// no text); without one, the bare message.
//
// On Linux the system log is syslog, reached through its datagram socket
// (see detail::SyslogClient for the wire form and what happens when the log
// daemon is away); the facility is user.
//
// There is one per process, sharedInstance(), on /dev/log, labelled
// "tigostu.aslLogger".
class QRLASLLogger final : public QRLAbstractLogger {
public:
    static constexpr const char* kDefaultSocketPath = "/dev/log";

    static std::shared_ptr<QRLASLLogger> sharedInstance();
    // A further instance is refused: always null.
    static std::shared_ptr<QRLASLLogger> create();
    // A logger sending to another socket (tests, private daemons); the
    // reconnect interval is how long it waits before trying a missing socket again.
    static std::shared_ptr<QRLASLLogger> createForSocket(std::string socketPath,
                                                         std::chrono::milliseconds reconnectInterval);

    void logMessage(const QRLLogMessage& logMessage) override;

    static int severityForLogLevel(int32_t logLevel);

private:
    explicit QRLASLLogger(detail::SyslogClient::Options options);

    detail::SyslogClient client_;  // used only on the logger's queue
    std::string line_;             // reused on the logger's queue
};

}  // namespace qrl
