#include "qrl/logging/QRLLogFileManagerDefault.h"

#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <random>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/SerialQueue.h"
#include "qrl/logging/QRLLog.h"
#include "qrl/logging/QRLLogFileInfo.h"
#include "qrl/logging/detail/LogFileAttributes.h"
#include "qrl/logging/detail/LogFileSystem.h"
#include "qrl/foundation/Identification.h"

namespace qrl {

namespace {

constexpr std::string_view kMaximumNumberOfLogFilesKey = "maximumNumberOfLogFiles";

// A random (version 4) UUID in its upper-case text form.
std::string makeUUIDText() {
    uint8_t bytes[16];
    size_t filled = 0;
    while (filled < sizeof bytes) {
        const ssize_t n = ::getrandom(bytes + filled, sizeof bytes - filled, 0);
        if (n > 0) {
            filled += static_cast<size_t>(n);
        } else if (n == 0 || errno != EINTR) {
            // No kernel source of randomness: the library's stands in.
            std::random_device device;
            for (uint8_t& b : bytes) b = static_cast<uint8_t>(device());
            filled = sizeof bytes;
        }
    }
    bytes[6] = static_cast<uint8_t>((bytes[6] & 0x0f) | 0x40);
    bytes[8] = static_cast<uint8_t>((bytes[8] & 0x3f) | 0x80);
    std::string text;
    for (size_t i = 0; i < sizeof bytes; ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) text += '-';
        appendFormat(text, "%02X", static_cast<unsigned>(bytes[i]));
    }
    return text;
}

std::string joinPath(const std::string& folder, std::string_view name) {
    if (!folder.empty() && folder.back() == '/') return folder + std::string(name);
    return folder + "/" + std::string(name);
}

// Sort keys read once per file.
struct SortEntry {
    std::shared_ptr<QRLLogFileInfo> info;
    std::optional<Date> created;
    std::optional<Date> modified;
    bool archived;
    std::string path;
};

// Newest first; see the header for the order of ties.
bool newerFirst(const SortEntry& a, const SortEntry& b) {
    const auto date = [](const std::optional<Date>& d) { return d ? d->nanosecondsSinceEpoch : INT64_MIN; };
    if (date(a.created) != date(b.created)) return date(a.created) > date(b.created);
    if (a.archived != b.archived) return !a.archived;
    if (date(a.modified) != date(b.modified)) return date(a.modified) > date(b.modified);
    return a.path < b.path;
}

}  // namespace

QRLLogFileManagerDefault::QRLLogFileManagerDefault() : QRLLogFileManagerDefault(std::nullopt) {}

QRLLogFileManagerDefault::QRLLogFileManagerDefault(std::optional<std::string> logsDirectory)
    : logsDirectory_(std::move(logsDirectory)) {
    setValueGetter([this](std::string_view key) {
        return key == kMaximumNumberOfLogFilesKey ? Value(maximumNumberOfLogFiles()) : Value();
    });
    selfObservation_ = addObserver(
        kMaximumNumberOfLogFilesKey,
        [this](std::string_view, const KeyValueChange& change) {
            if (change.oldValue == change.newValue) return;
            if (auto self = weak_from_this().lock()) {
                QRLLog::loggingQueue().async([self] { self->deleteOldLogFiles(); });
            } else {
                deleteOldLogFiles();
            }
        },
        NSKeyValueObservingOptionNew | NSKeyValueObservingOptionOld, this);
}

QRLLogFileManagerDefault::~QRLLogFileManagerDefault() { removeObserver(selfObservation_); }

uint64_t QRLLogFileManagerDefault::maximumNumberOfLogFiles() const {
    return maximumNumberOfLogFiles_.load(std::memory_order_relaxed);
}

void QRLLogFileManagerDefault::setMaximumNumberOfLogFiles(uint64_t maximumNumberOfLogFiles) {
    const uint64_t old = maximumNumberOfLogFiles_.exchange(maximumNumberOfLogFiles, std::memory_order_relaxed);
    notifyChange(kMaximumNumberOfLogFilesKey, Value(old), Value(maximumNumberOfLogFiles));
}

std::string QRLLogFileManagerDefault::defaultLogsDirectory() const {
    std::string folder = applicationSupportFolder();
    // Without a name in the bundle facts the folder ends in '/': the
    // process's name stands in.
    if (!folder.empty() && folder.back() == '/') folder += program_invocation_short_name;
    return folder + "/Logs";
}

std::string QRLLogFileManagerDefault::logsDirectory() {
    std::string folder = logsDirectory_ ? *logsDirectory_ : defaultLogsDirectory();
    if (const int error = detail::makeDirectories(folder)) {
        if (!directoryFailureReported_.exchange(true, std::memory_order_relaxed))
            platformLogFormat("QRLFileLogManagerDefault: Error creating logsDirectory: %@",
                              detail::posixError(error, folder));
    } else {
        directoryFailureReported_.store(false, std::memory_order_relaxed);
    }
    return folder;
}

