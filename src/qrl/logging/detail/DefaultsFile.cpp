#include "qrl/logging/detail/DefaultsFile.h"

#include <fcntl.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <vector>

#include "qrl/foundation/AtomicFile.h"
#include "qrl/foundation/Decimal.h"
#include "qrl/foundation/Error.h"
#include "qrl/foundation/Format.h"
#include "qrl/net/QRLJsonParser.h"
#include "qrl/net/QRLJsonWriter.h"
#include "qrl/foundation/Utf8.h"
#include "qrl/foundation/detail/CivilDate.h"

namespace qrl::detail {

namespace {

std::string errnoText(int error) { return std::strerror(error); }

// ---- property-list check -------------------------------------------------

std::optional<std::string> valueProblem(const Value& value, int depth) {
    switch (value.type()) {
    case Value::Type::Null: return std::string("a null value cannot be stored");
    case Value::Type::Object:
        return qrl::format("%@ is not a property-list value", value.asObject()->description());
    case Value::Type::String:
        if (!isValidUtf8(*value.asString())) return std::string("a string that is not valid UTF-8 cannot be stored");
        return std::nullopt;
    case Value::Type::Array:
    case Value::Type::Dictionary:
        if (depth >= kDefaultsMaxNesting)
            return qrl::format("values nested deeper than %d levels cannot be stored", kDefaultsMaxNesting);
        if (value.isArray()) {
            for (const Value& item : *value.asArray())
                if (auto problem = valueProblem(item, depth + 1)) return problem;
        } else {
            for (const auto& [key, item] : *value.asDictionary()) {
                if (!isValidUtf8(key)) return std::string("a key that is not valid UTF-8 cannot be stored");
                if (auto problem = valueProblem(item, depth + 1)) return problem;
            }
        }
        return std::nullopt;
    default: return std::nullopt;
    }
}

// ---- tags ----------------------------------------------------------------

Value tagged(std::string_view tag, Value payload) {
    auto dictionary = std::make_shared<Dictionary>();
    dictionary->set(std::string(tag), std::move(payload));
    return Value(std::move(dictionary));
}

std::string shortestText(double number) {
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, number);
    return std::string(buffer, result.ptr);
}

Value encodeReal(double number) {
    std::string text = shortestText(number);
    // A plain number must read back as a real (so it needs a point or an
    // exponent) and as this very double.
    if (std::isfinite(number) && text.find_first_of(".eE") != std::string::npos) {
        auto decimal = Decimal::parse(text);
        if (decimal && decimal->toDouble() == number) return Value(number);
    }
    return tagged(kDefaultsRealTag, Value(std::move(text)));
}

std::optional<double> parseReal(std::string_view text) {
    double number = 0;
    const char* end = text.data() + text.size();
    const auto result = std::from_chars(text.data(), end, number);
    if (result.ec != std::errc() || result.ptr != end) return std::nullopt;
    return number;
}

// A container with `transform` applied to each of its values.
Value mapArray(const Array& source, Value (*transform)(const Value&)) {
    auto out = std::make_shared<Array>();
    out->reserve(source.size());
    for (const Value& item : source) out->push_back(transform(item));
    return Value(std::move(out));
}

std::shared_ptr<Dictionary> mapDictionary(const Dictionary& source, Value (*transform)(const Value&)) {
    auto out = std::make_shared<Dictionary>();
    for (const auto& [key, item] : source) out->set(key, transform(item));
    return out;
}

std::shared_ptr<Dictionary> decodePlainDictionary(const Dictionary& source) {
    return mapDictionary(source, decodeDefaultsValue);
}

std::optional<Value> decodeTag(std::string_view tag, const Value& payload) {
    if (tag == kDefaultsDictionaryTag) {
        if (!payload.isDictionary()) return std::nullopt;
        return Value(decodePlainDictionary(*payload.asDictionary()));
    }
    const std::string* text = payload.asString();
    if (!text) return std::nullopt;
    if (tag == kDefaultsDateTag) {
        if (auto date = parseDefaultsDate(*text)) return Value(*date);
    } else if (tag == kDefaultsDataTag) {
        if (auto data = base64Decode(*text)) return Value(std::move(*data));
    } else if (tag == kDefaultsRealTag) {
        if (auto number = parseReal(*text)) return Value(*number);
    } else if (tag == kDefaultsDecimalTag) {
        if (auto decimal = Decimal::parse(*text)) return Value(*decimal);
    }
    return std::nullopt;
}

// ---- dates ---------------------------------------------------------------

int64_t floorDiv(int64_t a, int64_t b) { return a / b - ((a % b != 0) && ((a < 0) != (b < 0))); }

bool readDigits(std::string_view text, size_t& at, size_t count, unsigned& out) {
    if (at + count > text.size()) return false;
    out = 0;
    for (size_t i = 0; i < count; ++i) {
        const char c = text[at + i];
        if (c < '0' || c > '9') return false;
        out = out * 10 + static_cast<unsigned>(c - '0');
    }
    at += count;
    return true;
}

bool expect(std::string_view text, size_t& at, char c) {
    if (at >= text.size() || text[at] != c) return false;
    ++at;
    return true;
}

// ---- files ---------------------------------------------------------------

std::string folderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    if (slash == std::string::npos) return ".";
    if (slash == 0) return "/";
    return path.substr(0, slash);
}

