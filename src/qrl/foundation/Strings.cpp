#include "qrl/foundation/Strings.h"
#include "qrl/foundation/Utf8.h"

#include <algorithm>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <sys/stat.h>

#ifndef QRL_STRINGS_INSTALL_DIR
#define QRL_STRINGS_INSTALL_DIR "/usr/local/share/qrlshared"
#endif

namespace qrl {

namespace {

std::vector<std::string> split(std::string_view s, char sep) {
    std::vector<std::string> out;
    size_t start = 0;
    while (start <= s.size()) {
        size_t end = s.find(sep, start);
        if (end == std::string_view::npos) end = s.size();
        if (end > start) out.emplace_back(s.substr(start, end - start));
        start = end + 1;
    }
    return out;
}

bool isRegularFile(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISREG(st.st_mode);
}

// ------------------------------------------------------------ the parser

// UTF-16 with a byte order mark to UTF-8; false on an unpaired surrogate or
// an odd byte count.
bool utf16ToUtf8(std::string_view bytes, bool bigEndian, std::string& out, std::string* error) {
    if (bytes.size() % 2 != 0) {
        if (error) *error = "UTF-16 text with an odd number of bytes";
        return false;
    }
    auto unit = [&](size_t i) {
        const auto a = static_cast<unsigned char>(bytes[i]), b = static_cast<unsigned char>(bytes[i + 1]);
        return static_cast<uint32_t>(bigEndian ? (a << 8) | b : (b << 8) | a);
    };
    for (size_t i = 0; i < bytes.size(); i += 2) {
        uint32_t u = unit(i);
        if (u >= 0xD800 && u < 0xDC00) {
            if (i + 2 >= bytes.size() || unit(i + 2) < 0xDC00 || unit(i + 2) >= 0xE000) {
                if (error) *error = "UTF-16 text with an unpaired surrogate";
                return false;
            }
            u = 0x10000 + ((u - 0xD800) << 10) + (unit(i + 2) - 0xDC00);
            i += 2;
        } else if (u >= 0xDC00 && u < 0xE000) {
            if (error) *error = "UTF-16 text with an unpaired surrogate";
            return false;
        }
        appendUtf8(out, u);
    }
    return true;
}

class Parser {
public:
    explicit Parser(std::string_view text) : s_(text) {}

    std::optional<Strings::Table> run(std::string* error) {
        Strings::Table table;
        for (;;) {
            if (!skipSpaceAndComments()) return fail(error);
            if (i_ >= s_.size()) return table;
            std::string key;
            if (!readString(key)) return fail(error);
            if (!skipSpaceAndComments()) return fail(error);
            if (i_ < s_.size() && s_[i_] == ';') {
                ++i_;
                std::string value = key;
                table.insert_or_assign(std::move(key), std::move(value));
                continue;
            }
            if (i_ >= s_.size() || s_[i_] != '=') {
                message_ = "expected '=' or ';' after a key";
                return fail(error);
            }
            ++i_;
            if (!skipSpaceAndComments()) return fail(error);
            std::string value;
            if (!readString(value)) return fail(error);
            if (!skipSpaceAndComments()) return fail(error);
            if (i_ >= s_.size() || s_[i_] != ';') {
                message_ = "expected ';' after a value";
                return fail(error);
            }
            ++i_;
            table.insert_or_assign(std::move(key), std::move(value));
        }
    }

private:
    std::nullopt_t fail(std::string* error) const {
        if (error) {
            int line = 1;
            for (size_t k = 0; k < errorAt_ && k < s_.size(); ++k) line += s_[k] == '\n';
            *error = "line " + std::to_string(line) + ": " + message_;
        }
        return std::nullopt;
    }

    bool skipSpaceAndComments() {
        while (i_ < s_.size()) {
            const char c = s_[i_];
            if (c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v') {
                ++i_;
            } else if (c == '/' && i_ + 1 < s_.size() && s_[i_ + 1] == '*') {
                const size_t end = s_.find("*/", i_ + 2);
                if (end == std::string_view::npos) {
                    errorAt_ = i_;
                    message_ = "unterminated comment";
                    return false;
                }
                i_ = end + 2;
            } else if (c == '/' && i_ + 1 < s_.size() && s_[i_ + 1] == '/') {
                while (i_ < s_.size() && s_[i_] != '\n') ++i_;
            } else {
                break;
            }
        }
        errorAt_ = i_;
        return true;
    }

    static bool isWordChar(char c) {
        return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' || c == '.' ||
               c == '$' || c == ':' || c == '/' || c == '-';
    }

