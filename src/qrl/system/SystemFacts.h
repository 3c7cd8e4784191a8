// SystemFacts: the port through which the framework asks the running system
// for its release and for packed component versions; chosen once per
// process from an ordered list, or installed (tests, simulations).
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/InstalledPort.h"

namespace qrl {

class SystemFacts {
public:
    virtual ~SystemFacts() = default;

    // "linux", "sim".
    virtual std::string_view backendName() const = 0;
    // The system's release as dotted text ("12", "10.7.2"); nullopt when it
    // cannot be read.
    virtual std::optional<std::string> productVersion() const = 0;
    // The 32-bit answer to a system selector (a four-character code such as
    // 'qtim'); nullopt when the query fails or the system has no such fact.
    virtual std::optional<int32_t> gestalt(uint32_t selector) const = 0;

    // The installed facts. On first use from the system backend list:
    // $QRL_SYSTEM_PLATFORM, else $QRL_PLATFORM, may name a backend ("linux",
    // or "sim" for an empty simulated one); otherwise the first of the list
    // that works, which on Linux is always "linux". Thread-safe.
    static std::shared_ptr<SystemFacts> installed();
    // Replaces the installed facts (null goes back to the automatic choice).
    static void install(std::shared_ptr<SystemFacts> facts);

    static InstalledPort<SystemFacts>& slot();
};

// Installs facts for the lifetime of the object and puts the previous ones back.
class ScopedSystemFacts : public ScopedPort<SystemFacts> {
public:
    explicit ScopedSystemFacts(std::shared_ptr<SystemFacts> facts);
};

}  // namespace qrl
