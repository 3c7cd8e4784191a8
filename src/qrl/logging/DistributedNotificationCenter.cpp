#include "qrl/logging/DistributedNotificationCenter.h"

#include <cstdlib>
#include <exception>
#include <utility>
#include <vector>

#include "qrl/foundation/Exception.h"
#include "qrl/foundation/Format.h"
#include "qrl/foundation/PlatformLog.h"
#include "qrl/foundation/RunLoop.h"
#include "qrl/logging/detail/LoggingBackends.h"

namespace qrl {

namespace {

// Reaches this process only: what is left where no bus can be reached.
class LocalDistributedNotificationCenter final : public DistributedNotificationCenter {
public:
    explicit LocalDistributedNotificationCenter(RunLoop& loop) : DistributedNotificationCenter(loop) {}
    std::string_view backendName() const override { return "local"; }

protected:
    void send(const DistributedNotification& notification) override { deliverLater(notification); }
};

// Decodes one code point of strict UTF-8 at text[i]; false for a malformed,
// overlong or out-of-range sequence.
bool decodeUTF8(std::string_view text, std::size_t& i, char32_t& out) {
    const auto byte = [&](std::size_t k) { return static_cast<unsigned char>(text[k]); };
    const unsigned char lead = byte(i);
    std::size_t length;
    char32_t cp;
    char32_t minimum;
    if (lead < 0x80) {
        out = lead;
        ++i;
        return true;
    } else if ((lead & 0xE0) == 0xC0) {
        length = 2, cp = lead & 0x1F, minimum = 0x80;
    } else if ((lead & 0xF0) == 0xE0) {
        length = 3, cp = lead & 0x0F, minimum = 0x800;
    } else if ((lead & 0xF8) == 0xF0) {
        length = 4, cp = lead & 0x07, minimum = 0x10000;
    } else {
        return false;
    }
    if (text.size() - i < length) return false;
    for (std::size_t k = 1; k < length; ++k) {
        if ((byte(i + k) & 0xC0) != 0x80) return false;
        cp = (cp << 6) | (byte(i + k) & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF) return false;
    out = cp;
    i += length;
    return true;
}

std::optional<Value> portableValue(const Value& value, int depth, std::size_t& dropped) {
    switch (value.type()) {
        case Value::Type::Boolean:
        case Value::Type::Integer:
        case Value::Type::Real:
            return value;
        case Value::Type::String:
            if (DistributedNotificationCenter::isPortableText(*value.asString())) return value;
            break;
        case Value::Type::Data:
            return Value(*value.asData());
        case Value::Type::Array: {
            if (depth > DistributedNotificationCenter::kMaxNesting) break;
            auto out = std::make_shared<Array>();
            for (const Value& item : *value.asArray()) {
                if (auto kept = portableValue(item, depth + 1, dropped)) out->push_back(std::move(*kept));
            }
            return Value(std::move(out));
        }
        case Value::Type::Dictionary: {
            if (depth > DistributedNotificationCenter::kMaxNesting) break;
            auto out = std::make_shared<Dictionary>();
            for (const auto& [key, item] : *value.asDictionary()) {
                if (!DistributedNotificationCenter::isPortableText(key)) {
                    ++dropped;
                    continue;
                }
                if (auto kept = portableValue(item, depth + 1, dropped)) out->set(key, std::move(*kept));
            }
            return Value(std::move(out));
        }
        default:  // null, decimal, date, object
            break;
    }
    ++dropped;
    return std::nullopt;
}

void raise(const std::string& reason) { Exception::raise("DistributedNotificationCenter", reason); }

std::shared_ptr<DistributedNotificationCenter> choose() {
    BackendChoice choice;
    auto center = chooseBackend(detail::kNotificationPort, detail::distributedCenterBackends(), &choice);
    for (const auto& note : choice.notes) platformLogFormat("Cross-process notifications: %@", note);
    if (choice.chosen == "local" && choice.named != "local")
        platformLogFormat("Cross-process notifications: no session bus (%@); they reach this process only",
                          choice.reasons());
    return center;
}

}  // namespace

DistributedNotificationCenter::DistributedNotificationCenter(RunLoop& deliveryLoop) : loop_(deliveryLoop) {}

DistributedNotificationCenter::~DistributedNotificationCenter() = default;

struct DistributedNotificationCenter::Registration {
    Token token;
    const void* observer;
    std::string name;  // empty: every name
    std::optional<std::string> object;
    Callback callback;
    std::atomic<bool> removed{false};
};

DistributedNotificationCenter::Token DistributedNotificationCenter::addObserver(const void* observer,
                                                                                std::string_view name,
                                                                                std::optional<std::string> object,
                                                                                Callback callback) {
    if (!callback) raise("addObserver() needs a callback, got an empty one");
    auto registration = std::make_shared<Registration>();
    registration->observer = observer;
    registration->name = name;
    registration->object = std::move(object);
    registration->callback = std::move(callback);
    std::lock_guard lock(mutex_);
    registration->token = nextToken_++;
    registrations_.push_back(registration);
    return registration->token;
}

// Removal marks the registration and drops it from the list without waiting
// for a call in flight: a delivery already past its check finishes, none
// starts afterwards.
bool DistributedNotificationCenter::removeObserver(Token token) {
    return removeWhere([token](const Registration& r) { return r.token == token; }) > 0;
}

std::size_t DistributedNotificationCenter::removeObserver(const void* observer, std::string_view name) {
    return removeWhere(
        [&](const Registration& r) { return r.observer == observer && (name.empty() || r.name == name); });
}

std::size_t DistributedNotificationCenter::removeWhere(const std::function<bool(const Registration&)>& match) {
    std::vector<std::shared_ptr<Registration>> removed;
    {
        std::lock_guard lock(mutex_);
        for (auto it = registrations_.begin(); it != registrations_.end();) {
            if (match(**it)) {
                (*it)->removed.store(true, std::memory_order_release);
                removed.push_back(std::move(*it));
                it = registrations_.erase(it);
            } else {
                ++it;
            }
        }
    }
    // The callbacks (and what they captured) go outside the lock.
    return removed.size();
}

std::size_t DistributedNotificationCenter::observerCount() const {
    std::lock_guard lock(mutex_);
    return registrations_.size();
}

void DistributedNotificationCenter::postNotificationName(std::string_view name, std::string_view object,
                                                         const Value& userInfo) {
    if (name.empty()) raise("postNotificationName() needs a name, got an empty one");
    if (!isPortableText(name)) raise("postNotificationName(): the name is not valid UTF-8 text");
    if (!isPortableText(object))
        raise(qrl::format("postNotificationName(%@): the object is not valid UTF-8 text", std::string(name)));
    if (!userInfo.isNull() && !userInfo.isDictionary())
        raise(qrl::format("postNotificationName(%@): the user information must be a dictionary or null",
                          std::string(name)));
    std::size_t dropped = 0;
    DistributedNotification notification{std::string(name), std::string(object), portableUserInfo(userInfo, &dropped)};
    if (dropped > 0 && !reportedDrop_.exchange(true)) {
        platformLogFormat(
            "Cross-process notification %@: %zu values that cannot travel were left out (nulls, dates, decimals, "
            "objects, text that is not UTF-8, or nesting deeper than %d)",
            notification.name, dropped, kMaxNesting);
    }
    send(notification);
}

Value DistributedNotificationCenter::portableUserInfo(const Value& userInfo, std::size_t* dropped) {
    std::size_t count = 0;
    Value out;
    if (!userInfo.isNull()) {
        if (auto kept = portableValue(userInfo, 1, count)) out = std::move(*kept);
    }
    if (dropped) *dropped = count;
    return out;
}

bool DistributedNotificationCenter::isPortableText(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        char32_t cp;
        if (!decodeUTF8(text, i, cp)) return false;
        if (cp == 0) return false;
        if (cp >= 0xD800 && cp <= 0xDFFF) return false;  // UTF-16 surrogates
        if (cp >= 0xFDD0 && cp <= 0xFDEF) return false;  // noncharacters
        if ((cp & 0xFFFE) == 0xFFFE) return false;       // U+xFFFE, U+xFFFF
    }
    return true;
}

void DistributedNotificationCenter::deliver(const DistributedNotification& notification) {
    delivered_.fetch_add(1, std::memory_order_relaxed);
    std::vector<std::shared_ptr<Registration>> targets;
    {
        std::lock_guard lock(mutex_);
        for (const auto& r : registrations_) {
            if ((r->name.empty() || r->name == notification.name) && (!r->object || *r->object == notification.object))
                targets.push_back(r);
        }
    }
    for (const auto& r : targets) {
        if (r->removed.load(std::memory_order_acquire)) continue;  // removed since the snapshot
        try {
            r->callback(notification);
        } catch (const std::exception& e) {
            platformLogFormat("Cross-process notification %@: an observer failed: %@", notification.name, e.what());
        } catch (...) {
            platformLogFormat("Cross-process notification %@: an observer failed", notification.name);
        }
    }
}

void DistributedNotificationCenter::deliverLater(DistributedNotification notification) {
    loop_.post([weak = weak_from_this(), notification = std::move(notification)] {
        if (auto self = weak.lock()) self->deliver(notification);
    });
}

std::shared_ptr<DistributedNotificationCenter> DistributedNotificationCenter::makeLocal(RunLoop& deliveryLoop) {
    return std::make_shared<LocalDistributedNotificationCenter>(deliveryLoop);
}

InstalledPort<DistributedNotificationCenter>& DistributedNotificationCenter::slot() {
    // Never destroyed, so that late callers (and static objects ending at
    // exit) still find the centre.
    static auto* s = new InstalledPort<DistributedNotificationCenter>(&choose);
    return *s;
}

std::shared_ptr<DistributedNotificationCenter> DistributedNotificationCenter::defaultCenter() { return slot().get(); }

void DistributedNotificationCenter::install(std::shared_ptr<DistributedNotificationCenter> center) {
    // The old centre goes outside the lock: a backend's teardown may wait.
    slot().install(std::move(center));
}

std::string DistributedNotificationCenter::choiceReport() { return backendChoiceFor(detail::kNotificationPort.name); }

ScopedDistributedNotificationCenter::ScopedDistributedNotificationCenter(
    std::shared_ptr<DistributedNotificationCenter> center)
    : ScopedPort<DistributedNotificationCenter>(DistributedNotificationCenter::slot(), std::move(center)) {}

}  // namespace qrl
