// QRLLogFileInfo: a cached view of one log file (name, attributes, dates,
// size, age) and of the mark that says it is archived.
#pragma once

#include <compare>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/Value.h"

namespace qrl {

// filePath is the file's identity (isEqual compares it). fileName,
// fileAttributes, creationDate, modificationDate and fileSize are read from
// the file system on the first read of any of them and kept until reset()
// or renameFile(); age and isArchived are read afresh each time.
//
// The creation date is the file's birth time (statx) where the file system
// keeps one, otherwise its modification time. A file that cannot be read
// has an empty fileAttributes map, no dates, size 0 and age 0.
//
// Extended attributes are named, empty marks. On Linux user attributes live
// in the "user." namespace; a name given without a namespace ("user.",
// "trusted.", "security." or "system." in front) is taken as a user
// attribute, so "qrl.log.archived" and "user.qrl.log.archived" are one
// mark. Where the file system refuses user attributes, the mark is kept in a
// hidden folder beside the file instead and read back the same way (see
// detail::LogFileXattrAttributes). Failures go to the platform log.
//
// Thread-safe.
class QRLLogFileInfo : public Object {
public:
    // The mark of an archived log file.
    static constexpr std::string_view kArchivedAttributeName = "user.qrl.log.archived";

    static std::shared_ptr<QRLLogFileInfo> logFileWithPath(std::string filePath);
    explicit QRLLogFileInfo(std::string filePath);

    std::string filePath() const;
    std::string fileName() const;
    // A dictionary with the platform's keys: "NSFileType", "NSFileSize",
    // "NSFileModificationDate", "NSFileCreationDate", "NSFilePosixPermissions",
    // "NSFileReferenceCount", "NSFileOwnerAccountID",
    // "NSFileGroupOwnerAccountID", "NSFileSystemNumber",
    // "NSFileSystemFileNumber". A copy: changing it changes nothing here.
    Value fileAttributes() const;
    std::optional<Date> creationDate() const;
    std::optional<Date> modificationDate() const;
    uint64_t fileSize() const;

    // Seconds from creationDate to now; 0 without a creation date.
    double age() const;
    // The archive mark (kArchivedAttributeName).
    bool isArchived() const;
    void setIsArchived(bool flag);

    // Moves the file to `newFileName` in the same folder; nothing when the
    // name is the same. When the move fails, the platform log says so
    // ("QRLLogFileInfo: Error renaming file (%@): %@"), and the object takes
    // the new path all the same. Either way the caches are dropped.
    void renameFile(std::string_view newFileName);
    // Drops the cached values; the next read goes to the file system.
    void reset();

    bool hasExtendedAttributeWithName(std::string_view attrName) const;
    // Failure: "QRLLogFileInfo: setxattr(%@, %@): error = %i" (attribute
    // name, file name, errno) on the platform log.
    void addExtendedAttributeWithName(std::string_view attrName);
    // Failure: "QRLLogFileInfo: removexattr(%@, %@): error = %i"; an
    // attribute that was not there is no failure.
    void removeExtendedAttributeWithName(std::string_view attrName);

    // Equal when the other is a QRLLogFileInfo with the same path.
    bool isEqual(const Object& other) const override;
    // Order for a list newest first: less when this file's date is later
    // than the other's. A file without a date sorts after every dated one.
    std::weak_ordering reverseCompareByCreationDate(const QRLLogFileInfo& another) const;
    std::weak_ordering reverseCompareByModificationDate(const QRLLogFileInfo& another) const;

    // The text of a map with "filePath", "fileName", "fileAttributes",
    // "creationDate", "modificationDate", "fileSize", "age", "isArchived".
    std::string description() const override;

    // The full attribute name for `attrName` ("user." added where it has no
    // namespace).
    static std::string qualifiedAttributeName(std::string_view attrName);

private:
    struct Cache {
        bool read = false;
        Value fileAttributes;
        std::optional<Date> creationDate;
        std::optional<Date> modificationDate;
        uint64_t fileSize = 0;
    };
    // Reads the file's status into the cache unless it is there; lock held.
    const Cache& cached() const;

    mutable std::mutex mutex_;
    std::string filePath_;
    mutable std::optional<std::string> fileName_;
    mutable Cache cache_;
};

}  // namespace qrl
