#include "qrl/logging/dbus/DBusDistributedNotificationCenter.h"

#include <poll.h>
#include <systemd/sd-bus.h>

#include <cerrno>
#include <cstring>
#include <utility>

#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {

struct MessageUnref {
    void operator()(sd_bus_message* m) const noexcept { sd_bus_message_unref(m); }
};
using MessagePtr = std::unique_ptr<sd_bus_message, MessageUnref>;

std::string matchRule() {
    return qrl::format("type='signal',interface='%s',member='%s',path='%s'",
                       DBusDistributedNotificationCenter::kInterface, DBusDistributedNotificationCenter::kMember,
                       DBusDistributedNotificationCenter::kObjectPath);
}

// ---- Writing. Values have passed portableUserInfo: every one can be written.

int appendDictionary(sd_bus_message* m, const Dictionary& dictionary);

int appendVariant(sd_bus_message* m, const Value& value) {
    switch (value.type()) {
        case Value::Type::Boolean:
            return sd_bus_message_append(m, "v", "b", static_cast<int>(*value.asBoolean()));
        case Value::Type::Integer:
            return sd_bus_message_append(m, "v", "x", static_cast<int64_t>(*value.asInteger()));
        case Value::Type::Real:
            return sd_bus_message_append(m, "v", "d", *value.asReal());
        case Value::Type::String:
            return sd_bus_message_append(m, "v", "s", value.asString()->c_str());
        case Value::Type::Data: {
            const Data& data = *value.asData();
            int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "ay");
            if (r >= 0) r = sd_bus_message_append_array(m, 'y', data.empty() ? nullptr : data.data(), data.size());
            if (r >= 0) r = sd_bus_message_close_container(m);
            return r;
        }
        case Value::Type::Array: {
            int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "av");
            if (r >= 0) r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "v");
            for (const Value& item : *value.asArray()) {
                if (r < 0) break;
                r = appendVariant(m, item);
            }
            if (r >= 0) r = sd_bus_message_close_container(m);
            if (r >= 0) r = sd_bus_message_close_container(m);
            return r;
        }
        case Value::Type::Dictionary: {
            int r = sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, "a{sv}");
            if (r >= 0) r = appendDictionary(m, *value.asDictionary());
            if (r >= 0) r = sd_bus_message_close_container(m);
            return r;
        }
        default:
            return -EINVAL;
    }
}

int appendDictionary(sd_bus_message* m, const Dictionary& dictionary) {
    int r = sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}");
    for (const auto& [key, item] : dictionary) {
        if (r < 0) break;
        r = sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv");
        if (r >= 0) r = sd_bus_message_append_basic(m, SD_BUS_TYPE_STRING, key.c_str());
        if (r >= 0) r = appendVariant(m, item);
        if (r >= 0) r = sd_bus_message_close_container(m);
    }
    if (r >= 0) r = sd_bus_message_close_container(m);
    return r;
}

// ---- Reading.

// The complete type at the read position, for sd_bus_message_skip.
std::string completeType(char type, const char* contents) {
    switch (type) {
        case SD_BUS_TYPE_ARRAY:
            return std::string("a") + (contents ? contents : "");
        case SD_BUS_TYPE_STRUCT:
            return std::string("(") + (contents ? contents : "") + ")";
        case SD_BUS_TYPE_DICT_ENTRY:
            return std::string("{") + (contents ? contents : "") + "}";
        default:
            return std::string(1, type);
    }
}

template <class T>
int readBasic(sd_bus_message* m, char type, T& out) {
    return sd_bus_message_read_basic(m, type, &out);
}

