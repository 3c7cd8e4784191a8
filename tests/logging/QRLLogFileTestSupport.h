// Helpers for the file logger's tests: a private temporary folder, file
// reading and writing, attribute probes, and a capture of the platform log.
#pragma once

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <mutex>
#include <sstream>
#include <string>
#include <vector>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/detail/LogFileAttributes.h"
#include "support/TestSupport.h"

namespace qrl::test {

// A folder made with mkdtemp under `base` (the temporary directory when
// empty), removed with everything in it at the end of the scope.
class TempFolder {
public:
    explicit TempFolder(std::string base = {}) {
        if (base.empty()) {
            const char* tmp = std::getenv("TMPDIR");
            base = tmp && tmp[0] == '/' ? tmp : "/tmp";
        }
        std::string pattern = base + "/qrl-logfile-XXXXXX";
        if (::mkdtemp(pattern.data())) path_ = pattern;
    }
    ~TempFolder() {
        if (path_.empty()) return;
        std::error_code ignored;
        std::filesystem::remove_all(path_, ignored);
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;

    bool ok() const { return !path_.empty(); }
    const std::string& path() const { return path_; }
    std::string operator/(const std::string& name) const { return path_ + "/" + name; }

private:
    std::string path_;
};

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline bool writeFile(const std::string& path, const std::string& content) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << content;
    return static_cast<bool>(out);
}

inline bool exists(const std::string& path) {
    struct stat s {};
    return ::lstat(path.c_str(), &s) == 0;
}

// Lines of a text, without their line feeds.
inline std::vector<std::string> linesOf(const std::string& text) {
    std::vector<std::string> lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) lines.push_back(line);
    return lines;
}

// Whether the file carries the extended attribute itself (not a stand-in).
inline bool hasRealAttribute(const std::string& path, const std::string& name) {
    return ::getxattr(path.c_str(), name.c_str(), nullptr, 0) >= 0;
}

// Runs a shell command and answers its exit status and standard output.
struct CommandResult {
    int status = -1;
    std::string output;
};
inline CommandResult runCommand(const std::string& command) {
    CommandResult result;
    FILE* pipe = ::popen(command.c_str(), "r");
    if (!pipe) return result;
    char buffer[512];
    size_t n;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
    const int raw = ::pclose(pipe);
    result.status = WIFEXITED(raw) ? WEXITSTATUS(raw) : -1;
    return result;
}

// Single quotes for the shell.
inline std::string shellQuoted(const std::string& text) {
    std::string out = "'";
    for (char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
    return out + "'";
}

using PlatformLogCapture = ::qrl::test::CapturedPlatformLog;

// Installs an attribute port for the scope.
class ScopedLogFileAttributes {
public:
    explicit ScopedLogFileAttributes(std::shared_ptr<detail::LogFileAttributes> port)
        : previous_(detail::installLogFileAttributes(std::move(port))) {}
    ~ScopedLogFileAttributes() { detail::installLogFileAttributes(previous_); }
    ScopedLogFileAttributes(const ScopedLogFileAttributes&) = delete;
    ScopedLogFileAttributes& operator=(const ScopedLogFileAttributes&) = delete;

private:
    std::shared_ptr<detail::LogFileAttributes> previous_;
};

// One warning statement of context 1 through the engine, asynchronous.
inline void logText(const std::string& text) {
    QRLLog::log(false, 3, 2, 1, __FILE__, __func__, __LINE__, "%@", text);
}

}  // namespace qrl::test