bool QRLLogFileManagerDefault::isLogFile(std::string_view fileName) const {
    if (fileName.size() < 10 || !fileName.starts_with("log-")) return false;
    constexpr std::string_view kHex = "0123456789ABCDEF";
    for (size_t i = 4; i <= 9; ++i)
        if (kHex.find(fileName[i]) == std::string_view::npos) return false;
    return true;
}

std::string QRLLogFileManagerDefault::generateShortUUID() { return makeUUIDText().substr(0, 6); }

std::vector<std::string> QRLLogFileManagerDefault::logFileNamesIn(const std::string& folder) {
    std::vector<std::string> names;
    detail::listRegularFiles(folder, names);  // an unreadable folder lists nothing
    std::erase_if(names, [this](const std::string& name) { return !isLogFile(name); });
    return names;
}

std::vector<std::string> QRLLogFileManagerDefault::unsortedLogFilePaths() {
    const std::string folder = logsDirectory();
    std::vector<std::string> paths;
    for (const std::string& name : logFileNamesIn(folder)) paths.push_back(joinPath(folder, name));
    return paths;
}

std::vector<std::string> QRLLogFileManagerDefault::unsortedLogFileNames() { return logFileNamesIn(logsDirectory()); }

std::vector<std::shared_ptr<QRLLogFileInfo>> QRLLogFileManagerDefault::unsortedLogFileInfos() {
    std::vector<std::shared_ptr<QRLLogFileInfo>> infos;
    for (std::string& path : unsortedLogFilePaths()) infos.push_back(QRLLogFileInfo::logFileWithPath(std::move(path)));
    return infos;
}

std::vector<std::shared_ptr<QRLLogFileInfo>> QRLLogFileManagerDefault::sortedLogFileInfos() {
    std::vector<SortEntry> entries;
    for (auto& info : unsortedLogFileInfos()) {
        SortEntry e{info, info->creationDate(), info->modificationDate(), info->isArchived(), info->filePath()};
        entries.push_back(std::move(e));
    }
    std::sort(entries.begin(), entries.end(), newerFirst);
    std::vector<std::shared_ptr<QRLLogFileInfo>> infos;
    infos.reserve(entries.size());
    for (SortEntry& e : entries) infos.push_back(std::move(e.info));
    return infos;
}

std::vector<std::string> QRLLogFileManagerDefault::sortedLogFilePaths() {
    std::vector<std::string> paths;
    for (const auto& info : sortedLogFileInfos()) paths.push_back(info->filePath());
    return paths;
}

std::vector<std::string> QRLLogFileManagerDefault::sortedLogFileNames() {
    std::vector<std::string> names;
    for (const auto& info : sortedLogFileInfos()) names.push_back(info->fileName());
    return names;
}

void QRLLogFileManagerDefault::deleteOldLogFiles() {
    std::vector<std::shared_ptr<QRLLogFileInfo>> infos = sortedLogFileInfos();
    if (infos.empty()) return;
    size_t first = 0;
    if (!infos.front()->isArchived()) {
        // The file in use: it does not count.
        first = 1;
        if (infos.size() == 1) return;
    }
    const uint64_t keep = maximumNumberOfLogFiles();
    const auto attributes = detail::logFileAttributes();
    for (size_t i = first; i < infos.size(); ++i) {
        if (i - first < keep) continue;
        const std::string path = infos[i]->filePath();
        if (::unlink(path.c_str()) != 0 && errno != ENOENT) {
            platformLogFormat("QRLLogFileManagerDefault: Error deleting log file: %@", detail::posixError(errno, path));
            continue;
        }
        attributes->removed(path);
    }
}

void QRLLogFileManagerDefault::reportCreationFailure(const std::string& what) {
    if (creationFailureReported_.exchange(true, std::memory_order_relaxed)) return;
    platformLogFormat("QRLLogFileManagerDefault: Error creating log file: %@", what);
}

std::optional<std::string> QRLLogFileManagerDefault::createNewLogFile() {
    const std::string folder = logsDirectory();
    const auto attributes = detail::logFileAttributes();
    for (int attempt = 0; attempt < kMaximumNameAttempts; ++attempt) {
        const std::string path = joinPath(folder, qrl::format("log-%@.txt", generateShortUUID()));
        // Marks left beside an earlier file of this name must not carry over.
        struct stat existing {};
        if (::stat(path.c_str(), &existing) == 0) continue;
        attributes->removed(path);
        const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
        if (fd < 0) {
            if (errno == EEXIST) continue;  // made by someone else meanwhile
            reportCreationFailure(detail::posixError(errno, path)->description());
            return std::nullopt;
        }
        ::close(fd);
        creationFailureReported_.store(false, std::memory_order_relaxed);
        deleteOldLogFiles();
        return path;
    }
    reportCreationFailure(qrl::format("no free name in %@ after %d attempts", folder, kMaximumNameAttempts));
    return std::nullopt;
}

}  // namespace qrl
