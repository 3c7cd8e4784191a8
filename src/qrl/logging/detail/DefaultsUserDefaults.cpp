#include "qrl/logging/detail/DefaultsUserDefaults.h"

#include <cstdlib>
#include <utility>

#include "qrl/foundation/Bundle.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/NotificationCenter.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/logging/detail/DefaultsFile.h"
#include "qrl/foundation/Utf8.h"

namespace qrl {

namespace {

// The standard store. Never destroyed, so that the exit hook and late callers
// always find it.
struct StandardStore {
    std::mutex mutex;
    std::shared_ptr<UserDefaults> current;
    bool hooksInstalled = false;
};

StandardStore& standardStore() {
    static auto* store = new StandardStore;
    return *store;
}

std::shared_ptr<UserDefaults> currentStandard() {
    StandardStore& s = standardStore();
    std::lock_guard lock(s.mutex);
    return s.current;
}

void saveStandardAtExit() {
    if (auto defaults = currentStandard(); defaults && defaults->hasUnsavedChanges()) defaults->synchronize();
}

}  // namespace

UserDefaults::UserDefaults(std::string path) : path_(std::move(path)) {
    setValueGetter([this](std::string_view key) { return objectForKey(key); });
    load();
}

UserDefaults::~UserDefaults() {
    try {
        if (hasUnsavedChanges()) synchronize();
    } catch (...) {
        // Saving is best effort here; the failure was reported already.
    }
}

std::shared_ptr<UserDefaults> UserDefaults::standardUserDefaults() {
    StandardStore& s = standardStore();
    std::lock_guard lock(s.mutex);
    if (!s.current) {
        s.current = std::make_shared<UserDefaults>(standardPath());
        if (!s.hooksInstalled) {
            s.hooksInstalled = true;
            std::atexit(saveStandardAtExit);
            NotificationCenter::defaultCenter().addObserver(kApplicationWillTerminateNotification, nullptr,
                                                            [](const Notification&) {
                                                                if (auto defaults = currentStandard())
                                                                    defaults->synchronize();
                                                            });
        }
    }
    return s.current;
}

void UserDefaults::resetStandardUserDefaults() {
    std::shared_ptr<UserDefaults> previous;
    {
        StandardStore& s = standardStore();
        std::lock_guard lock(s.mutex);
        previous = std::move(s.current);
    }
    if (previous) previous->synchronize();
}

std::string UserDefaults::standardPath() { return detail::defaultsPathForIdentifier(Bundle::main()->identifier); }

void UserDefaults::load() {
    // The folder lock keeps another process from replacing or setting aside
    // the file while it is read here; a missing folder means a missing file.
    detail::DefaultsFolderLock folder(path_, false);
    detail::DefaultsFileContents contents = detail::readDefaultsFile(path_);
    switch (contents.status) {
    case detail::DefaultsFileContents::Status::Missing: return;
    case detail::DefaultsFileContents::Status::Loaded: stored_ = std::move(contents.values); return;
    case detail::DefaultsFileContents::Status::Unreadable: break;
    }
    std::string problem;
    if (auto aside = detail::setDefaultsFileAside(path_, Date::now(), &problem))
        report(qrl::format("Preferences file %s could not be read (%s); it was kept as %s and the preferences "
                           "start empty",
                           path_.c_str(), contents.problem.c_str(), aside->c_str()));
    else
        report(qrl::format("Preferences file %s could not be read (%s) nor set aside (%s); the preferences start "
                           "empty and the file will not be written over",
                           path_.c_str(), contents.problem.c_str(), problem.c_str()));
}

void UserDefaults::report(const std::string& message) {
    {
        std::lock_guard lock(mutex_);
        if (message == lastReport_) return;
        lastReport_ = message;
    }
    platformLog(message);
}

void UserDefaults::checkKey(std::string_view key) {
    if (!isValidUtf8(key))
        Exception::raise("NSInvalidArgumentException", "Attempt to use a defaults key that is not valid UTF-8");
}

void UserDefaults::registerDefaults(const Dictionary& defaults) {
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : defaults) {
        if (value.isNull())
            registered_.remove(key);
        else
            registered_.set(key, value.deepCopy());
    }
}

std::shared_ptr<Dictionary> UserDefaults::dictionaryRepresentation() const {
    auto out = std::make_shared<Dictionary>();
    std::lock_guard lock(mutex_);
    for (const auto& [key, value] : registered_) out->set(key, value.deepCopy());
    for (const auto& [key, value] : stored_) out->set(key, value.deepCopy());
    return out;
}

Value UserDefaults::effectiveValue(std::string_view key) const {
    if (const Value* value = stored_.find(key)) return value->deepCopy();
    if (const Value* value = registered_.find(key)) return value->deepCopy();
    return Value();
}

Value UserDefaults::objectForKey(std::string_view key) const {
    std::lock_guard lock(mutex_);
    return effectiveValue(key);
}

