// A private folder for one test: made with mkdtemp under $TMPDIR (or /tmp
// when unset), removed with everything in it when the object goes away.
#pragma once

#include <string>
#include <string_view>

namespace qrl::test {

class TemporaryFolder {
public:
    // `prefix` starts the folder's name, the rest is random; an absolute
    // prefix ("/dev/shm/qrl") places the folder there instead. Throws
    // std::runtime_error when the folder cannot be made.
    explicit TemporaryFolder(std::string_view prefix = "qrl-test");
    ~TemporaryFolder();
    TemporaryFolder(const TemporaryFolder&) = delete;
    TemporaryFolder& operator=(const TemporaryFolder&) = delete;

    // The folder's absolute path, without a trailing slash.
    const std::string& path() const { return path_; }
    // The path of `name` inside the folder (nothing is created).
    std::string file(std::string_view name) const;

private:
    std::string path_;
};

}  // namespace qrl::test
