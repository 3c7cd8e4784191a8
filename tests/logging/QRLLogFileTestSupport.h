// Helpers for the file logger's tests: file reading and writing, attribute
// probes and the attribute port installed for a scope.
#pragma once

#include <sys/stat.h>
#include <sys/xattr.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/detail/LogFileAttributes.h"
#include "support/TemporaryFolder.h"
#include "support/TestSupport.h"

namespace qrl::test {

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
