#include "qrl/foundation/RunLoop.h"

#include <poll.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <exception>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "qrl/foundation/Clock.h"
#include "qrl/foundation/Exception.h"
#include "qrl/foundation/PlatformLog.h"

namespace qrl {

namespace {

using Token = RunLoop::Token;

pid_t currentTid() {
    static thread_local const pid_t tid = static_cast<pid_t>(::syscall(SYS_gettid));
    return tid;
}

struct Timer {
    uint64_t deadline;
    uint64_t interval;  // 0 for a one-shot timer
    std::shared_ptr<RunLoop::Callback> callback;
    const void* target;  // delayed calls only
    bool delayedCall;
};

struct FdSource {
    int fd;
    short events;
    std::shared_ptr<RunLoop::FdCallback> callback;
};

void report(const char* what, const char* reason) noexcept {
    try {
        platformLog(std::string("RunLoop: ") + what + " threw an exception: " + reason);
    } catch (...) {
    }
}

template <class F>
void guarded(const char* what, F&& f) {
    try {
        f();
    } catch (const std::exception& e) {
        report(what, e.what());
    } catch (...) {
        report(what, "(not a std::exception)");
    }
}

uint64_t saturatingAdd(uint64_t a, uint64_t b) {
    uint64_t sum;
    return __builtin_add_overflow(a, b, &sum) ? UINT64_MAX : sum;
}

// Seconds (finite, not negative) in ticks of a clock of `frequency`.
uint64_t secondsToTicks(double seconds, double frequency) {
    const double ticks = std::round(seconds * frequency);
    if (!(ticks < 18446744073709551615.0)) return UINT64_MAX;
    return static_cast<uint64_t>(ticks);
}

int64_t ticksToNanoseconds(uint64_t ticks, double frequency) {
    const double ns = std::ceil(static_cast<double>(ticks) / frequency * 1e9);
    if (!(ns < 9.2e18)) return INT64_MAX;
    return static_cast<int64_t>(ns);
}

void checkFinite(double seconds, const char* operation) {
    if (!std::isfinite(seconds))
        Exception::raise("RunLoop", std::string(operation) + " needs a finite number of seconds, got " +
                                        std::to_string(seconds));
}

std::chrono::nanoseconds realTimeout(double seconds, const char* operation) {
    if (std::isnan(seconds))
        Exception::raise("RunLoop", std::string(operation) + " needs a number of seconds, got NaN");
    if (seconds <= 0.0) return std::chrono::nanoseconds(0);
    if (seconds >= 9.0e9) return std::chrono::nanoseconds(INT64_MAX / 2);  // ~146 years: forever
    return std::chrono::nanoseconds(static_cast<int64_t>(seconds * 1e9));
}

}  // namespace

struct RunLoop::Impl {
    mutable std::mutex mutex;
    std::vector<Callback> posted;
    std::unordered_map<Token, Timer> timers;
    std::set<std::pair<uint64_t, Token>> schedule;  // (deadline, token): fire order
    std::map<Token, FdSource> fds;
    Token nextToken = 1;

    int wakeFd = -1;
    std::atomic<bool> wakePending{false};
    std::atomic<bool> stopRequested{false};
    std::atomic<pid_t> owner{0};
    bool isMain = false;

