#include "support/PrivateServer.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <sstream>
#include <utility>

extern char** environ;

namespace qrl::test {

namespace {

int millisecondsLeft(Deadline deadline) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
    return left.count() < 0 ? 0 : static_cast<int>(left.count());
}

// A close-on-exec pipe whose ends sit above the descriptors a child gets
// (0 to 3), so that dup2 onto those always copies and clears close-on-exec.
bool highPipe(int fds[2]) {
    int raw[2];
    if (::pipe2(raw, O_CLOEXEC) != 0) return false;
    for (int i = 0; i < 2; ++i) {
        fds[i] = ::fcntl(raw[i], F_DUPFD_CLOEXEC, 10);
        ::close(raw[i]);
    }
    return fds[0] >= 0 && fds[1] >= 0;
}

void closeFd(int& fd) {
    if (fd >= 0) ::close(std::exchange(fd, -1));
}

std::string expand(std::string text, const std::string& folder) {
    for (std::size_t at; (at = text.find("{runtime}")) != std::string::npos;) text.replace(at, 9, folder);
    return text;
}

std::vector<std::string> environmentWith(const std::vector<std::string>& changes) {
    std::vector<std::string> env;
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    for (const std::string& change : changes) {
        const std::size_t equals = change.find('=');
        const bool prefix = equals == std::string::npos && !change.empty() && change.back() == '*';
        const std::string key = equals != std::string::npos ? change.substr(0, equals + 1)
                                : prefix                    ? change.substr(0, change.size() - 1)
                                                            : change + "=";
        std::erase_if(env, [&](const std::string& e) { return e.rfind(key, 0) == 0; });
        if (equals != std::string::npos) env.push_back(change);
    }
    return env;
}

std::vector<char*> pointers(std::vector<std::string>& strings) {
    std::vector<char*> out;
    for (auto& s : strings) out.push_back(s.data());
    out.push_back(nullptr);
    return out;
}

}  // namespace

bool underCI() {
    const char* ci = std::getenv("CI");
    return ci && std::string(ci) == "true";
}

std::string findProgram(const std::string& name) {
    if (name.find('/') != std::string::npos) return ::access(name.c_str(), X_OK) == 0 ? name : std::string();
    std::istringstream dirs(std::getenv("PATH") ? std::getenv("PATH") : "/usr/bin:/bin");
    for (std::string dir; std::getline(dirs, dir, ':');)
        if (const std::string candidate = dir + "/" + name; ::access(candidate.c_str(), X_OK) == 0) return candidate;
    return {};
}

// --- Process ---

Process::Process(std::vector<std::string> arguments, Options options) {
    const std::string program = arguments.empty() ? std::string() : findProgram(arguments[0]);
    if (program.empty()) {
        why_ = (arguments.empty() ? std::string("nothing") : arguments[0]) + " is not installed";
        return;
    }
    int in[2] = {-1, -1}, out[2] = {-1, -1};
    if ((options.pipeInput && !highPipe(in)) || (options.pipeOutput && !highPipe(out))) {
        why_ = std::string("no pipe: ") + std::strerror(errno);
        for (int fd : {in[0], in[1], out[0], out[1]})
            if (fd >= 0) ::close(fd);
        return;
    }
    // A process group of its own, so that stop() reaches what it starts too.
    posix_spawnattr_t attributes;
    posix_spawnattr_init(&attributes);
    posix_spawnattr_setflags(&attributes, POSIX_SPAWN_SETPGROUP);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (options.pipeInput) posix_spawn_file_actions_adddup2(&actions, in[0], 0);
    if (options.pipeOutput) posix_spawn_file_actions_adddup2(&actions, out[1], 1);
    if (options.errorsToOutput)
        posix_spawn_file_actions_adddup2(&actions, 1, 2);
    else if (!options.logFile.empty())
        posix_spawn_file_actions_addopen(&actions, 2, options.logFile.c_str(), O_WRONLY | O_CREAT | O_APPEND, 0600);
    arguments[0] = program;
    std::vector<std::string> env = environmentWith(options.environment);
    const int rc =
        ::posix_spawn(&pid_, program.c_str(), &actions, &attributes, pointers(arguments).data(), pointers(env).data());
    posix_spawn_file_actions_destroy(&actions);
    posix_spawnattr_destroy(&attributes);
    for (int fd : {in[0], out[1]})
        if (fd >= 0) ::close(fd);
    input_ = in[1];
    output_ = out[0];
    if (rc != 0) {
        pid_ = -1;
        why_ = "cannot start " + program + ": " + std::strerror(rc);
    }
}

Process::~Process() {
    stop();
    closeFd(input_);
    closeFd(output_);
}

bool Process::writeLine(const std::string& line) {
    const std::string text = line + "\n";
    return input_ >= 0 && ::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}

bool Process::fill(Deadline deadline) {
    if (output_ < 0) return false;
    pollfd p{output_, POLLIN, 0};
    int ready;
    while ((ready = ::poll(&p, 1, millisecondsLeft(deadline))) < 0 && errno == EINTR) {
    }
    char chunk[4096];
    const ssize_t n = ready > 0 ? ::read(output_, chunk, sizeof chunk) : 0;
    if (n <= 0) return false;
    buffer_.append(chunk, static_cast<std::size_t>(n));
    for (std::size_t newline; (newline = buffer_.find('\n')) != std::string::npos; buffer_.erase(0, newline + 1))
        lines_.push_back(buffer_.substr(0, newline));
    return true;
}

std::optional<std::string> Process::readLine(Deadline deadline) {
    while (consumed_ == lines_.size())
        if (!fill(deadline)) return std::nullopt;
    return lines_[consumed_++];
}

