// qrl::RunLoop: a thread's event loop: work posted from any thread, timers
// and cancellable delayed calls on the installed clock, and file-descriptor
// sources.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

namespace qrl {

// A loop belongs to one thread: the main loop to the main thread (the
// process's initial thread), the loop of current() to the thread that asked
// for it, any other loop to the first thread that runs it. Running a loop on
// another thread throws qrl::Exception("RunLoop", ...). Everything else may be
// called from any thread; additions from other threads wake the loop.
//
// One pass of the loop waits for a file descriptor, a post or the next timer,
// then runs, in this order: posted work (first in, first out), callbacks of
// ready file descriptors, and timers that are due, earliest deadline first
// (ties in the order they were added). Work added during a pass waits for the
// next pass. Callbacks may post, add and cancel anything, themselves
// included, and may run the loop again (nested). An exception thrown by a
// callback is caught, reported in one line on the platform log (standard
// error), and the loop goes on.
//
// Time. Deadlines are ticks of the installed clock (qrl::installedClock()).
// With the real clock the loop sleeps in ppoll until the next deadline. With
// a SimulatedClock installed, real time plays no part in timers:
// runUntil(deadline) fires timers in deadline order, moving the clock to each
// deadline in turn and then to the target, so "0.25 s later" is exact and
// instant; runOnce() never waits for a timer (file descriptors are polled
// with timeout 0) and runs what is due now. Timers keep the ticks of the
// clock they were set on: installing another clock leaves pending deadlines
// meaningless.
class RunLoop {
public:
    using Token = uint64_t;  // 0 is never a valid token
    using Callback = std::function<void()>;
    using FdCallback = std::function<void(int fd, short revents)>;

    // Throws qrl::Exception("RunLoop", ...) when the wake-up descriptor
    // cannot be made.
    RunLoop();
    // Pending work is dropped unrun. The loop must not be running.
    ~RunLoop();
    RunLoop(const RunLoop&) = delete;
    RunLoop& operator=(const RunLoop&) = delete;

    // The main thread's loop; made on first use and kept for the life of the
    // process.
    static RunLoop& main();
    // The calling thread's loop: main() on the main thread, else one made for
    // this thread on first use and destroyed when the thread ends (which must
    // not happen while other threads still post to it).
    static RunLoop& current();
    // Whether the caller is the process's initial thread.
    static bool isMainThread();
    // Whether this loop belongs to the calling thread (an unbound loop
    // belongs to no thread yet).
    bool isCurrent() const;

    // Runs `fn` on the loop's thread in the next pass. Throws
    // qrl::Exception("RunLoop", ...) for an empty callable.
    void post(Callback fn);

    // A timer firing `seconds` from now, and then every `seconds` when
    // `repeats` (missed fires are skipped, not bunched). Throws
    // qrl::Exception("RunLoop", ...) for a time that is not a finite number,
    // a repeating interval that is not positive, or an empty callable. A
    // negative one-shot delay counts as 0.
    Token addTimer(double seconds, bool repeats, Callback fn);
    // A one-shot call `seconds` from now, tagged with `target` (an identity,
    // never dereferenced) for cancelPreviousPerformRequestsWithTarget.
    Token performAfterDelay(double seconds, Callback fn, const void* target = nullptr);
    // Cancels a timer or delayed call; false when it is unknown or has already
    // fired (a repeating timer cancelled from its own callback fires no more).
    bool cancel(Token token);
    // Cancels every pending delayed call made with this target; a null target
    // matches nothing. Answers the number cancelled.
    std::size_t cancelPreviousPerformRequestsWithTarget(const void* target);

    // Calls `callback(fd, revents)` in each pass in which poll reports one of
    // `events` (POLLIN, POLLOUT...; errors and hang-ups are always reported).
    // A descriptor that poll finds invalid (POLLNVAL) is reported to its
    // callback once and then removed, with a line on the platform log. The
    // descriptor stays the caller's: it is never closed here. Throws
    // qrl::Exception("RunLoop", ...) for a negative descriptor or an empty
    // callable.
    Token addFdSource(int fd, short events, FdCallback callback);
    bool removeFdSource(Token token);

    // Runs passes until stop(). Under a simulated clock, a loop with pending
    // timers re-checks the clock at least every millisecond of real time.
    void run();
    // Makes the innermost run(), runUntil() or runFor() return after its
    // current pass; when none is running, the next one returns at once.
    void stop();
    // Runs until the installed clock reaches `deadlineTicks`: true then,
    // false when stop() ended it first.
    bool runUntil(uint64_t deadlineTicks);
    // runUntil(now + seconds on the installed clock).
    bool runFor(double seconds);
    // Runs until `done()` answers true (checked before the first pass and
    // after each), for at most `realTimeLimitSeconds` of real time. Does not
    // move a simulated clock: it waits for posts and descriptors, checking
    // `done` at least every 10 ms. True when `done` answered true; false on
    // the limit or stop().
    bool runUntil(const std::function<bool()>& done, double realTimeLimitSeconds);
    // One pass, waiting at most `timeoutSeconds` of real time (never, under a
    // simulated clock) for something to do. Answers whether any callback ran.
    bool runOnce(double timeoutSeconds = 0.0);

    // Timers and delayed calls pending, and the earliest deadline among them.
    std::size_t timerCount() const;
    std::optional<uint64_t> nextTimerDeadline() const;

private:
    struct Impl;
    bool pass(std::optional<std::chrono::nanoseconds> maxWait);
    void bindToCallingThread();
    void wake();

    std::unique_ptr<Impl> impl_;
};

}  // namespace qrl