std::optional<std::string> UserDefaults::stringForKey(std::string_view key) const {
    const Value value = objectForKey(key);
    if (value.isString() || value.isNumber()) return value.stringValue();
    return std::nullopt;
}

int64_t UserDefaults::integerForKey(std::string_view key) const { return objectForKey(key).integerValue(); }
bool UserDefaults::boolForKey(std::string_view key) const { return objectForKey(key).boolValue(); }
double UserDefaults::doubleForKey(std::string_view key) const { return objectForKey(key).doubleValue(); }

void UserDefaults::setObject(const Value& value, std::string_view key) {
    checkKey(key);
    if (value.isNull()) {
        store(key, std::nullopt);
        return;
    }
    if (auto problem = detail::defaultsValueProblem(value))
        Exception::raise("NSInvalidArgumentException",
                         qrl::format("Attempt to insert non-property list object for key %s: %s",
                                     std::string(key).c_str(), problem->c_str()));
    store(key, value.deepCopy());
}

void UserDefaults::setInteger(int64_t value, std::string_view key) { setObject(Value(static_cast<long long>(value)), key); }
void UserDefaults::setBool(bool value, std::string_view key) { setObject(Value(value), key); }
void UserDefaults::setDouble(double value, std::string_view key) { setObject(Value(value), key); }

void UserDefaults::removeObjectForKey(std::string_view key) {
    checkKey(key);
    store(key, std::nullopt);
}

void UserDefaults::store(std::string_view key, std::optional<Value> value) {
    Value before, after;
    {
        std::lock_guard lock(mutex_);
        before = effectiveValue(key);
        if (value)
            stored_.set(std::string(key), *value);
        else
            stored_.remove(key);
        Change& change = unsaved_[std::string(key)];
        change.value = std::move(value);
        change.sequence = ++sequence_;
        after = effectiveValue(key);
    }
    // Observers run with no lock held and hear of every set, same value or not.
    notifyChange(key, before, after);
}

bool UserDefaults::hasUnsavedChanges() const {
    std::lock_guard lock(mutex_);
    return !unsaved_.empty();
}

bool UserDefaults::synchronize() {
    std::lock_guard syncLock(syncMutex_);
    std::map<std::string, Change, std::less<>> changes;
    uint64_t savedUpTo;
    {
        std::lock_guard lock(mutex_);
        changes = unsaved_;
        savedUpTo = sequence_;
    }

    detail::DefaultsFolderLock folder(path_, !changes.empty());
    Dictionary merged;
    bool mustWrite = !changes.empty();
    if (!folder.ok()) {
        if (changes.empty() && folder.missing()) {
            // Nothing to save, and no file any more: someone removed it.
            std::lock_guard lock(mutex_);
            if (unsaved_.empty()) stored_.clear();
            return true;
        }
        report(qrl::format("Preferences could not be saved to %s: %s", path_.c_str(), folder.problem().c_str()));
        return false;
    }

    detail::DefaultsFileContents contents = detail::readDefaultsFile(path_);
    switch (contents.status) {
    case detail::DefaultsFileContents::Status::Loaded: merged = std::move(contents.values); break;
    case detail::DefaultsFileContents::Status::Missing: break;
    case detail::DefaultsFileContents::Status::Unreadable: {
        std::string problem;
        auto aside = detail::setDefaultsFileAside(path_, Date::now(), &problem);
        if (!aside) {
            report(qrl::format("Preferences file %s could not be read (%s) nor set aside (%s); it is left as it "
                               "is and the preferences are not saved",
                               path_.c_str(), contents.problem.c_str(), problem.c_str()));
            return false;
        }
        report(qrl::format("Preferences file %s could not be read (%s); it was kept as %s and replaced by this "
                           "process's preferences",
                           path_.c_str(), contents.problem.c_str(), aside->c_str()));
        std::lock_guard lock(mutex_);
        merged = stored_;  // unsaved changes included
        mustWrite = true;
        break;
    }
    }
    for (const auto& [key, change] : changes) {
        if (change.value)
            merged.set(key, *change.value);
        else
            merged.remove(key);
    }

    if (mustWrite) {
        std::string problem;
        auto text = detail::defaultsFileText(merged, &problem);
        if (!text || !detail::writeDefaultsFileAtomically(path_, folder.fd(), *text, &problem)) {
            report(qrl::format("Preferences could not be saved to %s: %s", path_.c_str(), problem.c_str()));
            return false;
        }
    }

    std::lock_guard lock(mutex_);
    // Changes made while the file was being written stay unsaved, and stay
    // visible on top of what the file now holds.
    for (auto it = unsaved_.begin(); it != unsaved_.end();) {
        if (it->second.sequence <= savedUpTo) {
            it = unsaved_.erase(it);
            continue;
        }
        if (it->second.value)
            merged.set(it->first, *it->second.value);
        else
            merged.remove(it->first);
        ++it;
    }
    stored_ = std::move(merged);
    lastReport_.clear();
    return true;
}

}  // namespace qrl
