#include "qrl/foundation/Bundle.h"

#include <unistd.h>

#include <filesystem>
#include <mutex>

namespace qrl {

namespace {

Bundle defaultBundle() {
    Bundle b;
    std::error_code ec;
    const auto exe = std::filesystem::read_symlink("/proc/self/exe", ec);
    b.executablePath = ec ? std::string() : exe.string();
    b.name = ec ? std::string("qrlshared") : exe.filename().string();
    b.identifier = "org.qrlshared." + b.name;
    return b;
}

std::mutex gMutex;
std::shared_ptr<const Bundle> gMain;

}  // namespace

std::optional<std::string> Bundle::pathForResource(std::string_view resourceName, std::string_view type) const {
    std::string file(resourceName);
    if (!type.empty()) {
        file += '.';
        file += type;
    }
    for (const std::string& folder : resourcePaths) {
        std::string candidate = folder + "/" + file;
        if (::access(candidate.c_str(), R_OK) == 0) return candidate;
    }
    return std::nullopt;
}

std::shared_ptr<const Bundle> Bundle::main() {
    std::lock_guard lock(gMutex);
    if (!gMain) gMain = std::make_shared<const Bundle>(defaultBundle());
    return gMain;
}

void Bundle::setMain(Bundle bundle) {
    if (!bundle.info) bundle.info = std::make_shared<Dictionary>();
    auto next = std::make_shared<const Bundle>(std::move(bundle));
    std::lock_guard lock(gMutex);
    gMain = std::move(next);
}

}  // namespace qrl
