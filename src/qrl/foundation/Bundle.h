// qrl::Bundle: the application's bundle facts (identifier, name, versions,
// the Info dictionary, resource folders), filled in by the application at
// start-up. Linux programs carry no bundle, so the process makes do with a
// default derived from its executable until the application sets its own.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/Value.h"

namespace qrl {

struct Bundle {
    std::string identifier;       // reverse-DNS, e.g. "com.tessara.recorder"
    std::string name;             // user-visible application name
    std::string shortVersion;     // e.g. "2.1.0"
    std::string version;          // build number, e.g. "2100"
    std::string executablePath;
    std::vector<std::string> resourcePaths;  // searched in order by pathForResource
    // The Info dictionary: the application's own keys ("QRLNonPersistentLogging",
    // "QRLLoggingDomain", ...). Never null.
    std::shared_ptr<Dictionary> info = std::make_shared<Dictionary>();

    // The first "<folder>/<name>.<type>" (or "<folder>/<name>" for an empty
    // type) that exists among resourcePaths.
    std::optional<std::string> pathForResource(std::string_view name, std::string_view type) const;

    // The bundle of this process. Until setMain is called: name from
    // /proc/self/exe, identifier "org.qrlshared.<name>", no resource folders.
    static std::shared_ptr<const Bundle> main();
    // Installs the application's facts; any thread, usually first thing in main().
    static void setMain(Bundle bundle);
};

}  // namespace qrl
