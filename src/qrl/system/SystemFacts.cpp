#include "qrl/system/SystemFacts.h"

#include <cstdlib>
#include <mutex>
#include <utility>
#include <string>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/system/linux/SystemFactsLinux.h"
#include "qrl/system/sim/SystemFactsSim.h"

namespace qrl {

namespace {

std::mutex gMutex;
std::shared_ptr<SystemFacts> gInstalled;

std::shared_ptr<SystemFacts> choose() {
    const char* named = std::getenv("QRL_SYSTEM_PLATFORM");
    if (!named || !*named) named = std::getenv("QRL_PLATFORM");
    const std::string name = named ? named : "";
    if (name == "sim") return std::make_shared<SystemFactsSim>();
    if (!name.empty() && name != "linux") {
        platformLogFormat("System facts: no backend named \"%@\"; using the running system's", name);
    }
    // The ordered list has one entry, the running system, which always works.
    return std::make_shared<SystemFactsLinux>();
}

}  // namespace

std::shared_ptr<SystemFacts> SystemFacts::installed() {
    std::lock_guard lock(gMutex);
    if (!gInstalled) gInstalled = choose();
    return gInstalled;
}

void SystemFacts::install(std::shared_ptr<SystemFacts> facts) {
    std::lock_guard lock(gMutex);
    gInstalled = std::move(facts);
}

ScopedSystemFacts::ScopedSystemFacts(std::shared_ptr<SystemFacts> facts) {
    std::lock_guard lock(gMutex);
    previous_ = std::exchange(gInstalled, std::move(facts));
}

ScopedSystemFacts::~ScopedSystemFacts() {
    std::lock_guard lock(gMutex);
    gInstalled = std::move(previous_);
}

}  // namespace qrl