// Reads the value at the read position into *out; leaves *out empty for a
// value that is left out (skipped). Negative errno when the message cannot
// be read. `depth` is the nesting of the container the value would open.
int readValue(sd_bus_message* m, int depth, std::optional<Value>* out) {
    char type = 0;
    const char* contents = nullptr;
    int r = sd_bus_message_peek_type(m, &type, &contents);
    if (r < 0) return r;
    if (r == 0) return -EBADMSG;
    switch (type) {
        case SD_BUS_TYPE_BOOLEAN: {
            int v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(v != 0);
            return r;
        }
        case SD_BUS_TYPE_BYTE: {
            uint8_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<int>(v));
            return r;
        }
        case SD_BUS_TYPE_INT16: {
            int16_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<int>(v));
            return r;
        }
        case SD_BUS_TYPE_UINT16: {
            uint16_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<int>(v));
            return r;
        }
        case SD_BUS_TYPE_INT32: {
            int32_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<int>(v));
            return r;
        }
        case SD_BUS_TYPE_UINT32: {
            uint32_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<long long>(v));
            return r;
        }
        case SD_BUS_TYPE_INT64: {
            int64_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<long long>(v));
            return r;
        }
        case SD_BUS_TYPE_UINT64: {
            uint64_t v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(static_cast<unsigned long long>(v));
            return r;
        }
        case SD_BUS_TYPE_DOUBLE: {
            double v = 0;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(v);
            return r;
        }
        case SD_BUS_TYPE_STRING:
        case SD_BUS_TYPE_OBJECT_PATH:
        case SD_BUS_TYPE_SIGNATURE: {
            const char* v = nullptr;
            r = readBasic(m, type, v);
            if (r >= 0) *out = Value(std::string(v ? v : ""));
            return r;
        }
        case SD_BUS_TYPE_VARIANT: {
            r = sd_bus_message_enter_container(m, SD_BUS_TYPE_VARIANT, contents);
            if (r >= 0) r = readValue(m, depth, out);
            if (r >= 0) r = sd_bus_message_exit_container(m);
            return r;
        }
        case SD_BUS_TYPE_ARRAY: {
            if (contents && std::strcmp(contents, "y") == 0) {
                const void* bytes = nullptr;
                size_t size = 0;
                r = sd_bus_message_read_array(m, 'y', &bytes, &size);
                if (r >= 0) {
                    const auto* p = static_cast<const uint8_t*>(bytes);
                    *out = Value(size ? Data(p, p + size) : Data());
                }
                return r;
            }
            const bool isDictionary = contents && contents[0] == SD_BUS_TYPE_DICT_ENTRY_BEGIN;
            const bool stringKeys =
                isDictionary && (contents[1] == SD_BUS_TYPE_STRING || contents[1] == SD_BUS_TYPE_OBJECT_PATH ||
                                 contents[1] == SD_BUS_TYPE_SIGNATURE);
            if (depth > DistributedNotificationCenter::kMaxNesting || (isDictionary && !stringKeys))
                return sd_bus_message_skip(m, completeType(type, contents).c_str());
            r = sd_bus_message_enter_container(m, SD_BUS_TYPE_ARRAY, contents);
            if (r < 0) return r;
            if (isDictionary) {
                const std::string entry(contents + 1, std::strlen(contents) - 2);
                auto dictionary = std::make_shared<Dictionary>();
                while ((r = sd_bus_message_enter_container(m, SD_BUS_TYPE_DICT_ENTRY, entry.c_str())) > 0) {
                    const char* key = nullptr;
                    r = sd_bus_message_read_basic(m, contents[1], &key);
                    std::optional<Value> item;
                    if (r >= 0) r = readValue(m, depth + 1, &item);
                    if (r >= 0) r = sd_bus_message_exit_container(m);
                    if (r < 0) return r;
                    if (item) dictionary->set(key ? key : "", std::move(*item));
                }
                if (r < 0) return r;
                *out = Value(std::move(dictionary));
            } else {
                auto array = std::make_shared<Array>();
                while ((r = sd_bus_message_at_end(m, 0)) == 0) {
                    std::optional<Value> item;
                    r = readValue(m, depth + 1, &item);
                    if (r < 0) return r;
                    if (item) array->push_back(std::move(*item));
                }
                if (r < 0) return r;
                *out = Value(std::move(array));
            }
            return sd_bus_message_exit_container(m);
        }
        case SD_BUS_TYPE_STRUCT:
        case SD_BUS_TYPE_UNIX_FD:
            return sd_bus_message_skip(m, completeType(type, contents).c_str());
        default:
            return -EBADMSG;
    }
}

}  // namespace

