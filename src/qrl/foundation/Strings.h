// qrl::Strings: the lookup of user-visible messages. The English text is the
// key and the default; translations come from "<dir>/<lang>.lproj/<table>.strings".
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qrl {

class Strings {
public:
    // Hashes std::string and std::string_view alike, so that lookups by view
    // make no copy of the key.
    struct KeyHash {
        using is_transparent = void;
        size_t operator()(std::string_view s) const { return std::hash<std::string_view>{}(s); }
    };
    // One entry per key of a strings file.
    using Table = std::unordered_map<std::string, std::string, KeyHash, std::equal_to<>>;

    // The process-wide instance, set up from the environment on first use.
    static Strings& shared();

    // Search paths from defaultSearchPaths(), language from the environment.
    Strings();
    Strings(const Strings&) = delete;
    Strings& operator=(const Strings&) = delete;

    // $QRL_STRINGS_PATH (directories separated by ':'), then the installed
    // data directory.
    static std::vector<std::string> defaultSearchPaths();
    // Directories tried in order for each language; the first file found for
    // a language is its table. Changing them drops the cached tables.
    void setSearchPaths(std::vector<std::string> paths);
    std::vector<std::string> searchPaths() const;

    // "de_DE", "de-DE.UTF-8", "fr"... An empty name goes back to the
    // environment. Changing it drops the cached tables.
    void setLanguage(std::string language);
    // The languages tried, most specific first: "de_DE.UTF-8" gives "de_DE",
    // then "de". Empty for English ("C", "POSIX" or nothing set).
    std::vector<std::string> preferredLanguages() const;
    // LANGUAGE (a ':' list), else the first of LC_ALL, LC_MESSAGES, LANG that is set.
    static std::vector<std::string> languagesFromEnvironment();
    // Expands one locale name: codeset and modifier dropped, then the base
    // language added ("pt_BR.UTF-8@x" gives "pt_BR", "pt").
    static std::vector<std::string> expandLanguage(std::string_view name);

    // The translation of key in table for the preferred languages, or the key
    // itself. Thread-safe; a table is read from disk once and then cached.
    std::string localizedString(std::string_view key, std::string_view table = "Localizable");
    // The translation, or nullopt when no preferred language has one.
    std::optional<std::string> translation(std::string_view key, std::string_view table = "Localizable");
    // The file that serves table for the first preferred language that has
    // one; nullopt when there is none.
    std::optional<std::string> pathForTable(std::string_view table);

    // The last problem met while reading a table ("<path>:<line>: <what>"),
    // empty when there was none. A malformed file counts as an empty table.
    std::string lastError() const;
    // Forgets the cached tables and the last error; files are read again on
    // the next lookup.
    void clearCache();

    // Parses the text of a strings file: "key" = "value"; entries, "key";
    // (value = key), /* */ and // comments, C escapes and \Uxxxx, unquoted
    // words of letters, digits and _.$:/-. UTF-8, or UTF-16 with a byte order
    // mark. nullopt on a syntax error, described at *error ("line 3: ...")
    // when error is not null. A repeated key keeps the last value.
    static std::optional<Table> parse(std::string_view text, std::string* error = nullptr);

private:
    struct Loaded {
        Table entries;
        std::string path;  // empty when no file was found
    };
    std::shared_ptr<const Loaded> loadLocked(const std::string& language, std::string_view table);

    mutable std::mutex mutex_;
    std::vector<std::string> searchPaths_;
    std::vector<std::string> languages_;
    std::unordered_map<std::string, std::shared_ptr<const Loaded>> cache_;  // by language, '\0', table
    std::string lastError_;
};

// Strings::shared().localizedString(key, table).
std::string localizedString(std::string_view key, std::string_view table = "Localizable");

}  // namespace qrl
