// The runtime library: locks, semaphores, threads, sleeping and a printf-style log, as a C-like API
// of opaque objects and integer statuses. Every call returns a status; 1 (`NyRt::Ok`) means success.
//
// Objects are created by the Create calls and freed by the matching Destroy call; the caller owns them
// (the API library's `Ny::Object` holder does that). All calls are thread-safe except destroying an
// object that another thread still uses. Durations are microseconds; `NyRt::NoTimeout` waits forever.
#pragma once

#include <cstdarg>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

namespace NyRt {

using Status = int;

inline constexpr Status Ok = 1;
inline constexpr Status InvalidArgument = -2;  // null object or argument
inline constexpr Status TimedOut = -3;         // a timed wait expired
inline constexpr Status NotOwner = -4;         // exit of a lock the caller does not hold
inline constexpr Status Busy = -5;             // start of a thread that is still running
inline constexpr Status SystemError = -6;      // the operating system refused (out of threads, ...)

inline constexpr std::uint64_t NoTimeout = UINT64_MAX;

struct Lock;
struct Semaphore;
struct Thread;

using ThreadFx = Status (*)(void* argument);

// Locks are re-entrant: the holding thread may enter again and must exit as often as it entered.
Status LockCreate(Lock** lock);
Status LockDestroy(Lock* lock);
Status LockEnter(Lock* lock, std::uint64_t timeoutUs = NoTimeout);
Status LockExit(Lock* lock);

// Counting semaphores.
Status SemaphoreCreate(Semaphore** semaphore, unsigned int initialCount);
Status SemaphoreDestroy(Semaphore* semaphore);
Status SemaphorePost(Semaphore* semaphore);
Status SemaphoreWait(Semaphore* semaphore, std::uint64_t timeoutUs = NoTimeout);

// Threads are created not started. A thread object can be started again once its previous run has
// returned (the earlier run is joined first); starting one that still runs returns `Busy`.
// Join of a thread that was never started returns at once with `Ok`. Destroy joins a running thread.
Status ThreadCreate(Thread** thread);
Status ThreadDestroy(Thread* thread);
Status ThreadSetName(Thread* thread, const char* name);
Status ThreadStart(Thread* thread, ThreadFx fx, void* argument);
// `exitStatus`, when given, receives the status the thread function returned (0 if never started).
Status ThreadJoin(Thread* thread, std::uint64_t timeoutUs = NoTimeout, Status* exitStatus = nullptr);

// Bounds, for the calling thread and as long as it lives, every wait the runtime would otherwise make
// without end (LockEnter, SemaphoreWait and ThreadJoin with NoTimeout) to `limitUs`: such a wait then
// returns TimedOut, and GaveUp() says so. For a thread that must not block on what other code holds (a
// network thread answering a read gives up and hands the request to a thread that may wait). Waits
// with a time-out of their own keep it. Scopes nest: the innermost limit holds until it ends, and an
// inner scope that gave up tells the outer one too.
class BoundedWaits {
  public:
    explicit BoundedWaits(std::uint64_t limitUs);
    ~BoundedWaits();
    BoundedWaits(const BoundedWaits&) = delete;
    BoundedWaits& operator=(const BoundedWaits&) = delete;

    // True once a wait of this scope (or of one nested in it) gave up.
    bool GaveUp() const;

  private:
    std::uint64_t previousLimit;
    bool previousGaveUp;
};

// True when a wait of the calling thread's innermost BoundedWaits scope (or one nested in it) gave up;
// false outside any scope. Lets code far from the scope tell a wait given up from a failure (and not
// report it as one).
bool WaitsGaveUp();

// A small, stable number for the calling thread (the kernel's thread id).
std::uint32_t CurrentThreadId();
void Sleep(std::uint64_t microseconds);

// The printf-style text of `format` and `args` (positional placeholders such as "%1$s" work). Does not
// consume `args`.
std::string FormatV(const char* format, va_list args);

// printf-style log line. Lines go to the sink set with SetLogSink; without one they are dropped.
void Log(const char* format, ...) __attribute__((format(printf, 1, 2)));
// Replaces the sink; returns the previous one. Thread-safe.
std::function<void(std::string_view)> SetLogSink(std::function<void(std::string_view)> sink);

}  // namespace NyRt
