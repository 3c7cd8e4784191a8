// QRLLog: the entry point that every passing log statement calls. It formats
// on the caller's thread and hands the message to the installed sink; with no
// sink installed the message goes nowhere.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "qrl/foundation/Format.h"

namespace qrl {

// One statement that passed its guard, formatted. `file` and `function` are
// borrowed constant strings (the statement's __FILE__ and __func__).
struct LogStatement {
    bool synchronous = false;
    int32_t level = 0;
    int32_t flag = 0;
    int32_t context = 0;
    const char* file = nullptr;
    const char* function = nullptr;
    int32_t line = 0;
    std::string message;
};

class QRLLog {
public:
    QRLLog() = delete;  // class-level operations only

    using Sink = std::function<void(LogStatement&&)>;

    // Formats `format` with its arguments on this thread and delivers the
    // message. A null format does nothing. Kept out of line and cold so that
    // the guard at each statement stays a few instructions.
    template <class... Args>
    [[gnu::noinline, gnu::cold]] static void log(bool synchronous, int32_t level, int32_t flag, int32_t context,
                                                 const char* file, const char* function, int32_t line,
                                                 const char* format, const Args&... args) {
        if (format == nullptr) return;
        deliver(LogStatement{synchronous, level, flag, context, file, function, line, qrl::format(format, args...)});
    }

    // Installs the sink that receives every message (any thread may call it;
    // a sink must be thread-safe). Returns the previous one. An empty Sink
    // removes it.
    static Sink setSink(Sink sink);

    static void deliver(LogStatement&& statement);
};

}  // namespace qrl