std::string baseNameOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? path : path.substr(slash + 1);
}

// mkdir -p with mode 0700 for the folders it makes.
bool makeFolders(const std::string& folder, std::string* problem) {
    std::string prefix;
    size_t at = 0;
    while (at <= folder.size()) {
        size_t next = folder.find('/', at);
        if (next == std::string::npos) next = folder.size();
        prefix = folder.substr(0, next);
        at = next + 1;
        if (prefix.empty()) continue;  // the root
        if (::mkdir(prefix.c_str(), 0700) != 0 && errno != EEXIST) {
            *problem = qrl::format("cannot create the folder %s: %s", prefix.c_str(), errnoText(errno).c_str());
            return false;
        }
    }
    return true;
}

}  // namespace

std::optional<std::string> defaultsValueProblem(const Value& value) { return valueProblem(value, 0); }

Value encodeDefaultsValue(const Value& value) {
    switch (value.type()) {
    case Value::Type::Date: return tagged(kDefaultsDateTag, Value(formatDefaultsDate(*value.asDate())));
    case Value::Type::Data: return tagged(kDefaultsDataTag, Value(base64Encode(*value.asData())));
    case Value::Type::Real: return encodeReal(*value.asReal());
    case Value::Type::Decimal: return tagged(kDefaultsDecimalTag, Value(value.asDecimal()->toString()));
    case Value::Type::Array: return mapArray(*value.asArray(), encodeDefaultsValue);
    case Value::Type::Dictionary: {
        const Dictionary& source = *value.asDictionary();
        auto out = mapDictionary(source, encodeDefaultsValue);
        if (source.size() == 1 && source.entries().front().first.starts_with('$'))
            return tagged(kDefaultsDictionaryTag, Value(std::move(out)));
        return Value(std::move(out));
    }
    default: return value;
    }
}

Value decodeDefaultsValue(const Value& value) {
    switch (value.type()) {
    case Value::Type::Decimal: return Value(value.asDecimal()->toDouble());
    case Value::Type::Array: return mapArray(*value.asArray(), decodeDefaultsValue);
    case Value::Type::Dictionary: {
        const Dictionary& source = *value.asDictionary();
        if (source.size() == 1) {
            const auto& [key, payload] = source.entries().front();
            if (key.starts_with('$'))
                if (auto decoded = decodeTag(key, payload)) return std::move(*decoded);
        }
        return Value(decodePlainDictionary(source));
    }
    default: return value;
    }
}

std::optional<std::string> defaultsFileText(const Dictionary& values, std::string* problem) {
    auto encoded = mapDictionary(values, encodeDefaultsValue);
    QRLJsonWriter writer;
    writer.setHumanReadable(true);
    std::shared_ptr<Error> error;
    auto text = writer.stringWithObject(Value(std::move(encoded)), &error);
    if (!text) {
        *problem = error ? error->localizedDescription() : std::string("the JSON writer refused the values");
        return std::nullopt;
    }
    text->push_back('\n');
    return text;
}

