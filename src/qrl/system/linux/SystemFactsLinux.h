// SystemFactsLinux: the running Linux system's facts. The release is
// VERSION_ID of os-release; there are no selector queries, so every
// gestalt() fails.
#pragma once

#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "qrl/system/SystemFacts.h"

namespace qrl {

class SystemFactsLinux final : public SystemFacts {
public:
    // Reads the first of /etc/os-release and /usr/lib/os-release that exists.
    SystemFactsLinux();
    // Reads the first of `paths` that exists (tests).
    explicit SystemFactsLinux(std::vector<std::string> paths);

    std::string_view backendName() const override { return "linux"; }
    // VERSION_ID, unquoted, read once and then remembered. Debian's "12" reads as 12.0.0; a file without
    // VERSION_ID (rolling releases) gives nullopt.
    std::optional<std::string> productVersion() const override;
    // Linux has no counterpart of the system's selector queries (the packed
    // media framework version among them): always nullopt.
    std::optional<int32_t> gestalt(uint32_t) const override { return std::nullopt; }

    // The value of `key` in os-release text: KEY=value lines, values
    // optionally in single or double quotes with backslash escapes inside
    // double quotes; comments and blank lines skipped. nullopt when absent.
    static std::optional<std::string> osReleaseValue(std::string_view text, std::string_view key);

private:
    std::vector<std::string> paths_;
    mutable std::mutex mutex_;
    mutable std::optional<std::optional<std::string>> cached_;
};

}  // namespace qrl
