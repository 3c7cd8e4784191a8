#include "qrl/foundation/Identification.h"

#include <cstdlib>
#include <string_view>

#include "qrl/foundation/Bundle.h"

namespace qrl {

namespace {

std::string infoOr(std::string_view key, const std::string& fallback) {
    const auto bundle = Bundle::main();
    if (bundle->info) {
        if (const Value* v = bundle->info->find(key); v && v->isString()) return *v->asString();
    }
    return fallback;
}

std::string executableName(const Bundle& b) {
    const auto slash = b.executablePath.rfind('/');
    if (b.executablePath.empty()) return {};
    return slash == std::string::npos ? b.executablePath : b.executablePath.substr(slash + 1);
}

}  // namespace

std::string applicationVersion() { return infoOr("CFBundleVersion", Bundle::main()->version); }
std::string applicationVersionShort() { return infoOr("CFBundleShortVersionString", Bundle::main()->shortVersion); }
std::string applicationIdentifier() { return infoOr("CFBundleIdentifier", Bundle::main()->identifier); }
std::string applicationName() { return infoOr("CFBundleExecutable", executableName(*Bundle::main())); }
std::string appNameByBundle() { return infoOr("CFBundleName", Bundle::main()->name); }

std::string applicationSupportFolder() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && xdg[0] == '/') {
        base = xdg;
    } else if (const char* home = std::getenv("HOME"); home && home[0] == '/') {
        base = std::string(home) + "/.local/share";
    } else if (const char* tmp = std::getenv("TMPDIR"); tmp && tmp[0] == '/') {
        base = tmp;
    } else {
        base = "/tmp";
    }
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return base + "/" + appNameByBundle();
}

}  // namespace qrl
