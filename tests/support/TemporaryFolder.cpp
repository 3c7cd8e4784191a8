#include "support/TemporaryFolder.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>
#include <system_error>

namespace qrl::test {

TemporaryFolder::TemporaryFolder(std::string_view prefix) {
    std::string pattern;
    if (!prefix.starts_with('/')) {
        const char* tmp = std::getenv("TMPDIR");
        pattern = (tmp && tmp[0] == '/') ? tmp : "/tmp";
        pattern += '/';
    }
    pattern.append(prefix).append("-XXXXXX");
    if (!::mkdtemp(pattern.data()))
        throw std::runtime_error("cannot make a temporary folder " + pattern + ": " + std::strerror(errno));
    path_ = std::move(pattern);
}

TemporaryFolder::~TemporaryFolder() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
}

std::string TemporaryFolder::file(std::string_view name) const { return path_ + "/" + std::string(name); }

}  // namespace qrl::test