std::optional<Dictionary> parseDefaultsFileText(std::string_view text, std::string* problem) {
    QRLJsonParser parser;
    std::shared_ptr<Error> error;
    const Value document = parser.objectWithString(text, &error);
    if (!document.isDictionary()) {
        if (document.isArray())
            *problem = "the file holds a JSON array, not an object";
        else
            *problem = error ? error->localizedDescription() : std::string("the file holds no JSON object");
        return std::nullopt;
    }
    Dictionary values;
    for (const auto& [key, item] : *document.asDictionary()) {
        if (item.isNull()) continue;
        values.set(key, decodeDefaultsValue(item));
    }
    return values;
}

std::string formatDefaultsDate(Date date) {
    constexpr int64_t kNanos = 1'000'000'000;
    const int64_t seconds = floorDiv(date.nanosecondsSinceEpoch, kNanos);
    int64_t nanos = date.nanosecondsSinceEpoch % kNanos;
    if (nanos < 0) nanos += kNanos;
    const int64_t days = floorDiv(seconds, 86400);
    const int64_t secondOfDay = seconds - days * 86400;
    int64_t year;
    unsigned month, day;
    detail::civilFromDays(days, year, month, day);
    char buffer[64];
    std::snprintf(buffer, sizeof buffer, "%04lld-%02u-%02uT%02lld:%02lld:%02lld.%09lldZ", static_cast<long long>(year),
                  month, day, static_cast<long long>(secondOfDay / 3600), static_cast<long long>(secondOfDay / 60 % 60),
                  static_cast<long long>(secondOfDay % 60), static_cast<long long>(nanos));
    return buffer;
}

std::optional<Date> parseDefaultsDate(std::string_view text) {
    size_t at = 0;
    unsigned year, month, day, hour, minute, second;
    if (!readDigits(text, at, 4, year) || !expect(text, at, '-') || !readDigits(text, at, 2, month) ||
        !expect(text, at, '-') || !readDigits(text, at, 2, day) || !expect(text, at, 'T') ||
        !readDigits(text, at, 2, hour) || !expect(text, at, ':') || !readDigits(text, at, 2, minute) ||
        !expect(text, at, ':') || !readDigits(text, at, 2, second))
        return std::nullopt;
    int64_t nanos = 0;
    if (at < text.size() && text[at] == '.') {
        ++at;
        int digits = 0;
        while (at < text.size() && text[at] >= '0' && text[at] <= '9') {
            if (++digits > 9) return std::nullopt;
            nanos = nanos * 10 + (text[at] - '0');
            ++at;
        }
        for (int i = digits; i < 9; ++i) nanos *= 10;
    }
    if (!expect(text, at, 'Z') || at != text.size()) return std::nullopt;
    static constexpr std::array<unsigned, 12> kMonthDays{31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    if (month < 1 || month > 12 || day < 1 || day > kMonthDays[month - 1] || hour > 23 || minute > 59 ||
        second > 59)
        return std::nullopt;
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month == 2 && day == 29 && !leap) return std::nullopt;
    const __int128 seconds = static_cast<__int128>(daysFromCivil(year, month, day)) * 86400 + hour * 3600 +
                             minute * 60 + second;
    const __int128 total = seconds * 1'000'000'000 + nanos;
    if (total < INT64_MIN || total > INT64_MAX) return std::nullopt;
    return Date{static_cast<int64_t>(total)};
}

std::string defaultsConfigHome() {
    if (const char* xdg = std::getenv("XDG_CONFIG_HOME"); xdg && xdg[0] == '/') return xdg;
    const char* home = std::getenv("HOME");
    std::string base = home && home[0] == '/' ? home : "";
    if (base.empty()) {
        long size = ::sysconf(_SC_GETPW_R_SIZE_MAX);
        std::vector<char> buffer(size > 0 ? static_cast<size_t>(size) : 16384);
        passwd entry{};
        passwd* found = nullptr;
        if (::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found) == 0 && found && found->pw_dir)
            base = found->pw_dir;
    }
    if (base.empty()) base = "/tmp";
    while (base.size() > 1 && base.back() == '/') base.pop_back();
    return (base == "/" ? std::string() : base) + "/.config";
}

