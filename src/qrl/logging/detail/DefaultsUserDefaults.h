// qrl::UserDefaults: the per-user persistent preference store that
// QRLNSUserDefaults forwards to: registered defaults beneath stored values,
// key observation, and a JSON file per application replaced atomically.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "qrl/foundation/KeyObservation.h"
#include "qrl/foundation/Value.h"

namespace qrl {

// Two domains are searched, stored values first, then registered defaults.
// Stored values persist in the file at path() (its format is described in
// detail/DefaultsFile.h); registered defaults live in memory only and are
// never saved.
//
// Values. setObject takes property-list values only: booleans, numbers,
// strings, data, dates, and arrays and dictionaries of those. A null value
// removes the key. Anything else (an object, a null inside a container, text
// that is not UTF-8, nesting past 128 levels) is refused with
// qrl::Exception("NSInvalidArgumentException", ...) and changes nothing.
// Values are copied in and out, so a caller's container never aliases the
// store's. The typed getters coerce as the platform does: integerForKey reads
// "42" as 42, boolForKey reads "YES", "true" and "1" as true (Value's
// coercions); other types give 0 or false.
//
// Observation. Every setObject (and setInteger, setBool, setDouble,
// removeObjectForKey) tells the observers of its key at once, on the calling
// thread, after the change, even when the value is the same as before. Old and
// new values are the effective ones (a removed key shows its registered
// default). registerDefaults and values picked up from the file tell nobody.
//
// Saving. Changes are kept in memory until synchronize(), which the destructor
// calls for changes not yet saved (for the standard store: at exit, and on
// kApplicationWillTerminateNotification). synchronize re-reads the file under
// an exclusive lock of its folder, applies this store's unsaved changes key by
// key on top of it (so two processes writing different keys lose neither), and
// replaces the file atomically. Values another process saved become visible
// here, without observer calls. A file that cannot be read or is not a JSON
// object is reported once through the platform log, set aside under a dated
// name ("preferences.corrupt-20261121-184355.json") and the store starts
// empty; a file that cannot even be set aside is never written over. Failures
// to save are reported once each (until a save succeeds) and keep the changes
// for the next synchronize.
//
// Thread-safe: one recursive lock guards the domains and is never held while
// observers run, so observers may read and write the store from any thread.
class UserDefaults : public KeyObservable {
public:
    // Loads the file at `path` now (a missing file is an empty store).
    explicit UserDefaults(std::string path);
    // Saves changes not yet saved.
    ~UserDefaults() override;
    UserDefaults(const UserDefaults&) = delete;
    UserDefaults& operator=(const UserDefaults&) = delete;

    // The application's store at standardPath(), made on first use.
    static std::shared_ptr<UserDefaults> standardUserDefaults();
    // Saves and lets go of the standard store; the next standardUserDefaults()
    // makes a new one (reading the environment and the bundle again). Holders
    // of the old one keep a working, separate object.
    static void resetStandardUserDefaults();
    // $XDG_CONFIG_HOME/<Bundle::main()->identifier>/preferences.json, with
    // ~/.config when XDG_CONFIG_HOME is unset or not absolute.
    static std::string standardPath();

    const std::string& path() const { return path_; }

    // Adds to the registered defaults; a later registration of a key replaces
    // the earlier one, a null value takes the key's registration away.
    void registerDefaults(const Dictionary& defaults);
    // A new map of every key: registered defaults overlaid by stored values.
    std::shared_ptr<Dictionary> dictionaryRepresentation() const;

    Value objectForKey(std::string_view key) const;
    // A string as it is, a number as its description; nullopt otherwise.
    std::optional<std::string> stringForKey(std::string_view key) const;
    int64_t integerForKey(std::string_view key) const;
    bool boolForKey(std::string_view key) const;
    double doubleForKey(std::string_view key) const;

    void setObject(const Value& value, std::string_view key);
    void setInteger(int64_t value, std::string_view key);
    void setBool(bool value, std::string_view key);
    void setDouble(double value, std::string_view key);
    void removeObjectForKey(std::string_view key);

    // Saves as described above; false when the changes could not be saved.
    bool synchronize();
    bool hasUnsavedChanges() const;

private:
    struct Change {
        std::optional<Value> value;  // nullopt: removed
        uint64_t sequence = 0;
    };

    void load();
    Value effectiveValue(std::string_view key) const;  // caller holds mutex_
    void store(std::string_view key, std::optional<Value> value);
    void report(const std::string& message);
    static void checkKey(std::string_view key);

    const std::string path_;
    mutable std::recursive_mutex mutex_;
    Dictionary registered_;  // guarded by mutex_
    Dictionary stored_;      // guarded by mutex_; includes unsaved changes
    std::map<std::string, Change, std::less<>> unsaved_;  // guarded by mutex_
    uint64_t sequence_ = 0;                              // guarded by mutex_
    std::string lastReport_;                             // guarded by mutex_
    std::mutex syncMutex_;  // one synchronize at a time; taken before mutex_
};

}  // namespace qrl
