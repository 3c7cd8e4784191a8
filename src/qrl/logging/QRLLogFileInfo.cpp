#include "qrl/logging/QRLLogFileInfo.h"

#include <cerrno>
#include <cstdio>

#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/detail/LogFileAttributes.h"
#include "qrl/logging/detail/LogFileSystem.h"

namespace qrl {

namespace {

std::weak_ordering reverseByDate(const std::optional<Date>& mine, const std::optional<Date>& theirs) {
    if (mine && theirs) return theirs->nanosecondsSinceEpoch <=> mine->nanosecondsSinceEpoch;
    if (mine) return std::weak_ordering::less;
    if (theirs) return std::weak_ordering::greater;
    return std::weak_ordering::equivalent;
}

const char* fileTypeName(uint32_t mode) {
    if (S_ISREG(mode)) return "NSFileTypeRegular";
    if (S_ISDIR(mode)) return "NSFileTypeDirectory";
    if (S_ISLNK(mode)) return "NSFileTypeSymbolicLink";
    if (S_ISCHR(mode)) return "NSFileTypeCharacterSpecial";
    if (S_ISBLK(mode)) return "NSFileTypeBlockSpecial";
    if (S_ISSOCK(mode)) return "NSFileTypeSocket";
    return "NSFileTypeUnknown";
}

}  // namespace

std::shared_ptr<QRLLogFileInfo> QRLLogFileInfo::logFileWithPath(std::string filePath) {
    return std::make_shared<QRLLogFileInfo>(std::move(filePath));
}

QRLLogFileInfo::QRLLogFileInfo(std::string filePath) : filePath_(std::move(filePath)) {}

std::string QRLLogFileInfo::filePath() const {
    std::lock_guard lock(mutex_);
    return filePath_;
}

std::string QRLLogFileInfo::fileName() const {
    std::lock_guard lock(mutex_);
    if (!fileName_) fileName_ = detail::lastPathComponent(filePath_);
    return *fileName_;
}

const QRLLogFileInfo::Cache& QRLLogFileInfo::cached() const {
    if (cache_.read) return cache_;
    cache_ = Cache{};
    cache_.read = true;
    auto attributes = std::make_shared<Dictionary>();
    if (const auto status = detail::statLogFile(filePath_)) {
        attributes->set("NSFileType", Value(fileTypeName(status->mode)));
        attributes->set("NSFileSize", Value(status->size));
        attributes->set("NSFileModificationDate", Value(status->modificationDate));
        attributes->set("NSFileCreationDate", Value(status->creationDate));
        attributes->set("NSFilePosixPermissions", Value(static_cast<int64_t>(status->mode & 07777)));
        attributes->set("NSFileReferenceCount", Value(status->linkCount));
        attributes->set("NSFileOwnerAccountID", Value(static_cast<int64_t>(status->ownerID)));
        attributes->set("NSFileGroupOwnerAccountID", Value(static_cast<int64_t>(status->groupID)));
        attributes->set("NSFileSystemNumber", Value(status->deviceNumber));
        attributes->set("NSFileSystemFileNumber", Value(status->fileNumber));
        cache_.creationDate = status->creationDate;
        cache_.modificationDate = status->modificationDate;
        cache_.fileSize = status->size;
    }
    cache_.fileAttributes = Value(std::move(attributes));
    return cache_;
}

Value QRLLogFileInfo::fileAttributes() const {
    std::lock_guard lock(mutex_);
    return cached().fileAttributes.deepCopy();
}

std::optional<Date> QRLLogFileInfo::creationDate() const {
    std::lock_guard lock(mutex_);
    return cached().creationDate;
}

std::optional<Date> QRLLogFileInfo::modificationDate() const {
    std::lock_guard lock(mutex_);
    return cached().modificationDate;
}

uint64_t QRLLogFileInfo::fileSize() const {
    std::lock_guard lock(mutex_);
    return cached().fileSize;
}

double QRLLogFileInfo::age() const {
    const std::optional<Date> created = creationDate();
    if (!created) return 0.0;
    return static_cast<double>(Date::now().nanosecondsSinceEpoch - created->nanosecondsSinceEpoch) / 1e9;
}

bool QRLLogFileInfo::isArchived() const { return hasExtendedAttributeWithName(kArchivedAttributeName); }

void QRLLogFileInfo::setIsArchived(bool flag) {
    if (flag) addExtendedAttributeWithName(kArchivedAttributeName);
    else removeExtendedAttributeWithName(kArchivedAttributeName);
}

void QRLLogFileInfo::renameFile(std::string_view newFileName) {
    std::lock_guard lock(mutex_);
    if (!fileName_) fileName_ = detail::lastPathComponent(filePath_);
    if (newFileName == *fileName_) return;
    const std::string folder = detail::folderOfPath(filePath_);
    const std::string newFilePath = (folder == "/" ? "" : folder) + "/" + std::string(newFileName);
    if (newFileName.empty() || newFileName.find('/') != std::string_view::npos) {
        platformLogFormat("QRLLogFileInfo: Error renaming file (%@): %@", *fileName_,
                          detail::posixError(EINVAL, newFilePath));
    } else if (::rename(filePath_.c_str(), newFilePath.c_str()) != 0) {
        platformLogFormat("QRLLogFileInfo: Error renaming file (%@): %@", *fileName_,
                          detail::posixError(errno, newFilePath));
    } else {
        detail::logFileAttributes()->moved(filePath_, newFilePath);
    }
    filePath_ = newFilePath;
    fileName_.reset();
    cache_ = Cache{};
}

void QRLLogFileInfo::reset() {
    std::lock_guard lock(mutex_);
    fileName_.reset();
    cache_ = Cache{};
}

std::string QRLLogFileInfo::qualifiedAttributeName(std::string_view attrName) {
    for (std::string_view space : {"user.", "trusted.", "security.", "system."})
        if (attrName.starts_with(space)) return std::string(attrName);
    return "user." + std::string(attrName);
}

bool QRLLogFileInfo::hasExtendedAttributeWithName(std::string_view attrName) const {
    return detail::logFileAttributes()->get(filePath(), qualifiedAttributeName(attrName)) == 0;
}

void QRLLogFileInfo::addExtendedAttributeWithName(std::string_view attrName) {
    const std::string name = qualifiedAttributeName(attrName);
    if (const int error = detail::logFileAttributes()->set(filePath(), name))
        platformLogFormat("QRLLogFileInfo: setxattr(%@, %@): error = %i", name, fileName(), error);
}

void QRLLogFileInfo::removeExtendedAttributeWithName(std::string_view attrName) {
    const std::string name = qualifiedAttributeName(attrName);
    const int error = detail::logFileAttributes()->remove(filePath(), name);
    if (error != 0 && error != ENODATA)
        platformLogFormat("QRLLogFileInfo: removexattr(%@, %@): error = %i", name, fileName(), error);
}

bool QRLLogFileInfo::isEqual(const Object& other) const {
    if (this == &other) return true;
    const auto* info = dynamic_cast<const QRLLogFileInfo*>(&other);
    return info && info->filePath() == filePath();
}

std::weak_ordering QRLLogFileInfo::reverseCompareByCreationDate(const QRLLogFileInfo& another) const {
    return reverseByDate(creationDate(), another.creationDate());
}

std::weak_ordering QRLLogFileInfo::reverseCompareByModificationDate(const QRLLogFileInfo& another) const {
    return reverseByDate(modificationDate(), another.modificationDate());
}

std::string QRLLogFileInfo::description() const {
    const auto optionalDate = [](const std::optional<Date>& d) { return d ? Value(*d) : Value(); };
    const Value map = Value::dictionary({
        {"filePath", Value(filePath())},
        {"fileName", Value(fileName())},
        {"fileAttributes", fileAttributes()},
        {"creationDate", optionalDate(creationDate())},
        {"modificationDate", optionalDate(modificationDate())},
        {"fileSize", Value(fileSize())},
        {"age", Value(age())},
        {"isArchived", Value(isArchived())},
    });
    return map.description();
}

}  // namespace qrl
