// Version: a three-part version (major.minor.build) read from text or from a
// bundle's Info.plist, with the named system release tests.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace qrl {

class Version {
public:
    // 0.0.0, packed version 0.
    Version() = default;
    Version(int32_t major, int32_t minor, int32_t build) : major_(major), minor_(minor), build_(build) {}

    // Splits at "." and reads the components as intValue does: the first into
    // major, the second (if any) into minor, the third (if any) into build;
    // further components are ignored. A string without a dot still gives a
    // major. A null string (nullopt) gives nullopt and one line on the
    // platform log: "Couldn't build version string from (null). Didn't
    // contain any . chars".
    static std::optional<Version> initWithVersionString(std::optional<std::string_view> string);

    // Reads "<path>/Contents/Info.plist" and builds the version from its
    // "CFBundleShortVersionString". A missing or unreadable property list
    // gives nullopt and "No bundle at path <path>" on the platform log; a
    // list without the key gives nullopt as a null string does.
    static std::optional<Version> initWithBundlePath(std::string_view path);
    // The same.
    static std::optional<Version> versionForBundle(std::string_view path) { return initWithBundlePath(path); }

    int32_t major() const { return major_; }
    int32_t minor() const { return minor_; }
    int32_t build() const { return build_; }
    // The packed form; only the QuickTime version sets it.
    int64_t version() const { return version_; }
    void setMajor(int32_t v) { major_ = v; }
    void setMinor(int32_t v) { minor_ = v; }
    void setBuild(int32_t v) { build_ = v; }
    void setVersion(int64_t v) { version_ = v; }

    // "%d.%d.%d".
    std::string description() const;

    // Each is false unless major is 10; the "or above" forms hold only
    // within major 10, so 11.0 answers false to all of them.
    bool isTiger() const { return major_ == 10 && minor_ == 4; }
    bool isLeopard() const { return major_ == 10 && minor_ == 5; }
    bool isSnowLeopard() const { return major_ == 10 && minor_ == 6; }
    bool isLion() const { return major_ == 10 && minor_ == 7; }
    bool isMountainLion() const { return major_ == 10 && minor_ == 8; }
    bool isTenFiveOrAbove() const { return major_ == 10 && minor_ > 4; }
    bool isSnowLeopardOrAbove() const { return major_ == 10 && minor_ > 5; }
    bool isLionOrAbove() const { return major_ == 10 && minor_ > 6; }
    bool isMountainLionOrAbove() const { return major_ == 10 && minor_ > 7; }
    bool isLionVersion0OrVersion1() const { return isLion() && build_ < 2; }

    friend bool operator==(const Version&, const Version&) = default;

private:
    int32_t major_ = 0;
    int32_t minor_ = 0;
    int32_t build_ = 0;
    int64_t version_ = 0;
};

// The value of the first top-level `key` of an XML property list whose value
// is a <string>, entities decoded; nullopt when there is none. Only as much of
// the format as bundle Info.plist files use is understood.
std::optional<std::string> propertyListString(std::string_view xml, std::string_view key);

}  // namespace qrl
