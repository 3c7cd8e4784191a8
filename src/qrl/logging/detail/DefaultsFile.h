// The preferences file of the persistent defaults store: where it lives, the
// tagged JSON form of its values, and reading, setting aside and atomic
// replacing of the file. Internal to the defaults stores.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/Base64.h"
#include "qrl/foundation/Value.h"

namespace qrl::detail {

// The file holds one JSON object, the stored values by key, written with two
// spaces of indentation. Booleans, integers, strings, arrays and dictionaries
// are plain JSON. Values JSON cannot hold as they are take a one-entry object
// whose key names the type:
//
//   date      {"$date": "2001-01-01T00:00:00.000000000Z"}  UTC, nanoseconds
//   data      {"$data": "AAEC/w=="}                         base64 with padding
//   real      a JSON number with a fraction or exponent when it reads back as
//             the same double; otherwise {"$real": "1e+300"} (also "-0",
//             "3", "inf", "-inf", "nan"), the shortest text that reads back
//   decimal   {"$decimal": "-0.00125"}
//   a dictionary of one entry whose key starts with '$'
//             {"$dict": {"$date": "not a date"}}, so that it is never taken
//             for a tag
//
// A one-entry object with a '$' key that does not decode (an unknown tag, a
// malformed date) reads as the dictionary it is. Plain JSON numbers with a
// fraction or exponent, and integers beyond 64 bits, read as reals. Nulls at
// the top level read as absent.
inline constexpr std::string_view kDefaultsDateTag = "$date";
inline constexpr std::string_view kDefaultsDataTag = "$data";
inline constexpr std::string_view kDefaultsRealTag = "$real";
inline constexpr std::string_view kDefaultsDecimalTag = "$decimal";
inline constexpr std::string_view kDefaultsDictionaryTag = "$dict";

// Values deeper than this many levels of arrays and dictionaries are refused
// by the persistent store; the tagged form then stays well inside the JSON
// reader's nesting limit.
inline constexpr int kDefaultsMaxNesting = 128;

// Why a value cannot be kept in the preferences file, or nullopt when it can:
// nulls inside containers, objects, strings and keys that are not UTF-8, and
// nesting beyond kDefaultsMaxNesting are refused.
std::optional<std::string> defaultsValueProblem(const Value& value);

// The tagged form of a value, and back. decodeDefaultsValue never fails: what
// does not decode stays as it is.
Value encodeDefaultsValue(const Value& value);
Value decodeDefaultsValue(const Value& value);

// The whole file's text (ending in a newline) for a dictionary of values that
// passed defaultsValueProblem; nullopt with *problem set if the writer refuses.
std::optional<std::string> defaultsFileText(const Dictionary& values, std::string* problem);
// The values of a file's text; nullopt with *problem set when the text is not
// a JSON object.
std::optional<Dictionary> parseDefaultsFileText(std::string_view text, std::string* problem);

// "2001-01-01T00:00:00.000000000Z"; the parser also takes 0 to 9 fraction
// digits (with or without the point) and refuses anything out of range.
std::string formatDefaultsDate(Date date);
std::optional<Date> parseDefaultsDate(std::string_view text);
// Data payloads use the foundation's base64Encode and base64Decode (strict).

// $XDG_CONFIG_HOME when it is an absolute path, else $HOME/.config, else the
// password database's home folder followed by /.config.
std::string defaultsConfigHome();
// "<config home>/<identifier>/preferences.json". An identifier that cannot
// serve as one folder name ('/' inside, empty, "." or "..") has its '/'
// replaced by '_' and is prefixed with '_' when it is still a dot name or empty.
std::string defaultsPathForIdentifier(std::string_view identifier);

// Reading the file. Missing: no file (or no folder); Loaded: values read;
// Unreadable: the file exists but could not be read or is not a JSON object
// (problem says why).
struct DefaultsFileContents {
    enum class Status { Missing, Loaded, Unreadable };
    Status status = Status::Missing;
    Dictionary values;
    std::string problem;
};

// An exclusive lock on the file's folder (flock), held while a process reads,
// sets aside or replaces the file, so that two processes of the application
// never interleave those steps. Created with the folder when asked to.
class DefaultsFolderLock {
public:
    // Opens and locks the folder of `path`; creates it (mode 0700, with its
    // parents) when `create` is true. ok() is false when that fails; then
    // problem() says why and missing() tells whether the folder is absent.
    DefaultsFolderLock(const std::string& path, bool create);
    ~DefaultsFolderLock();
    DefaultsFolderLock(const DefaultsFolderLock&) = delete;
    DefaultsFolderLock& operator=(const DefaultsFolderLock&) = delete;

    bool ok() const { return fd_ >= 0; }
    bool missing() const { return missing_; }
    const std::string& problem() const { return problem_; }
    int fd() const { return fd_; }

private:
    int fd_ = -1;
    bool missing_ = false;
    std::string problem_;
};

DefaultsFileContents readDefaultsFile(const std::string& path);

// Renames the file to "<stem>.corrupt-YYYYMMDD-HHMMSS<ext>" in the same folder
// (local time of `now`; "-2", "-3"... appended when taken; never replaces a
// file). The new path, or nullopt with *problem set.
std::optional<std::string> setDefaultsFileAside(const std::string& path, Date now, std::string* problem);

// Replaces the file with `text` through the foundation's atomic writer, so
// that the path holds either the old file or the whole new one: the old
// file's mode is kept, a new file gets 0600. `folderFd` is the folder's
// descriptor (from the lock), flushed after the rename.
bool writeDefaultsFileAtomically(const std::string& path, int folderFd, std::string_view text, std::string* problem);

}  // namespace qrl::detail
