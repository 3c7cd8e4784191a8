// SystemFactsSim: scriptable system facts for tests and simulations: a
// release text and selector answers, each settable, with query counters.
#pragma once

#include <atomic>
#include <map>
#include <mutex>

#include "qrl/system/SystemFacts.h"

namespace qrl {

class SystemFactsSim final : public SystemFacts {
public:
    // No release and no selector answers until set.
    SystemFactsSim() = default;
    explicit SystemFactsSim(std::optional<std::string> productVersion) : productVersion_(std::move(productVersion)) {}

    std::string_view backendName() const override { return "sim"; }
    std::optional<std::string> productVersion() const override;
    std::optional<int32_t> gestalt(uint32_t selector) const override;

    void setProductVersion(std::optional<std::string> version);
    // nullopt makes the selector fail.
    void setGestalt(uint32_t selector, std::optional<int32_t> answer);

    int productVersionQueries() const { return productVersionQueries_.load(); }
    int gestaltQueries() const { return gestaltQueries_.load(); }

private:
    mutable std::mutex mutex_;
    std::optional<std::string> productVersion_;
    std::map<uint32_t, int32_t> gestalt_;
    mutable std::atomic<int> productVersionQueries_{0};
    mutable std::atomic<int> gestaltQueries_{0};
};

}  // namespace qrl