void DBusDistributedNotificationCenter::BusCloser::operator()(sd_bus* bus) const noexcept {
    sd_bus_flush_close_unref(bus);
}
void DBusDistributedNotificationCenter::SlotUnref::operator()(sd_bus_slot* slot) const noexcept {
    sd_bus_slot_unref(slot);
}

struct DBusDistributedNotificationCenterCallbacks {
    static int onSignal(sd_bus_message* message, void* userdata, sd_bus_error*) noexcept {
        static_cast<DBusDistributedNotificationCenter*>(userdata)->onSignal(message);
        return 0;
    }
};

DBusDistributedNotificationCenter::DBusDistributedNotificationCenter(Passkey, RunLoop& deliveryLoop)
    : DistributedNotificationCenter(deliveryLoop) {}

std::shared_ptr<DBusDistributedNotificationCenter> DBusDistributedNotificationCenter::open(
    const std::optional<std::string>& busAddress, RunLoop& deliveryLoop, std::string* whyNot) {
    auto fail = [&](const char* what, int r) {
        if (whyNot) *whyNot = qrl::format("%s: %s", what, std::strerror(-r));
        return nullptr;
    };
    auto center = std::make_shared<DBusDistributedNotificationCenter>(Passkey{}, deliveryLoop);
    sd_bus* raw = nullptr;
    int r = 0;
    if (busAddress) {
        r = sd_bus_new(&raw);
        if (r < 0) return fail("cannot make a bus connection", r);
        center->bus_.reset(raw);
        r = sd_bus_set_address(raw, busAddress->c_str());
        if (r >= 0) r = sd_bus_set_bus_client(raw, 1);
        if (r >= 0) r = sd_bus_start(raw);
        if (r < 0) return fail("cannot connect to the bus", r);
    } else {
        r = sd_bus_open_user(&raw);
        if (r < 0) return fail("cannot connect to the session bus", r);
        center->bus_.reset(raw);
    }
    // Synchronous: once open() returns, the bus routes the signal here.
    sd_bus_slot* slot = nullptr;
    r = sd_bus_add_match(center->bus_.get(), &slot, matchRule().c_str(),
                         &DBusDistributedNotificationCenterCallbacks::onSignal, center.get());
    if (r < 0) return fail("cannot listen for notifications on the bus", r);
    center->slot_.reset(slot);
    center->connected_ = true;
    center->watch();
    return center;
}

DBusDistributedNotificationCenter::~DBusDistributedNotificationCenter() {
    std::lock_guard lock(mutex_);
    if (readToken_) deliveryLoop().removeFdSource(readToken_);
    if (writeToken_) deliveryLoop().removeFdSource(writeToken_);
    slot_.reset();
    bus_.reset();
}

void DBusDistributedNotificationCenter::watch() {
    std::lock_guard lock(mutex_);
    const int fd = sd_bus_get_fd(bus_.get());
    std::weak_ptr<DistributedNotificationCenter> weak = weak_from_this();
    readToken_ = deliveryLoop().addFdSource(fd, POLLIN, [weak](int, short) {
        if (auto self = weak.lock()) static_cast<DBusDistributedNotificationCenter&>(*self).process();
    });
    // Signals read while the match was being set up wait in the connection's
    // queue, where the descriptor says nothing of them.
    deliveryLoop().post([weak] {
        if (auto self = weak.lock()) static_cast<DBusDistributedNotificationCenter&>(*self).process();
    });
    updateWriteWatchLocked();
}

bool DBusDistributedNotificationCenter::connected() const {
    std::lock_guard lock(mutex_);
    return connected_;
}

std::string DBusDistributedNotificationCenter::uniqueName() const {
    std::lock_guard lock(mutex_);
    const char* name = nullptr;
    if (!bus_ || sd_bus_get_unique_name(bus_.get(), &name) < 0 || !name) return {};
    return name;
}

