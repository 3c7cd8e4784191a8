// Child processes and private servers for the backend tests and the
// benchmarks. A Process runs a program with pipes where asked for and reads
// its lines against deadlines. A PrivateServer starts a server program in a
// private runtime folder of its own (XDG_RUNTIME_DIR and HOME point there),
// waits with a deadline until the server writes its address as the first line
// of its standard output, and stops it at the end: SIGTERM, then SIGKILL once
// the stop deadline passes, and the child is always reaped. Factories cover
// Xvfb and dbus-daemon; another server needs only its Launch: arguments,
// files to write first, and what goes before the line it writes.
//
// No GoogleTest here (the benchmarks use it too): QRL_REQUIRE_SERVER and
// QRL_SKIP_UNLESS expand in the tests.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "support/TemporaryFolder.h"

namespace qrl::test {

using Deadline = std::chrono::steady_clock::time_point;
inline Deadline after(double seconds) {
    return std::chrono::steady_clock::now() +
           std::chrono::duration_cast<std::chrono::steady_clock::duration>(std::chrono::duration<double>(seconds));
}

// CI=true: a missing program fails a test instead of skipping it.
bool underCI();
// The full path of a program on $PATH, or empty.
std::string findProgram(const std::string& name);

class Process {
public:
    struct Options {
        // Changes to this process's environment: "NAME=value" sets,
        // "NAME" unsets, "PREFIX*" unsets every name that starts with PREFIX.
        std::vector<std::string> environment;
        bool pipeInput = false;       // standard input fed by writeLine()
        bool pipeOutput = false;      // standard output read by readLine()
        bool errorsToOutput = false;  // standard error joins standard output
        std::string logFile;          // where standard error goes, unless joined; empty: inherited
    };

    // arguments[0] is a path or a name on $PATH.
    Process(std::vector<std::string> arguments, Options options);
    ~Process();  // stop()s what is still running
    Process(const Process&) = delete;
    Process& operator=(const Process&) = delete;

    bool started() const { return pid_ > 0; }
    const std::string& why() const { return why_; }

    bool writeLine(const std::string& line);
    // The next line of standard output; nullopt at the deadline or its end.
    std::optional<std::string> readLine(Deadline deadline);
    // Reads lines until one satisfies `match`.
    std::optional<std::string> waitForLine(const std::function<bool(const std::string&)>& match, Deadline deadline);
    // Every line of standard output read so far, by any call.
    const std::vector<std::string>& lines() const { return lines_; }

    // Closes standard input and waits for the end, reading the output on the
    // way: the exit status (128 + signal when killed), -1 at the deadline.
    int wait(Deadline deadline);
    // SIGTERM, SIGKILL when still there after `grace`, and reaps the child.
    void stop(std::chrono::milliseconds grace = std::chrono::seconds(5));

    // Standard output of a program run to its end; nullopt unless it exits 0.
    static std::optional<std::string> outputOf(std::vector<std::string> arguments,
                                               std::vector<std::string> environment = {}, double seconds = 30);

private:
    // One read of standard output, split into lines; false at the deadline or its end.
    bool fill(Deadline deadline);

    pid_t pid_ = -1;
    int input_ = -1, output_ = -1;
    std::string why_, buffer_;
    std::vector<std::string> lines_;
    std::size_t consumed_ = 0;
};

class PrivateServer {
public:
    struct Launch {
        std::string program;                  // a name on $PATH
        std::vector<std::string> arguments;   // "{runtime}" stands for the private folder
        std::map<std::string, std::string> files;  // written into the folder first ("{runtime}" expanded)
        std::string addressPrefix;            // the address is this and the server's first line
    };

    explicit PrivateServer(Launch launch);
    ~PrivateServer();
    PrivateServer(const PrivateServer&) = delete;
    PrivateServer& operator=(const PrivateServer&) = delete;

    bool running() const { return process_ && !address_.empty(); }
    // The program is not installed (a reason to skip, outside CI).
    bool missing() const { return missing_; }
    const std::string& why() const { return why_; }
    const std::string& address() const { return address_; }
    // The private folder, removed at the end.
    const std::string& folder() const { return folder_.path(); }
    // Stops the server now; its clients see it go away.
    void stop();

    // Xvfb with one screen ("WxHxDepth"); the address is the display name, ":N".
    static PrivateServer xvfb(const std::string& screen = "1024x768x24");
    // dbus-daemon on a socket in the folder: a session bus, or a system-like
    // one (type system, anyone may own any name, as a test's fake logind must).
    enum class Bus { Session, System };
    static PrivateServer dbusDaemon(Bus bus = Bus::Session);

private:
    TemporaryFolder folder_;
    std::optional<Process> process_;
    bool missing_ = false;
    std::string why_, address_;
};

}  // namespace qrl::test

// Skips the test with `reason` when `available` is false; fails it under CI.
#define QRL_SKIP_UNLESS(available, reason)                                          \
    do {                                                                            \
        if (!(available)) {                                                         \
            if (::qrl::test::underCI()) FAIL() << "needed under CI: " << (reason);  \
            GTEST_SKIP() << (reason);                                               \
        }                                                                           \
    } while (0)

// Skips when the server's program is not installed (fails under CI); fails
// when it is there but did not start.
#define QRL_REQUIRE_SERVER(server)                                 \
    do {                                                           \
        if (!(server).running()) {                                 \
            QRL_SKIP_UNLESS(!(server).missing(), (server).why());  \
            FAIL() << (server).why();                              \
        }                                                          \
    } while (0)