    Token addTimerLocked(uint64_t deadline, uint64_t interval, Callback fn, const void* target, bool delayed) {
        const Token token = nextToken++;
        timers.emplace(token, Timer{deadline, interval, std::make_shared<Callback>(std::move(fn)), target, delayed});
        schedule.emplace(deadline, token);
        return token;
    }
};

RunLoop::RunLoop() : impl_(std::make_unique<Impl>()) {
    impl_->wakeFd = ::eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    if (impl_->wakeFd < 0)
        Exception::raise("RunLoop", std::string("cannot make the wake-up descriptor: ") + std::strerror(errno));
}

RunLoop::~RunLoop() { ::close(impl_->wakeFd); }

RunLoop& RunLoop::main() {
    // Never destroyed: objects that post to the main loop from their own
    // destructors at exit must still find it.
    static RunLoop* const loop = [] {
        auto* l = new RunLoop;
        l->impl_->owner.store(::getpid());
        l->impl_->isMain = true;
        return l;
    }();
    return *loop;
}

RunLoop& RunLoop::current() {
    if (isMainThread()) return main();
    static thread_local std::unique_ptr<RunLoop> loop;
    if (!loop) {
        loop = std::make_unique<RunLoop>();
        loop->impl_->owner.store(currentTid());
    }
    return *loop;
}

bool RunLoop::isMainThread() { return currentTid() == ::getpid(); }

bool RunLoop::isCurrent() const { return impl_->owner.load() == currentTid(); }

void RunLoop::bindToCallingThread() {
    const pid_t me = currentTid();
    pid_t expected = 0;
    if (impl_->owner.compare_exchange_strong(expected, me) || expected == me) return;
    Exception::raise("RunLoop", impl_->isMain ? "the main run loop runs only on the main thread"
                                              : "a run loop runs only on the thread it belongs to");
}

void RunLoop::wake() {
    if (!impl_->wakePending.exchange(true)) {
        const uint64_t one = 1;
        // Cannot fail short of counter overflow; a lost wake-up only delays.
        [[maybe_unused]] ssize_t n = ::write(impl_->wakeFd, &one, sizeof one);
    }
}

void RunLoop::post(Callback fn) {
    if (!fn) Exception::raise("RunLoop", "post() needs a callable, got an empty one");
    {
        std::lock_guard lock(impl_->mutex);
        impl_->posted.push_back(std::move(fn));
    }
    wake();
}

RunLoop::Token RunLoop::addTimer(double seconds, bool repeats, Callback fn) {
    checkFinite(seconds, "addTimer()");
    if (!fn) Exception::raise("RunLoop", "addTimer() needs a callable, got an empty one");
    if (repeats && !(seconds > 0.0))
        Exception::raise("RunLoop", "a repeating timer needs a positive interval, got " + std::to_string(seconds));
    Clock& clock = installedClock();
    const uint64_t ticks = secondsToTicks(std::max(seconds, 0.0), clock.frequency());
    Token token;
    {
        std::lock_guard lock(impl_->mutex);
        token = impl_->addTimerLocked(saturatingAdd(clock.now(), ticks), repeats ? std::max<uint64_t>(ticks, 1) : 0,
                                      std::move(fn), nullptr, false);
    }
    if (!isCurrent()) wake();
    return token;
}

RunLoop::Token RunLoop::performAfterDelay(double seconds, Callback fn, const void* target) {
    checkFinite(seconds, "performAfterDelay()");
    if (!fn) Exception::raise("RunLoop", "performAfterDelay() needs a callable, got an empty one");
    Clock& clock = installedClock();
    const uint64_t ticks = secondsToTicks(std::max(seconds, 0.0), clock.frequency());
    Token token;
    {
        std::lock_guard lock(impl_->mutex);
        token = impl_->addTimerLocked(saturatingAdd(clock.now(), ticks), 0, std::move(fn), target, true);
    }
    if (!isCurrent()) wake();
    return token;
}

bool RunLoop::cancel(Token token) {
    std::shared_ptr<Callback> doomed;  // released after the lock
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->timers.find(token);
    if (it == impl_->timers.end()) return false;
    impl_->schedule.erase({it->second.deadline, token});
    doomed = std::move(it->second.callback);
    impl_->timers.erase(it);
    return true;
}

std::size_t RunLoop::cancelPreviousPerformRequestsWithTarget(const void* target) {
    if (!target) return 0;
    std::vector<std::shared_ptr<Callback>> doomed;
    std::lock_guard lock(impl_->mutex);
    for (auto it = impl_->timers.begin(); it != impl_->timers.end();) {
        if (it->second.delayedCall && it->second.target == target) {
            impl_->schedule.erase({it->second.deadline, it->first});
            doomed.push_back(std::move(it->second.callback));
            it = impl_->timers.erase(it);
        } else {
            ++it;
        }
    }
    return doomed.size();
}

RunLoop::Token RunLoop::addFdSource(int fd, short events, FdCallback callback) {
    if (fd < 0) Exception::raise("RunLoop", "addFdSource() needs a file descriptor, got " + std::to_string(fd));
    if (!callback) Exception::raise("RunLoop", "addFdSource() needs a callable, got an empty one");
    Token token;
    {
        std::lock_guard lock(impl_->mutex);
        token = impl_->nextToken++;
        impl_->fds.emplace(token, FdSource{fd, events, std::make_shared<FdCallback>(std::move(callback))});
    }
    if (!isCurrent()) wake();
    return token;
}

bool RunLoop::removeFdSource(Token token) {
    std::shared_ptr<FdCallback> doomed;
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->fds.find(token);
    if (it == impl_->fds.end()) return false;
    doomed = std::move(it->second.callback);
    impl_->fds.erase(it);
    return true;
}

std::size_t RunLoop::timerCount() const {
    std::lock_guard lock(impl_->mutex);
    return impl_->timers.size();
}

std::optional<uint64_t> RunLoop::nextTimerDeadline() const {
    std::lock_guard lock(impl_->mutex);
    if (impl_->schedule.empty()) return std::nullopt;
    return impl_->schedule.begin()->first;
}

bool RunLoop::pass(std::optional<std::chrono::nanoseconds> maxWait) {
    Impl& s = *impl_;
    std::vector<pollfd> pfds;
    std::vector<Token> fdTokens;
    int64_t waitNs = maxWait ? maxWait->count() : -1;  // -1: no limit
    {
        std::lock_guard lock(s.mutex);
        pfds.reserve(s.fds.size() + 1);
        pfds.push_back({s.wakeFd, POLLIN, 0});
        for (const auto& [token, source] : s.fds) {
            pfds.push_back({source.fd, source.events, 0});
            fdTokens.push_back(token);
        }
        if (!s.posted.empty()) waitNs = 0;
        if (!s.schedule.empty() && !installedClock().isVirtual()) {
            Clock& clock = installedClock();
            const uint64_t now = clock.now();
            const uint64_t deadline = s.schedule.begin()->first;
            const int64_t untilDeadline = deadline <= now ? 0 : ticksToNanoseconds(deadline - now, clock.frequency());
            if (waitNs < 0 || untilDeadline < waitNs) waitNs = untilDeadline;
        }
    }

    timespec timeout{};
    if (waitNs >= 0) {
        timeout.tv_sec = static_cast<time_t>(waitNs / 1'000'000'000);
        timeout.tv_nsec = static_cast<long>(waitNs % 1'000'000'000);
    }
    if (::ppoll(pfds.data(), pfds.size(), waitNs >= 0 ? &timeout : nullptr, nullptr) < 0) {
        for (pollfd& p : pfds) p.revents = 0;  // EINTR: a signal; treat as nothing ready
    }
    if (pfds[0].revents & POLLIN) {
        s.wakePending.store(false);
        uint64_t count;
        [[maybe_unused]] ssize_t n = ::read(s.wakeFd, &count, sizeof count);
    }

    bool ran = false;

    std::vector<Callback> work;
    {
        std::lock_guard lock(s.mutex);
        work.swap(s.posted);
    }
    for (Callback& fn : work) {
        guarded("posted work", fn);
        ran = true;
    }
    work.clear();

    for (std::size_t i = 1; i < pfds.size(); ++i) {
        const short revents = pfds[i].revents;
        if (revents == 0) continue;
        std::shared_ptr<FdCallback> callback;
        {
            std::lock_guard lock(s.mutex);
            auto it = s.fds.find(fdTokens[i - 1]);
            if (it == s.fds.end()) continue;  // removed during this pass
            callback = it->second.callback;
            if (revents & POLLNVAL) s.fds.erase(it);
        }
        if (revents & POLLNVAL) {
            try {
                platformLog("RunLoop: file descriptor " + std::to_string(pfds[i].fd) +
                            " is not open; its source is removed");
            } catch (...) {
            }
        }
        guarded("a file descriptor callback", [&] { (*callback)(pfds[i].fd, revents); });
        ran = true;
    }

    const uint64_t now = installedClock().now();
    std::vector<Token> due;
    {
        std::lock_guard lock(s.mutex);
        for (const auto& [deadline, token] : s.schedule) {
            if (deadline > now) break;
            due.push_back(token);
        }
    }
    for (Token token : due) {
        std::shared_ptr<Callback> callback;
        {
            std::lock_guard lock(s.mutex);
            auto it = s.timers.find(token);
            if (it == s.timers.end()) continue;  // cancelled by an earlier callback
            Timer& timer = it->second;
            callback = timer.callback;
            s.schedule.erase({timer.deadline, token});
            if (timer.interval != 0) {
                // Next multiple of the interval after now: late fires are
                // skipped, not delivered in a burst.
                const uint64_t periods = (now - timer.deadline) / timer.interval + 1;
                uint64_t step;
                timer.deadline = __builtin_mul_overflow(periods, timer.interval, &step)
                                     ? UINT64_MAX
                                     : saturatingAdd(timer.deadline, step);
                s.schedule.emplace(timer.deadline, token);
            } else {
                s.timers.erase(it);
            }
        }
        guarded("a timer callback", *callback);
        ran = true;
    }
    return ran;
}

void RunLoop::run() {
    bindToCallingThread();
    for (;;) {
        if (impl_->stopRequested.exchange(false)) return;
        if (installedClock().isVirtual() && timerCount() > 0) pass(std::chrono::milliseconds(1));
        else pass(std::nullopt);
    }
}

void RunLoop::stop() {
    impl_->stopRequested.store(true);
    wake();
}

bool RunLoop::runUntil(uint64_t deadlineTicks) {
    bindToCallingThread();
    for (;;) {
        if (impl_->stopRequested.exchange(false)) return false;
        if (Clock& virtualClock = installedClock(); virtualClock.isVirtual()) {
            pass(std::chrono::nanoseconds(0));
            if (impl_->stopRequested.exchange(false)) return false;
            const std::optional<uint64_t> next = nextTimerDeadline();
            const uint64_t now = virtualClock.now();
            if (next && *next <= deadlineTicks) {
                if (*next > now) virtualClock.advanceTo(*next);
                continue;
            }
            if (now < deadlineTicks) {
                virtualClock.advanceTo(deadlineTicks);
                continue;  // one more pass at the deadline itself
            }
            return true;
        }
        Clock& clock = installedClock();
        const uint64_t now = clock.now();
        const int64_t untilDeadline =
            deadlineTicks <= now ? 0 : ticksToNanoseconds(deadlineTicks - now, clock.frequency());
        pass(std::chrono::nanoseconds(untilDeadline));
        if (impl_->stopRequested.exchange(false)) return false;
        if (installedClock().now() >= deadlineTicks && !installedClock().isVirtual()) return true;
    }
}

bool RunLoop::runFor(double seconds) {
    checkFinite(seconds, "runFor()");
    Clock& clock = installedClock();
    return runUntil(saturatingAdd(clock.now(), secondsToTicks(std::max(seconds, 0.0), clock.frequency())));
}

bool RunLoop::runUntil(const std::function<bool()>& done, double realTimeLimitSeconds) {
    if (!done) Exception::raise("RunLoop", "runUntil() needs a predicate, got an empty one");
    const auto limit = realTimeout(realTimeLimitSeconds, "runUntil()");
    bindToCallingThread();
    if (done()) return true;
    const auto end = std::chrono::steady_clock::now() + limit;
    for (;;) {
        if (impl_->stopRequested.exchange(false)) return false;
        const auto remaining = end - std::chrono::steady_clock::now();
        if (remaining <= std::chrono::nanoseconds(0)) return false;
        pass(std::min<std::chrono::nanoseconds>(remaining, std::chrono::milliseconds(10)));
        if (done()) return true;
    }
}

bool RunLoop::runOnce(double timeoutSeconds) {
    const auto timeout = realTimeout(timeoutSeconds, "runOnce()");
    bindToCallingThread();
    if (installedClock().isVirtual()) return pass(std::chrono::nanoseconds(0));
    return pass(timeout);
}

}  // namespace qrl