void DBusDistributedNotificationCenter::process() {
    std::vector<DistributedNotification> batch;
    {
        std::lock_guard lock(mutex_);
        if (!connected_) return;
        int r;
        while ((r = sd_bus_process(bus_.get(), nullptr)) > 0) {
        }
        batch.swap(received_);
        if (r < 0 || sd_bus_is_open(bus_.get()) <= 0)
            loseBusLocked(r < 0 ? r : -ECONNRESET);
        else
            updateWriteWatchLocked();
    }
    for (const DistributedNotification& notification : batch) deliver(notification);
}

void DBusDistributedNotificationCenter::onSignal(sd_bus_message* message) noexcept {
    const char* sender = sd_bus_message_get_sender(message);
    auto ignore = [&](int r) {
        if (ignored_.fetch_add(1, std::memory_order_relaxed) == 0) {
            const char* signature = sd_bus_message_get_signature(message, 1);
            platformLogFormat("Cross-process notifications: ignored a signal from %s with signature \"%s\": %s",
                              sender ? sender : "(unknown)", signature ? signature : "", std::strerror(-r));
        }
    };
    try {
        if (sd_bus_message_has_signature(message, "ssa{sv}") <= 0) return ignore(-EBADMSG);
        const char* name = nullptr;
        const char* object = nullptr;
        int r = sd_bus_message_read(message, "ss", &name, &object);
        if (r < 0) return ignore(r);
        if (!name || !*name) return ignore(-EINVAL);
        std::optional<Value> userInfo;
        r = readValue(message, 1, &userInfo);
        if (r < 0) return ignore(r);
        received_.push_back(
            DistributedNotification{name, object ? object : "", userInfo ? std::move(*userInfo) : Value()});
    } catch (const std::exception& e) {
        platformLogFormat("Cross-process notifications: a signal could not be taken in: %s", e.what());
    }
}

void DBusDistributedNotificationCenter::updateWriteWatchLocked() {
    const int events = sd_bus_get_events(bus_.get());
    const bool wantOutput = events > 0 && (events & POLLOUT);
    if (wantOutput && !writeToken_) {
        std::weak_ptr<DistributedNotificationCenter> weak = weak_from_this();
        writeToken_ = deliveryLoop().addFdSource(sd_bus_get_fd(bus_.get()), POLLOUT, [weak](int, short) {
            if (auto self = weak.lock()) static_cast<DBusDistributedNotificationCenter&>(*self).process();
        });
    } else if (!wantOutput && writeToken_) {
        deliveryLoop().removeFdSource(std::exchange(writeToken_, 0));
    }
}

void DBusDistributedNotificationCenter::loseBusLocked(int error) {
    connected_ = false;
    if (readToken_) deliveryLoop().removeFdSource(std::exchange(readToken_, 0));
    if (writeToken_) deliveryLoop().removeFdSource(std::exchange(writeToken_, 0));
    // The connection itself stays until the centre goes: the loop may still
    // be polling its descriptor in this pass.
    platformLogFormat("Cross-process notifications: the session bus went away (%s); they reach this process only",
                      std::strerror(-error));
}

void DBusDistributedNotificationCenter::send(const DistributedNotification& notification) {
    {
        std::lock_guard lock(mutex_);
        if (connected_) {
            sd_bus_message* raw = nullptr;
            int r = sd_bus_message_new_signal(bus_.get(), &raw, kObjectPath, kInterface, kMember);
            MessagePtr message(raw);
            if (r >= 0) r = sd_bus_message_append(raw, "ss", notification.name.c_str(), notification.object.c_str());
            if (r >= 0) {
                const auto& dictionary = notification.userInfo.asDictionary();
                r = appendDictionary(raw, dictionary ? *dictionary : Dictionary());
            }
            if (r >= 0) r = sd_bus_send(bus_.get(), raw, nullptr);
            if (r >= 0) {
                updateWriteWatchLocked();
                return;
            }
            if (sd_bus_is_open(bus_.get()) <= 0) {
                loseBusLocked(r);
            } else {
                platformLogFormat("Cross-process notification %@ could not be sent (%s); it reaches this process only",
                                  notification.name, std::strerror(-r));
            }
        }
    }
    deliverLater(notification);
}

}  // namespace qrl
