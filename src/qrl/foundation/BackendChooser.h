// The one way a port's backend is chosen: an ordered list of entries (a name,
// how the entry may be used, a check that says why it cannot work here, a
// factory), a name asked for by the program or the environment, and a report
// of what was tried and why each entry was refused. Each subsystem keeps its
// lists in one file (VideoBackends.cpp, LoggingBackends.cpp, ...).
#pragma once

#include <cstddef>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <vector>

namespace qrl {

enum class BackendUse {
    Automatic,   // tried in list order when no name is given
    WhenNamed,   // only when named (simulated backends)
    LastResort,  // when named, or when every automatic entry was refused
};

// One backend of a port. `Handle` is what the factory gives (a shared or
// unique pointer); `Args` are what the port's users pass to every factory
// (the display to capture, a handler...). Entries are plain constants: the
// check and the factory are functions without state.
template <class Handle, class... Args>
struct BackendEntry {
    std::string_view name;
    BackendUse use = BackendUse::Automatic;
    // Why this backend cannot work here, cheaply (nothing is opened), or ""
    // when it may; null when there is nothing to check before trying.
    std::string (*unavailable)(Args... args) = nullptr;
    // Makes the backend; an empty handle, with the reason at *whyNot, when
    // it cannot. `whyNot` is never null.
    Handle (*make)(Args... args, std::string* whyNot) = nullptr;
};

// What one choice did, for reports and logs.
struct BackendChoice {
    std::string port;        // "displays", "renderers", "notifications", ...
    std::string chosen;      // the entry made, or "" when none could be
    std::string namedBy;     // "request", "QRL_DISPLAY_PLATFORM", "QRL_PLATFORM", or "" when unnamed
    std::string named;       // the name asked for, or ""
    std::vector<std::pair<std::string, std::string>> refused;  // entry name, why, in the order tried
    std::vector<std::string> notes;                           // e.g. a name that no entry has

    // "x11", "sim (named)", "none (x11: DISPLAY is not set)": the chosen
    // entry, then "(named)" or the refusals and notes in parentheses.
    std::string describe() const;
    // The refusals and notes alone, joined with "; " ("" when there are none).
    std::string reasons() const;
};

// A port as the chooser sees it: its name in reports and requests, and the
// environment variable that names its backend ("QRL_DISPLAY_PLATFORM";
// QRL_PLATFORM applies to every port).
struct BackendPort {
    std::string_view name;
    std::string_view variable;
};

// Programmatic requests: a program asks for a port's backend by name before
// (or instead of) the environment. An empty name withdraws the request.
// Thread-safe. Subsystems offer their own spelling (VideoPlatform::request).
void requestBackend(std::string_view port, std::string_view name);
std::string requestedBackend(std::string_view port);

// Every choice made in this process, the latest per port, in the order the
// ports were first chosen; one line per port: "<port>: <describe()>".
std::string backendChoiceReport();
// The latest choice of one port, as describe() gives it; "" before any.
std::string backendChoiceFor(std::string_view port);

namespace detail {

// The name for `port` and where it came from: a request, then the port's
// variable, then QRL_PLATFORM. `source` gets "request", the variable or
// "QRL_PLATFORM"; both empty when nothing names the port.
std::string backendNameFor(const BackendPort& port, std::string& source);
void recordBackendChoice(const BackendChoice& choice);

}  // namespace detail

// Walks `entries` for `port` and answers the first handle made, or an empty
// one when none could be (the caller decides what that means). The rules:
// - a name (request, variable, QRL_PLATFORM) that an entry has: that entry
//   alone, whatever its use; if it is refused, the last-resort entries;
// - a name that no entry has: noted (and, unless it came from QRL_PLATFORM,
//   which names backends for every port, reported to the caller through
//   the choice's notes), then as unnamed;
// - unnamed: the automatic entries in order, then the last-resort ones.
// The choice is recorded for backendChoiceReport() and written to *choice.
template <class Handle, class... Args>
Handle chooseBackend(const BackendPort& port, std::span<const BackendEntry<Handle, Args...>> entries,
                     BackendChoice* choice, std::type_identity_t<Args>... args) {
    BackendChoice local;
    BackendChoice& c = choice ? *choice : local;
    c = BackendChoice{};
    c.port = std::string(port.name);
    std::string source;
    const std::string name = detail::backendNameFor(port, source);

    const auto attempt = [&](const BackendEntry<Handle, Args...>& entry) -> Handle {
        std::string why;
        if (entry.unavailable) why = entry.unavailable(args...);
        if (why.empty()) {
            Handle made = entry.make(args..., &why);
            if (made) {
                c.chosen = std::string(entry.name);
                return made;
            }
            if (why.empty()) why = "could not be made";
        }
        c.refused.emplace_back(std::string(entry.name), std::move(why));
        return Handle{};
    };
    const auto walk = [&](BackendUse use) -> Handle {
        for (const auto& entry : entries) {
            if (entry.use != use) continue;
            if (Handle made = attempt(entry)) return made;
        }
        return Handle{};
    };

    Handle made{};
    bool tried = false;
    if (!name.empty()) {
        for (const auto& entry : entries) {
            if (entry.name != name) continue;
            c.named = name;
            c.namedBy = source;
            tried = true;
            made = attempt(entry);
            if (!made && entry.use != BackendUse::LastResort) made = walk(BackendUse::LastResort);
            break;
        }
        if (!tried && source != "QRL_PLATFORM")
            c.notes.push_back("no backend named \"" + name + "\"");
    }
    if (!tried) {
        made = walk(BackendUse::Automatic);
        if (!made) made = walk(BackendUse::LastResort);
    }
    detail::recordBackendChoice(c);
    return made;
}

template <class Handle, class... Args, std::size_t N>
Handle chooseBackend(const BackendPort& port, const BackendEntry<Handle, Args...> (&entries)[N], BackendChoice* choice,
                     std::type_identity_t<Args>... args) {
    return chooseBackend<Handle, Args...>(port, std::span<const BackendEntry<Handle, Args...>>(entries, N), choice,
                                          args...);
}

}  // namespace qrl
