// QRLLogFileManagerDefault: the log folder of the rolling file logger:
// names "log-XXXXXX.txt", lists newest first, new files, and pruning of
// archived files beyond a maximum number.
#pragma once

#include <atomic>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "qrl/foundation/KeyObservation.h"
#include "qrl/logging/QRLLogFileManager.h"

namespace qrl {

// Names. A log file is named "log-%@.txt" with the first six characters of
// a fresh UUID text, upper-case hexadecimal ("log-3F29AB.txt"). A name
// counts as a log file when it begins with "log-", is at least 10 characters
// long and its characters 4 to 9 are all from "0123456789ABCDEF"; only
// regular files count.
//
// Folder. The folder given at construction, else defaultLogsDirectory():
// "Logs" in the application's support folder,
// $XDG_DATA_HOME/<application name>/Logs (XDG_DATA_HOME defaults to
// ~/.local/share; without a home, the temporary directory), the name taken
// from the application's bundle facts, else the process's name.
// logsDirectory() makes the folder when it is missing; failure goes to the
// platform log ("QRLFileLogManagerDefault: Error creating logsDirectory: %@"),
// once until the folder is there again.
//
// Order. The sorted lists are newest first by creation date. Files with the
// same creation date (file systems with coarse time stamps) keep a fixed
// order: a file that is not archived first (it is the file in use), then the
// later modified, then by path.
//
// Pruning. deleteOldLogFiles() keeps maximumNumberOfLogFiles archived files
// (default 5) and deletes the older ones; the file in use is never counted
// or deleted; 0 deletes every archived file. Changing the maximum is
// observable as the key "maximumNumberOfLogFiles" (KeyObservable); the
// manager observes itself with old and new values, and when they differ,
// prunes asynchronously on the logging queue (QRLLog::loggingQueue()).
//
// Own it by a std::shared_ptr: the pruning task holds a reference while it
// waits. A manager not owned so prunes at once, on the caller's thread.
//
// Thread-safe.
class QRLLogFileManagerDefault : public QRLLogFileManager,
                                 public KeyObservable,
                                 public std::enable_shared_from_this<QRLLogFileManagerDefault> {
public:
    static constexpr uint64_t kDefaultMaximumNumberOfLogFiles = 5;
    // Attempts at a free name before createNewLogFile gives up.
    static constexpr int kMaximumNameAttempts = 1000;

    QRLLogFileManagerDefault();
    // nullopt: the default folder.
    explicit QRLLogFileManagerDefault(std::optional<std::string> logsDirectory);
    ~QRLLogFileManagerDefault() override;

    void deleteOldLogFiles();
    std::string defaultLogsDirectory() const;
    bool isLogFile(std::string_view fileName) const;
    // Six upper-case hexadecimal characters: the start of a fresh random
    // UUID's text. Subclasses may name files otherwise.
    virtual std::string generateShortUUID();

    std::string logsDirectory() override;
    std::vector<std::string> unsortedLogFilePaths() override;
    std::vector<std::string> unsortedLogFileNames() override;
    std::vector<std::shared_ptr<QRLLogFileInfo>> unsortedLogFileInfos() override;
    std::vector<std::string> sortedLogFilePaths() override;
    std::vector<std::string> sortedLogFileNames() override;
    std::vector<std::shared_ptr<QRLLogFileInfo>> sortedLogFileInfos() override;
    // Generates names until one is free (at most kMaximumNameAttempts),
    // makes the empty file (mode 0644 less the umask), prunes with
    // deleteOldLogFiles(), and answers the path. A failure goes to the
    // platform log ("QRLLogFileManagerDefault: Error creating log file: %@"),
    // once until a file is made again.
    std::optional<std::string> createNewLogFile() override;
    uint64_t maximumNumberOfLogFiles() const override;
    void setMaximumNumberOfLogFiles(uint64_t maximumNumberOfLogFiles) override;

private:
    std::vector<std::string> logFileNamesIn(const std::string& folder);
    void reportCreationFailure(const std::string& what);

    std::atomic<uint64_t> maximumNumberOfLogFiles_{kDefaultMaximumNumberOfLogFiles};
    const std::optional<std::string> logsDirectory_;
    KeyObservable::Token selfObservation_ = 0;
    std::atomic<bool> directoryFailureReported_{false};
    std::atomic<bool> creationFailureReported_{false};
};

}  // namespace qrl
