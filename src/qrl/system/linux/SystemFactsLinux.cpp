#include "qrl/system/linux/SystemFactsLinux.h"

#include <fstream>
#include <sstream>

namespace qrl {

SystemFactsLinux::SystemFactsLinux() : SystemFactsLinux({"/etc/os-release", "/usr/lib/os-release"}) {}

SystemFactsLinux::SystemFactsLinux(std::vector<std::string> paths) : paths_(std::move(paths)) {}

std::optional<std::string> SystemFactsLinux::osReleaseValue(std::string_view text, std::string_view key) {
    size_t pos = 0;
    while (pos < text.size()) {
        size_t end = text.find('\n', pos);
        if (end == std::string_view::npos) end = text.size();
        std::string_view line = text.substr(pos, end - pos);
        pos = end + 1;
        while (!line.empty() && (line.front() == ' ' || line.front() == '\t')) line.remove_prefix(1);
        while (!line.empty() && (line.back() == '\r' || line.back() == ' ' || line.back() == '\t')) line.remove_suffix(1);
        if (line.empty() || line.front() == '#') continue;
        const size_t eq = line.find('=');
        if (eq == std::string_view::npos || line.substr(0, eq) != key) continue;
        std::string_view raw = line.substr(eq + 1);
        std::string value;
        if (raw.size() >= 2 && raw.front() == '"' && raw.back() == '"') {
            raw = raw.substr(1, raw.size() - 2);
            for (size_t i = 0; i < raw.size(); ++i) {
                if (raw[i] == '\\' && i + 1 < raw.size()) ++i;
                value += raw[i];
            }
        } else if (raw.size() >= 2 && raw.front() == '\'' && raw.back() == '\'') {
            value = raw.substr(1, raw.size() - 2);
        } else {
            value = raw;
        }
        return value;
    }
    return std::nullopt;
}

std::optional<std::string> SystemFactsLinux::productVersion() const {
    std::lock_guard lock(mutex_);
    if (cached_) return *cached_;
    std::optional<std::string> value;
    for (const std::string& path : paths_) {
        std::ifstream in(path, std::ios::binary);
        if (!in) continue;
        std::stringstream text;
        text << in.rdbuf();
        value = osReleaseValue(text.str(), "VERSION_ID");
        break;
    }
    cached_ = value;
    return value;
}

}  // namespace qrl