    static int hexValue(char c) {
        if (c >= '0' && c <= '9') return c - '0';
        if (c >= 'a' && c <= 'f') return c - 'a' + 10;
        if (c >= 'A' && c <= 'F') return c - 'A' + 10;
        return -1;
    }

    bool readHex4(uint32_t& v) {
        v = 0;
        for (int k = 0; k < 4; ++k) {
            if (i_ >= s_.size() || hexValue(s_[i_]) < 0) {
                message_ = "expected four hexadecimal digits after \\U";
                return false;
            }
            v = (v << 4) | static_cast<uint32_t>(hexValue(s_[i_++]));
        }
        return true;
    }

    bool readString(std::string& out) {
        errorAt_ = i_;
        if (i_ < s_.size() && isWordChar(s_[i_])) {
            while (i_ < s_.size() && isWordChar(s_[i_])) out.push_back(s_[i_++]);
            return true;
        }
        if (i_ >= s_.size() || s_[i_] != '"') {
            message_ = i_ >= s_.size() ? "unexpected end of file" : "expected a quoted string";
            return false;
        }
        ++i_;
        for (;;) {
            if (i_ >= s_.size()) {
                message_ = "unterminated string";
                return false;
            }
            const char c = s_[i_++];
            if (c == '"') return true;
            if (c != '\\') {
                out.push_back(c);
                continue;
            }
            if (i_ >= s_.size()) {
                message_ = "unterminated string";
                return false;
            }
            const char e = s_[i_++];
            switch (e) {
            case 'n': out.push_back('\n'); break;
            case 't': out.push_back('\t'); break;
            case 'r': out.push_back('\r'); break;
            case 'a': out.push_back('\a'); break;
            case 'b': out.push_back('\b'); break;
            case 'f': out.push_back('\f'); break;
            case 'v': out.push_back('\v'); break;
            case 'U':
            case 'u': {
                errorAt_ = i_;
                uint32_t u;
                if (!readHex4(u)) return false;
                if (u >= 0xD800 && u < 0xDC00) {
                    uint32_t lo = 0;
                    if (i_ + 1 < s_.size() && s_[i_] == '\\' && (s_[i_ + 1] == 'U' || s_[i_ + 1] == 'u')) {
                        i_ += 2;
                        if (!readHex4(lo)) return false;
                    }
                    if (lo < 0xDC00 || lo >= 0xE000) {
                        message_ = "unpaired surrogate in \\U escape";
                        return false;
                    }
                    u = 0x10000 + ((u - 0xD800) << 10) + (lo - 0xDC00);
                } else if (u >= 0xDC00 && u < 0xE000) {
                    message_ = "unpaired surrogate in \\U escape";
                    return false;
                }
                appendUtf8(out, u);
                break;
            }
            default:
                if (e >= '0' && e <= '7') {
                    uint32_t v = static_cast<uint32_t>(e - '0');
                    for (int k = 0; k < 2 && i_ < s_.size() && s_[i_] >= '0' && s_[i_] <= '7'; ++k)
                        v = v * 8 + static_cast<uint32_t>(s_[i_++] - '0');
                    appendUtf8(out, v);
                } else {
                    out.push_back(e);  // \" \\ \' and any other character stand for themselves
                }
            }
        }
    }

