// logging_peer: one process of the product for the cross-process logging
// test. It starts Logging, registers a handler that applies received options,
// and runs the main loop, taking commands on standard input, one a line:
//   set <shared|application|foundation|legacy|quicktime|uploader> <level>
//   pending       prints "pending <n>", the delayed calls waiting on the main loop
//   quit          (or end of input) ends the process
// and writing what happens on standard output, one a line:
//   ready <backend> <Logging's description>
//   received object=<object> shared=<level> application=<level>
//   set <name> <level>
//   total <n>     at the end: the notifications received
#include <poll.h>
#include <unistd.h>

#include <cstdlib>
#include <map>
#include <memory>
#include <string>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/DistributedNotificationCenter.h"
#include "qrl/logging/LogLevels.h"
#include "qrl/logging/Logging.h"

namespace {

using namespace qrl;

void say(const std::string& line) {
    const std::string text = line + "\n";
    std::size_t done = 0;
    while (done < text.size()) {
        const ssize_t n = ::write(1, text.data() + done, text.size() - done);
        if (n <= 0) return;
        done += static_cast<std::size_t>(n);
    }
}

class PeerHandler final : public LoggingChangeHandler {
public:
    int received = 0;
    void loggingOptionsChanged(const DistributedNotification& notification) override {
        ++received;
        Logging::defaultLogger()->updateLoggingPreferencesBecauseOfNotification(notification);
        say(qrl::format("received object=%@ shared=%d application=%d", notification.object,
                        Logging::sharedLoggingLevel(), Logging::applicationLoggingLevel()));
    }
};

const std::map<std::string, void (*)(int32_t)> kSetters = {
    {"shared", &Logging::setSharedLoggingLevel},         {"application", &Logging::setApplicationLoggingLevel},
    {"foundation", &Logging::setFoundationLoggingLevel}, {"legacy", &Logging::setLegacyLoggingLevel},
    {"quicktime", &Logging::setQuicktimeLoggingLevel},   {"uploader", &Logging::setUploaderLoggingLevel}};

void handle(const std::string& line, RunLoop& loop) {
    if (line == "quit") {
        loop.stop();
    } else if (line == "pending") {
        say(qrl::format("pending %zu", loop.timerCount()));
    } else if (line.rfind("set ", 0) == 0) {
        const std::size_t space = line.find(' ', 4);
        const std::string name = line.substr(4, space - 4);  // to the end when there is no level
        const int32_t level = space == std::string::npos ? -1 : std::atoi(line.c_str() + space + 1);
        const auto setter = kSetters.find(name);
        if (setter == kSetters.end()) return say("error unknown level " + name);
        setter->second(level);
        say(qrl::format("set %@ %d", name, level));
    } else {
        say("error unknown command " + line);
    }
}

}  // namespace

int main() {
    LoggerStart();
    auto handler = std::make_shared<PeerHandler>();
    Logging::registerLoggingChangeHandler(handler);
    say(qrl::format("ready %@ %@", std::string(DistributedNotificationCenter::defaultCenter()->backendName()),
                    Logging::defaultLogger()->description()));

    RunLoop& loop = RunLoop::main();
    std::string input;
    loop.addFdSource(0, POLLIN, [&](int fd, short) {
        char chunk[512];
        const ssize_t n = ::read(fd, chunk, sizeof chunk);
        if (n <= 0) {
            loop.stop();
            return;
        }
        input.append(chunk, static_cast<std::size_t>(n));
        for (std::size_t newline; (newline = input.find('\n')) != std::string::npos;) {
            const std::string line = input.substr(0, newline);
            input.erase(0, newline + 1);
            handle(line, loop);
        }
    });
    loop.run();
    say(qrl::format("total %d", handler->received));
    DistributedNotificationCenter::install(nullptr);  // closes the bus connection while all is alive
    return 0;
}
