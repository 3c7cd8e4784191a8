#include "qrl/foundation/BackendChooser.h"

#include <algorithm>
#include <cstdlib>
#include <map>
#include <mutex>

namespace qrl {

namespace {

struct Registry {
    std::mutex mutex;
    std::map<std::string, std::string, std::less<>> requests;  // port -> name
    std::vector<BackendChoice> choices;                        // latest per port, first-chosen order
};

// Never destroyed: ports are chosen and reported from static destructors too.
Registry& registry() {
    static auto* r = new Registry;
    return *r;
}

std::string environment(std::string_view variable) {
    const char* value = std::getenv(std::string(variable).c_str());
    return value ? std::string(value) : std::string();
}

}  // namespace

std::string BackendChoice::reasons() const {
    std::string out;
    const auto add = [&](const std::string& part) { out += (out.empty() ? "" : "; ") + part; };
    for (const auto& note : notes) add(note);
    for (const auto& [name, why] : refused) add(name + ": " + why);
    return out;
}

std::string BackendChoice::describe() const {
    std::string out = chosen.empty() ? std::string("nothing") : chosen;
    const std::string why = reasons();
    if (!named.empty() && named == chosen && why.empty()) return out + " (named)";
    if (!why.empty()) out += " (" + why + ")";
    return out;
}

void requestBackend(std::string_view port, std::string_view name) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    if (name.empty()) {
        if (auto it = r.requests.find(port); it != r.requests.end()) r.requests.erase(it);
    } else {
        r.requests[std::string(port)] = std::string(name);
    }
}

std::string requestedBackend(std::string_view port) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    const auto it = r.requests.find(port);
    return it == r.requests.end() ? std::string() : it->second;
}

std::string backendChoiceReport() {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    std::string out;
    for (const auto& c : r.choices) out += (out.empty() ? "" : "\n") + c.port + ": " + c.describe();
    return out;
}

std::string backendChoiceFor(std::string_view port) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    for (const auto& c : r.choices)
        if (c.port == port) return c.describe();
    return {};
}

namespace detail {

std::string backendNameFor(const BackendPort& port, std::string& source) {
    if (std::string name = requestedBackend(port.name); !name.empty()) {
        source = "request";
        return name;
    }
    if (std::string name = environment(port.variable); !name.empty()) {
        source = std::string(port.variable);
        return name;
    }
    if (std::string name = environment("QRL_PLATFORM"); !name.empty()) {
        source = "QRL_PLATFORM";
        return name;
    }
    source.clear();
    return {};
}

void recordBackendChoice(const BackendChoice& choice) {
    Registry& r = registry();
    std::lock_guard lock(r.mutex);
    const auto it = std::find_if(r.choices.begin(), r.choices.end(),
                                 [&](const BackendChoice& c) { return c.port == choice.port; });
    if (it == r.choices.end()) {
        r.choices.push_back(choice);
    } else {
        *it = choice;
    }
}

}  // namespace detail

}  // namespace qrl