std::string defaultsPathForIdentifier(std::string_view identifier) {
    std::string folder(identifier);
    for (char& c : folder)
        if (c == '/' || c == '\0') c = '_';
    if (folder.empty() || folder == "." || folder == "..") folder.insert(0, "_");
    return defaultsConfigHome() + "/" + folder + "/preferences.json";
}

DefaultsFolderLock::DefaultsFolderLock(const std::string& path, bool create) {
    const std::string folder = folderOf(path);
    if (create && !makeFolders(folder, &problem_)) return;
    fd_ = ::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd_ < 0) {
        missing_ = errno == ENOENT;
        problem_ = qrl::format("cannot open the folder %s: %s", folder.c_str(), errnoText(errno).c_str());
        return;
    }
    // Cooperative: a file system without flock still gets atomic replacement.
    while (::flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
    }
}

DefaultsFolderLock::~DefaultsFolderLock() {
    if (fd_ >= 0) ::close(fd_);  // closing releases the lock
}

DefaultsFileContents readDefaultsFile(const std::string& path) {
    DefaultsFileContents contents;
    const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        if (errno == ENOENT || errno == ENOTDIR) return contents;  // Missing
        contents.status = DefaultsFileContents::Status::Unreadable;
        contents.problem = qrl::format("cannot open it: %s", errnoText(errno).c_str());
        return contents;
    }
    struct Closer {
        int fd;
        ~Closer() { ::close(fd); }
    } closer{fd};
    contents.status = DefaultsFileContents::Status::Unreadable;
    struct stat info {};
    if (::fstat(fd, &info) != 0) {
        contents.problem = qrl::format("cannot examine it: %s", errnoText(errno).c_str());
        return contents;
    }
    if (!S_ISREG(info.st_mode)) {
        contents.problem = "it is not a regular file";
        return contents;
    }
    std::string text;
    text.reserve(static_cast<size_t>(info.st_size));
    char buffer[65536];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0) {
            if (errno == EINTR) continue;
            contents.problem = qrl::format("cannot read it: %s", errnoText(errno).c_str());
            return contents;
        }
        if (n == 0) break;
        text.append(buffer, static_cast<size_t>(n));
    }
    if (text.empty()) {
        contents.problem = "the file is empty";
        return contents;
    }
    auto values = parseDefaultsFileText(text, &contents.problem);
    if (!values) return contents;
    contents.status = DefaultsFileContents::Status::Loaded;
    contents.values = std::move(*values);
    return contents;
}

std::optional<std::string> setDefaultsFileAside(const std::string& path, Date now, std::string* problem) {
    const std::string folder = folderOf(path);
    const std::string base = baseNameOf(path);
    const size_t dot = base.rfind('.');
    const std::string stem = dot == std::string::npos || dot == 0 ? base : base.substr(0, dot);
    const std::string extension = dot == std::string::npos || dot == 0 ? std::string() : base.substr(dot);
    const time_t seconds = static_cast<time_t>(floorDiv(now.nanosecondsSinceEpoch, 1'000'000'000));
    tm local{};
    localtime_r(&seconds, &local);
    char stamp[32];
    std::strftime(stamp, sizeof stamp, "%Y%m%d-%H%M%S", &local);
    for (int attempt = 1; attempt <= 1000; ++attempt) {
        std::string target = folder + "/" + stem + ".corrupt-" + stamp;
        if (attempt > 1) target += "-" + std::to_string(attempt);
        target += extension;
        if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, target.c_str(), RENAME_NOREPLACE) == 0) return target;
        if (errno == EEXIST) continue;
        if (errno == EINVAL || errno == ENOSYS) {
            // No support for refusing to replace: look first.
            struct stat info {};
            if (::lstat(target.c_str(), &info) == 0) continue;
            if (::rename(path.c_str(), target.c_str()) == 0) return target;
        }
        *problem = qrl::format("cannot rename it to %s: %s", target.c_str(), errnoText(errno).c_str());
        return std::nullopt;
    }
    *problem = "no free name to set it aside under";
    return std::nullopt;
}

bool writeDefaultsFileAtomically(const std::string& path, int folderFd, std::string_view text, std::string* problem) {
    return writeFileAtomically(path, text, problem, {.newFileMode = 0600, .folderFd = folderFd});
}

}  // namespace qrl::detail
