// The platform log: one line on standard error, stamped with the local time,
// program name, process and thread ids, and the same message as a notice in
// the system log (syslog's socket, /dev/log). For messages that must not
// depend on the log engine (start-up notices, internal faults).
#pragma once

#include <functional>
#include <string>
#include <string_view>

#include "qrl/foundation/Format.h"

namespace qrl {

// Writes "2026-11-21 18:43:55.123 prog[pid:tid] message\n" with a single
// write(2), then sends the message to the system log. The system log never
// holds the caller for more than a few milliseconds: where it is missing or
// stops reading, its copy is dropped (the line on standard error stays).
void platformLog(std::string_view message);

template <class... Args>
void platformLogFormat(std::string_view format, const Args&... args) {
    platformLog(qrl::format(format, args...));
}

// Redirects platformLog (tests); an empty writer restores standard error.
// Returns the previous writer. The writer receives the bare message.
using PlatformLogWriter = std::function<void(std::string_view message)>;
PlatformLogWriter setPlatformLogWriter(PlatformLogWriter writer);

// Sends a message to the platform log's system-log copy alone: for a writer
// that keeps the terminal quiet.
void platformLogToSystemLog(std::string_view message);

// Where the platform log's system-log copy goes: a datagram socket path;
// empty sends none. Returns the previous path.
std::string setPlatformSystemLogSocket(std::string socketPath);

}  // namespace qrl
