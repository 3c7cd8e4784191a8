// The system subsystem's backend lists. Adding a backend: write it in its
// technology's folder and add its entry below (inside `#if QRL_HAVE_<LIB>`
// when its library may be missing at build time).
#include "qrl/system/detail/SystemBackends.h"

#include "qrl/system/linux/SystemFactsLinux.h"
#include "qrl/system/sim/SystemFactsSim.h"

namespace qrl::detail {

namespace {

// System facts: the running system (os-release, sysfs), which always
// answers; an empty simulated system when named.
const SystemFactsEntry kSystemFacts[] = {
    {.name = "linux",
     .make = [](std::string*) -> std::shared_ptr<SystemFacts> { return std::make_shared<SystemFactsLinux>(); }},
    {.name = "sim",
     .use = BackendUse::WhenNamed,
     .make = [](std::string*) -> std::shared_ptr<SystemFacts> { return std::make_shared<SystemFactsSim>(); }},
};

}  // namespace

std::span<const SystemFactsEntry> systemFactsBackends() { return kSystemFacts; }

}  // namespace qrl::detail