    std::string_view s_;
    size_t i_ = 0;
    size_t errorAt_ = 0;
    std::string message_ = "syntax error";
};

}  // namespace

// ------------------------------------------------------------ Strings

Strings& Strings::shared() {
    // Never destroyed, so that messages can still be looked up while the
    // process shuts down.
    static Strings* const instance = new Strings;
    return *instance;
}

Strings::Strings() : searchPaths_(defaultSearchPaths()), languages_(languagesFromEnvironment()) {}

std::vector<std::string> Strings::defaultSearchPaths() {
    std::vector<std::string> paths;
    if (const char* env = std::getenv("QRL_STRINGS_PATH")) paths = split(env, ':');
    paths.emplace_back(QRL_STRINGS_INSTALL_DIR);
    return paths;
}

void Strings::setSearchPaths(std::vector<std::string> paths) {
    std::lock_guard lock(mutex_);
    searchPaths_ = std::move(paths);
    cache_.clear();
}

std::vector<std::string> Strings::searchPaths() const {
    std::lock_guard lock(mutex_);
    return searchPaths_;
}

std::vector<std::string> Strings::expandLanguage(std::string_view name) {
    const size_t cut = name.find_first_of(".@");
    if (cut != std::string_view::npos) name = name.substr(0, cut);
    if (name.empty() || name == "C" || name == "POSIX") return {};
    std::vector<std::string> out{std::string(name)};
    const size_t sep = name.find_first_of("_-");
    if (sep != std::string_view::npos && sep > 0) out.emplace_back(name.substr(0, sep));
    return out;
}

std::vector<std::string> Strings::languagesFromEnvironment() {
    std::vector<std::string> out;
    auto addAll = [&out](std::string_view name) {
        for (auto& l : expandLanguage(name))
            if (std::find(out.begin(), out.end(), l) == out.end()) out.push_back(std::move(l));
    };
    const char* language = std::getenv("LANGUAGE");
    if (language && *language) {
        for (const auto& entry : split(language, ':')) addAll(entry);
        if (!out.empty()) return out;
    }
    for (const char* var : {"LC_ALL", "LC_MESSAGES", "LANG"}) {
        const char* v = std::getenv(var);
        if (v && *v) {
            addAll(v);
            return out;
        }
    }
    return out;
}

void Strings::setLanguage(std::string language) {
    std::vector<std::string> languages = language.empty() ? languagesFromEnvironment() : expandLanguage(language);
    std::lock_guard lock(mutex_);
    languages_ = std::move(languages);
    cache_.clear();
}

std::vector<std::string> Strings::preferredLanguages() const {
    std::lock_guard lock(mutex_);
    return languages_;
}

std::shared_ptr<const Strings::Loaded> Strings::loadLocked(const std::string& language, std::string_view table) {
    std::string cacheKey = language;
    cacheKey.push_back('\0');
    cacheKey.append(table);
    if (auto it = cache_.find(cacheKey); it != cache_.end()) return it->second;
    auto loaded = std::make_shared<Loaded>();
    for (const auto& dir : searchPaths_) {
        std::string path = dir;
        if (!path.empty() && path.back() != '/') path.push_back('/');
        path.append(language).append(".lproj/").append(table).append(".strings");
        if (!isRegularFile(path)) continue;
        loaded->path = path;
        std::ifstream in(path, std::ios::binary);
        std::ostringstream buffer;
        buffer << in.rdbuf();
        if (!in && !in.eof()) {
            lastError_ = path + ": cannot be read";
            break;
        }
        const std::string bytes = buffer.str();
        std::string_view text = bytes;
        std::string converted;
        std::string error;
        bool ok = true;
        if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xFF &&
            static_cast<unsigned char>(text[1]) == 0xFE) {
            ok = utf16ToUtf8(text.substr(2), false, converted, &error);
            text = converted;
        } else if (text.size() >= 2 && static_cast<unsigned char>(text[0]) == 0xFE &&
                   static_cast<unsigned char>(text[1]) == 0xFF) {
            ok = utf16ToUtf8(text.substr(2), true, converted, &error);
            text = converted;
        } else if (text.size() >= 3 && text.substr(0, 3) == "\xEF\xBB\xBF") {
            text.remove_prefix(3);
        }
        if (ok) {
            if (auto parsed = parse(text, &error)) loaded->entries = std::move(*parsed);
            else ok = false;
        }
        if (!ok) lastError_ = path + ": " + error;
        break;  // the first file found serves this language
    }
    cache_.emplace(std::move(cacheKey), loaded);
    return loaded;
}

std::optional<std::string> Strings::translation(std::string_view key, std::string_view table) {
    std::lock_guard lock(mutex_);
    for (const auto& language : languages_) {
        const auto loaded = loadLocked(language, table);
        if (auto it = loaded->entries.find(key); it != loaded->entries.end()) return it->second;
    }
    return std::nullopt;
}

std::string Strings::localizedString(std::string_view key, std::string_view table) {
    if (auto t = translation(key, table)) return std::move(*t);
    return std::string(key);
}

std::optional<std::string> Strings::pathForTable(std::string_view table) {
    std::lock_guard lock(mutex_);
    for (const auto& language : languages_) {
        const auto loaded = loadLocked(language, table);
        if (!loaded->path.empty()) return loaded->path;
    }
    return std::nullopt;
}

std::string Strings::lastError() const {
    std::lock_guard lock(mutex_);
    return lastError_;
}

void Strings::clearCache() {
    std::lock_guard lock(mutex_);
    cache_.clear();
    lastError_.clear();
}

std::optional<Strings::Table> Strings::parse(std::string_view text, std::string* error) {
    return Parser(text).run(error);
}

std::string localizedString(std::string_view key, std::string_view table) {
    return Strings::shared().localizedString(key, table);
}

}  // namespace qrl
