// A private session bus for the backend tests: dbus-daemon started in a
// temporary folder, its address read from a pipe, stopped at the end; and
// child processes with pipes on their standard input and output, read line
// by line against a deadline.
#pragma once

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <stdlib.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

extern char** environ;

namespace qrl::test {

inline bool underCIRun() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

// The full path of a program on $PATH, or empty.
inline std::string programOnPath(const std::string& name) {
    const char* path = std::getenv("PATH");
    const std::string dirs = path ? path : "/usr/bin:/bin";
    std::size_t start = 0;
    while (start <= dirs.size()) {
        std::size_t end = dirs.find(':', start);
        if (end == std::string::npos) end = dirs.size();
        const std::string candidate = dirs.substr(start, end - start) + "/" + name;
        if (::access(candidate.c_str(), X_OK) == 0) return candidate;
        start = end + 1;
    }
    return {};
}

// A child process with its standard input and output on pipes; killed and
// reaped at the end if still running.
class ChildProcess {
public:
    // `environment` entries ("NAME=value") are added to this process's own.
    ChildProcess(const std::vector<std::string>& arguments, const std::vector<std::string>& environment,
                 bool captureOutput = true) {
        int in[2], out[2];
        if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0) return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, in[0], 0);
        if (captureOutput) posix_spawn_file_actions_adddup2(&actions, out[1], 1);
        std::vector<std::string> args = arguments;
        std::vector<char*> argv;
        for (auto& a : args) argv.push_back(a.data());
        argv.push_back(nullptr);
        std::vector<std::string> env;
        for (char** e = environ; *e; ++e) env.emplace_back(*e);
        for (const std::string& extra : environment) {
            const std::string name = extra.substr(0, extra.find('=') + 1);
            std::erase_if(env, [&](const std::string& e) { return e.rfind(name, 0) == 0; });
            env.push_back(extra);
        }
        std::vector<char*> envp;
        for (auto& e : env) envp.push_back(e.data());
        envp.push_back(nullptr);
        const int rc = ::posix_spawn(&pid_, args[0].c_str(), &actions, nullptr, argv.data(), envp.data());
        posix_spawn_file_actions_destroy(&actions);
        ::close(in[0]);
        ::close(out[1]);
        input_ = in[1];
        output_ = out[0];
        if (rc != 0) pid_ = -1;
    }
    ~ChildProcess() {
        if (input_ >= 0) ::close(input_);
        if (output_ >= 0) ::close(output_);
        if (pid_ > 0) {
            ::kill(pid_, SIGKILL);
            ::waitpid(pid_, nullptr, 0);
        }
    }
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;

    bool started() const { return pid_ > 0; }
    pid_t pid() const { return pid_; }

    bool writeLine(const std::string& line) {
        const std::string text = line + "\n";
        return ::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    }

    // The next line of output, waiting until `deadline`; nullopt on time-out
    // or end of output.
    std::optional<std::string> readLine(std::chrono::steady_clock::time_point deadline) {
        for (;;) {
            if (const auto newline = buffer_.find('\n'); newline != std::string::npos) {
                std::string line = buffer_.substr(0, newline);
                buffer_.erase(0, newline + 1);
                return line;
            }
            const auto left =
                std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) return std::nullopt;
            pollfd p{output_, POLLIN, 0};
            if (::poll(&p, 1, static_cast<int>(left.count())) <= 0) continue;
            char chunk[4096];
            const ssize_t n = ::read(output_, chunk, sizeof chunk);
            if (n <= 0) return std::nullopt;
            buffer_.append(chunk, static_cast<std::size_t>(n));
        }
    }

    // Reads lines until one satisfies `match`; the lines read on the way are
    // appended to *seen when given. nullopt when the deadline passes first.
    std::optional<std::string> waitForLine(const std::function<bool(const std::string&)>& match,
                                           std::chrono::steady_clock::time_point deadline,
                                           std::vector<std::string>* seen = nullptr) {
        while (auto line = readLine(deadline)) {
            if (seen) seen->push_back(*line);
            if (match(*line)) return line;
        }
        return std::nullopt;
    }

    // Closes standard input and waits for the exit status (-1 on time-out).
    int finish(std::chrono::steady_clock::time_point deadline) {
        if (input_ >= 0) ::close(std::exchange(input_, -1));
        while (std::chrono::steady_clock::now() < deadline) {
            int status = 0;
            const pid_t r = ::waitpid(pid_, &status, WNOHANG);
            if (r == pid_) {
                pid_ = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            pollfd p{output_, POLLIN, 0};  // drains output so the child never blocks on it
            if (::poll(&p, 1, 20) > 0) {
                char chunk[4096];
                if (::read(output_, chunk, sizeof chunk) > 0) continue;
            }
        }
        return -1;
    }

private:
    pid_t pid_ = -1;
    int input_ = -1;
    int output_ = -1;
    std::string buffer_;
};

// dbus-daemon --session on a socket of its own; why() says why not when
// address() is empty.
class PrivateSessionBus {
public:
    PrivateSessionBus() {
        const std::string program = programOnPath("dbus-daemon");
        if (program.empty()) {
            why_ = "dbus-daemon is not installed";
            return;
        }
        std::string pattern = (std::filesystem::temp_directory_path() / "qrl-session-bus-XXXXXX").string();
        if (!::mkdtemp(pattern.data())) {
            why_ = "cannot make a temporary folder";
            return;
        }
        dir_ = pattern;
        daemon_.emplace(std::vector<std::string>{program, "--session", "--nofork", "--nopidfile", "--print-address",
                                                 "--address=unix:path=" + dir_ + "/bus"},
                        std::vector<std::string>{});
        if (!daemon_->started()) {
            why_ = "cannot start dbus-daemon";
            return;
        }
        if (auto line = daemon_->readLine(std::chrono::steady_clock::now() + std::chrono::seconds(10)))
            address_ = *line;
        if (address_.empty()) why_ = "dbus-daemon gave no address";
    }
    ~PrivateSessionBus() {
        stop();
        if (!dir_.empty()) std::filesystem::remove_all(dir_);
    }
    // Stops the daemon now (its clients see the bus go away).
    void stop() {
        if (daemon_ && daemon_->started()) {
            ::kill(daemon_->pid(), SIGTERM);
            daemon_->finish(std::chrono::steady_clock::now() + std::chrono::seconds(10));
        }
        daemon_.reset();
    }
    const std::string& address() const { return address_; }
    const std::string& why() const { return why_; }

private:
    std::string dir_, address_, why_;
    std::optional<ChildProcess> daemon_;
};

}  // namespace qrl::test
