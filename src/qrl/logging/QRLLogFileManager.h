// QRLLogFileManager: what a rolling file logger needs of the folder its log
// files live in: where it is, which files are there, a new file, and how
// many archived files to keep.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace qrl {

class QRLLogFileInfo;

// Required: everything but didArchiveLogFile and didRollAndArchiveLogFile,
// which are called only when the manager answers them (answers()); a manager
// that implements one overrides both.
//
// The sorted lists are newest first, by creation date. The logger calls the
// manager on its own queue or on the logging queue; implementations used
// from other threads as well are thread-safe.
class QRLLogFileManager {
public:
    enum class Operation : uint8_t { didArchiveLogFile, didRollAndArchiveLogFile };

    virtual ~QRLLogFileManager() = default;

    virtual std::string logsDirectory() = 0;
    virtual std::vector<std::string> unsortedLogFilePaths() = 0;
    virtual std::vector<std::string> unsortedLogFileNames() = 0;
    virtual std::vector<std::shared_ptr<QRLLogFileInfo>> unsortedLogFileInfos() = 0;
    virtual std::vector<std::string> sortedLogFilePaths() = 0;
    virtual std::vector<std::string> sortedLogFileNames() = 0;
    virtual std::vector<std::shared_ptr<QRLLogFileInfo>> sortedLogFileInfos() = 0;
    // Makes a new, empty log file and answers its path; nullopt when no file
    // could be made (the manager has said why on the platform log).
    virtual std::optional<std::string> createNewLogFile() = 0;
    virtual uint64_t maximumNumberOfLogFiles() const = 0;
    virtual void setMaximumNumberOfLogFiles(uint64_t maximumNumberOfLogFiles) = 0;

    // Whether the manager answers an optional operation; none by default.
    virtual bool answers(Operation operation) const {
        (void)operation;
        return false;
    }
    // The logger found the file in use at start too big or too old, and
    // marked it archived.
    virtual void didArchiveLogFile(const std::string& logFilePath) { (void)logFilePath; }
    // The logger closed the file it was writing and marked it archived.
    virtual void didRollAndArchiveLogFile(const std::string& logFilePath) { (void)logFilePath; }
};

}  // namespace qrl