std::optional<std::string> Process::waitForLine(const std::function<bool(const std::string&)>& match,
                                                Deadline deadline) {
    while (auto line = readLine(deadline))
        if (match(*line)) return line;
    return std::nullopt;
}

int Process::wait(Deadline deadline) {
    closeFd(input_);
    const int pidfd = pid_ > 0 ? static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0)) : -1;
    int status = -1;
    while (pidfd >= 0) {
        if (::waitpid(pid_, &status, WNOHANG) == pid_) {
            pid_ = -1;
            status = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            while (fill(std::chrono::steady_clock::now())) {
            }
            if (!buffer_.empty()) lines_.push_back(std::exchange(buffer_, {}));  // a last line without its end
            break;
        }
        // Reads output as it comes, so that the child never blocks on a full pipe.
        pollfd p[2] = {{pidfd, POLLIN, 0}, {output_, POLLIN, 0}};
        if (millisecondsLeft(deadline) == 0 || ::poll(p, 2, millisecondsLeft(deadline)) < 0) break;
        if (p[1].revents && !fill(std::chrono::steady_clock::now())) closeFd(output_);
    }
    if (pidfd >= 0) ::close(pidfd);
    return status;
}

void Process::stop(std::chrono::milliseconds grace) {
    if (pid_ <= 0) return;
    ::kill(-pid_, SIGTERM);
    const int pidfd = static_cast<int>(::syscall(SYS_pidfd_open, pid_, 0));
    pollfd p{pidfd, POLLIN, 0};
    if (pidfd < 0 || ::poll(&p, 1, static_cast<int>(grace.count())) <= 0) ::kill(-pid_, SIGKILL);
    if (pidfd >= 0) ::close(pidfd);
    ::waitpid(pid_, nullptr, 0);
    ::kill(-pid_, SIGKILL);  // what the group leader left behind
    pid_ = -1;
}

std::optional<std::string> Process::outputOf(std::vector<std::string> arguments, std::vector<std::string> environment,
                                             double seconds) {
    Process p(std::move(arguments), {.environment = std::move(environment), .pipeOutput = true});
    if (!p.started() || p.wait(after(seconds)) != 0) return std::nullopt;
    std::string out;
    for (const std::string& line : p.lines()) out += line + "\n";
    return out;
}

// --- PrivateServer ---

PrivateServer::PrivateServer(Launch launch) : folder_("qrl-" + launch.program) {
    constexpr int kStartSeconds = 20;
    const std::string& name = launch.program;
    missing_ = findProgram(name).empty();
    if (missing_ || folder().empty()) {
        why_ = missing_ ? name + " is not installed" : "no private folder for " + name;
        return;
    }
    for (const auto& [file, contents] : launch.files) std::ofstream(folder_.file(file)) << expand(contents, folder());
    std::vector<std::string> arguments{name};
    for (const std::string& a : launch.arguments) arguments.push_back(expand(a, folder()));
    // Standard output carries the address; what the server says goes to the log.
    const std::string log = folder_.file("server.log");
    process_.emplace(arguments, Process::Options{.environment = {"XDG_RUNTIME_DIR=" + folder(), "HOME=" + folder()},
                                                 .pipeOutput = true,
                                                 .logFile = log});
    if (const auto line = process_->readLine(after(kStartSeconds)); line && !line->empty()) {
        address_ = launch.addressPrefix + *line;
        return;
    }
    std::ifstream in(log);
    const std::string said((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
    if (!process_->started()) {
        why_ = process_->why();
    } else {
        const int status = process_->wait(after(0.2));  // an early end shows at once, a hang costs 0.2 s
        why_ = (status >= 0 ? name + " ended with status " + std::to_string(status) + " before it was ready"
                            : name + " was not ready within " + std::to_string(kStartSeconds) + " s") +
               "; it said: " + said.substr(said.size() > 600 ? said.size() - 600 : 0);
    }
    stop();
}

PrivateServer::~PrivateServer() { stop(); }

void PrivateServer::stop() {
    if (process_) process_->stop();
    process_.reset();
}

PrivateServer PrivateServer::xvfb(const std::string& screen) {
    return PrivateServer(Launch{
        .program = "Xvfb",
        .arguments = {"-displayfd", "1", "-screen", "0", screen, "-nolisten", "tcp", "-noreset", "-nolock"},
        .addressPrefix = ":",  // before the display number
    });
}

PrivateServer PrivateServer::dbusDaemon(Bus bus) {
    Launch launch{.program = "dbus-daemon"};
    launch.arguments = {"--nofork", "--nopidfile", "--print-address=1"};
    if (bus == Bus::Session) {
        launch.arguments.insert(launch.arguments.end(), {"--session", "--address=unix:path={runtime}/bus"});
    } else {
        launch.arguments.push_back("--config-file={runtime}/system.conf");
        launch.files["system.conf"] = R"(<!DOCTYPE busconfig PUBLIC "-//freedesktop//DTD D-Bus Bus Configuration 1.0//EN"
 "http://www.freedesktop.org/standards/dbus/1.0/busconfig.dtd">
<busconfig>
  <type>system</type>
  <listen>unix:path={runtime}/system_bus_socket</listen>
  <auth>EXTERNAL</auth>
  <policy context="default">
    <allow user="*"/>
    <allow own="*"/>
    <allow send_destination="*" eavesdrop="true"/>
    <allow eavesdrop="true"/>
  </policy>
</busconfig>
)";
    }
    return PrivateServer(std::move(launch));
}

}  // namespace qrl::test
