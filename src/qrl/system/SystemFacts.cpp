#include "qrl/system/SystemFacts.h"

#include <utility>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/system/detail/SystemBackends.h"

namespace qrl {

InstalledPort<SystemFacts>& SystemFacts::slot() {
    static auto* s = new InstalledPort<SystemFacts>([]() -> std::shared_ptr<SystemFacts> {
        BackendChoice choice;
        auto facts = chooseBackend(detail::kSystemFactsPort, detail::systemFactsBackends(), &choice);
        for (const auto& note : choice.notes) platformLogFormat("System facts: %@; using the running system's", note);
        return facts;
    });
    return *s;
}

std::shared_ptr<SystemFacts> SystemFacts::installed() { return slot().get(); }

void SystemFacts::install(std::shared_ptr<SystemFacts> facts) { slot().install(std::move(facts)); }

ScopedSystemFacts::ScopedSystemFacts(std::shared_ptr<SystemFacts> facts)
    : ScopedPort<SystemFacts>(SystemFacts::slot(), std::move(facts)) {}

}  // namespace qrl
