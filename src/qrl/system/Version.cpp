#include "qrl/system/Version.h"

#include <algorithm>
#include <fstream>
#include <limits>
#include <sstream>
#include <vector>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/Value.h"

namespace qrl {

namespace {

// A string's intValue: leading white space, optional sign, digits; saturates
// at the 32-bit limits; 0 when there is no number.
int32_t intValueOf(std::string_view text) {
    const int64_t v = Value(text).integerValue();
    return static_cast<int32_t>(
        std::clamp<int64_t>(v, std::numeric_limits<int32_t>::min(), std::numeric_limits<int32_t>::max()));
}

std::vector<std::string_view> splitAtDots(std::string_view s) {
    std::vector<std::string_view> parts;
    size_t start = 0;
    for (;;) {
        const size_t dot = s.find('.', start);
        if (dot == std::string_view::npos) {
            parts.push_back(s.substr(start));
            return parts;
        }
        parts.push_back(s.substr(start, dot - start));
        start = dot + 1;
    }
}

std::string decodeEntities(std::string_view s) {
    std::string out;
    out.reserve(s.size());
    for (size_t i = 0; i < s.size(); ++i) {
        if (s[i] != '&') {
            out += s[i];
            continue;
        }
        const size_t semi = s.find(';', i);
        if (semi == std::string_view::npos) {
            out += s.substr(i);
            break;
        }
        const std::string_view name = s.substr(i + 1, semi - i - 1);
        if (name == "amp") out += '&';
        else if (name == "lt") out += '<';
        else if (name == "gt") out += '>';
        else if (name == "quot") out += '"';
        else if (name == "apos") out += '\'';
        else {
            out += s.substr(i, semi - i + 1);  // unknown entity: kept as written
        }
        i = semi;
    }
    return out;
}

}  // namespace

std::optional<std::string> propertyListString(std::string_view xml, std::string_view key) {
    // Walk the top-level <dict>: a <key> at depth 1 followed by its value.
    const size_t dictStart = xml.find("<dict>");
    if (dictStart == std::string_view::npos) return std::nullopt;
    int depth = 0;
    size_t pos = dictStart;
    bool keyMatched = false;
    while (pos < xml.size()) {
        const size_t lt = xml.find('<', pos);
        if (lt == std::string_view::npos) return std::nullopt;
        const size_t gt = xml.find('>', lt);
        if (gt == std::string_view::npos) return std::nullopt;
        std::string_view tag = xml.substr(lt + 1, gt - lt - 1);
        pos = gt + 1;
        if (tag.starts_with("!--")) {
            const size_t end = xml.find("-->", lt);
            if (end == std::string_view::npos) return std::nullopt;
            pos = end + 3;
            continue;
        }
        const bool closing = tag.starts_with('/');
        const bool empty = tag.ends_with('/');
        if (closing) tag.remove_prefix(1);
        if (empty) tag.remove_suffix(1);
        const std::string_view name = tag.substr(0, tag.find_first_of(" \t\r\n"));
        if (closing) {
            if (name == "dict" || name == "array") {
                if (--depth == 0) return std::nullopt;
            }
            continue;
        }
        if (depth == 1 && keyMatched) {
            if (name != "string" || empty) return std::nullopt;
            const size_t end = xml.find("</string>", pos);
            if (end == std::string_view::npos) return std::nullopt;
            return decodeEntities(xml.substr(pos, end - pos));
        }
        if (empty) continue;
        if (name == "dict" || name == "array") {
            ++depth;
        } else if (depth == 1 && name == "key") {
            const size_t end = xml.find("</key>", pos);
            if (end == std::string_view::npos) return std::nullopt;
            keyMatched = decodeEntities(xml.substr(pos, end - pos)) == key;
            pos = end + 6;
        }
    }
    return std::nullopt;
}

std::optional<Version> Version::initWithVersionString(std::optional<std::string_view> string) {
    if (!string) {
        platformLogFormat("Couldn't build version string from %@. Didn't contain any . chars", nullptr);
        return std::nullopt;
    }
    const auto parts = splitAtDots(*string);
    Version v;
    v.major_ = intValueOf(parts[0]);
    if (parts.size() > 1) v.minor_ = intValueOf(parts[1]);
    if (parts.size() > 2) v.build_ = intValueOf(parts[2]);
    return v;
}

std::optional<Version> Version::initWithBundlePath(std::string_view path) {
    const std::string plist = qrl::format("%@/Contents/Info.plist", path);
    std::ifstream in(plist, std::ios::binary);
    std::stringstream text;
    if (in) text << in.rdbuf();
    if (!in || in.bad() || text.str().find("<plist") == std::string::npos) {
        platformLogFormat("No bundle at path %@", path);
        return std::nullopt;
    }
    const auto shortVersion = propertyListString(text.str(), "CFBundleShortVersionString");
    if (!shortVersion) return initWithVersionString(std::nullopt);
    return initWithVersionString(std::string_view(*shortVersion));
}

std::string Version::description() const { return qrl::format("%d.%d.%d", major_, minor_, build_); }

}  // namespace qrl
