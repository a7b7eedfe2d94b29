#include "NyRuntime/Runtime.h"

#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <condition_variable>
#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

namespace NyRt {

namespace {

std::chrono::microseconds ToDuration(std::uint64_t us) {
    return std::chrono::microseconds(static_cast<std::int64_t>(us));
}

// The calling thread's bound on waits without a time-out (see BoundedWaits), and whether one gave up.
thread_local std::uint64_t waitLimitUs = NoTimeout;
thread_local bool waitGaveUp = false;
thread_local unsigned boundedScopes = 0;  // BoundedWaits alive on this thread

// A wait asked without a time-out: for ever, unless the thread bounds such waits. False when it gave up.
template <class Predicate>
bool WaitWithoutTimeout(std::condition_variable& condition, std::unique_lock<std::mutex>& guard,
                        Predicate ready) {
    if (waitLimitUs == NoTimeout) {
        condition.wait(guard, ready);
        return true;
    }
    if (condition.wait_for(guard, ToDuration(waitLimitUs), ready)) {
        return true;
    }
    waitGaveUp = true;
    return false;
}

}  // namespace

BoundedWaits::BoundedWaits(std::uint64_t limitUs) : previousLimit(waitLimitUs), previousGaveUp(waitGaveUp) {
    waitLimitUs = limitUs;
    waitGaveUp = false;
    ++boundedScopes;
}

BoundedWaits::~BoundedWaits() {
    waitLimitUs = previousLimit;
    --boundedScopes;
    // Told to the enclosing scope, if any; outside every scope nothing has given up.
    waitGaveUp = boundedScopes > 0 && (previousGaveUp || waitGaveUp);
}

bool BoundedWaits::GaveUp() const {
    return waitGaveUp;
}

bool WaitsGaveUp() {
    return waitGaveUp;
}

// A re-entrant lock with a timed enter, built on one mutex and one condition variable so that the
// owner and depth are always consistent with the waiters' view.
struct Lock {
    std::mutex mutex;
    std::condition_variable released;
    std::thread::id owner;  // guarded by mutex
    unsigned depth = 0;     // guarded by mutex
};

Status LockCreate(Lock** lock) {
    if (lock == nullptr) {
        return InvalidArgument;
    }
    *lock = new Lock;
    return Ok;
}

Status LockDestroy(Lock* lock) {
    if (lock == nullptr) {
        return InvalidArgument;
    }
    delete lock;
    return Ok;
}

Status LockEnter(Lock* lock, std::uint64_t timeoutUs) {
    if (lock == nullptr) {
        return InvalidArgument;
    }
    const auto self = std::this_thread::get_id();
    std::unique_lock guard(lock->mutex);
    if (lock->depth > 0 && lock->owner == self) {
        ++lock->depth;
        return Ok;
    }
    const auto isFree = [lock] { return lock->depth == 0; };
    if (timeoutUs == NoTimeout) {
        if (!WaitWithoutTimeout(lock->released, guard, isFree)) {
            return TimedOut;
        }
    } else if (!lock->released.wait_for(guard, ToDuration(timeoutUs), isFree)) {
        return TimedOut;
    }
    lock->owner = self;
    lock->depth = 1;
    return Ok;
}

Status LockExit(Lock* lock) {
    if (lock == nullptr) {
        return InvalidArgument;
    }
    std::unique_lock guard(lock->mutex);
    if (lock->depth == 0 || lock->owner != std::this_thread::get_id()) {
        return NotOwner;
    }
    if (--lock->depth == 0) {
        lock->owner = {};
        guard.unlock();
        lock->released.notify_one();
    }
    return Ok;
}

struct Semaphore {
    std::mutex mutex;
    std::condition_variable posted;
    std::uint64_t count = 0;  // guarded by mutex
};

Status SemaphoreCreate(Semaphore** semaphore, unsigned int initialCount) {
    if (semaphore == nullptr) {
        return InvalidArgument;
    }
    *semaphore = new Semaphore;
    (*semaphore)->count = initialCount;
    return Ok;
}

Status SemaphoreDestroy(Semaphore* semaphore) {
    if (semaphore == nullptr) {
        return InvalidArgument;
    }
    delete semaphore;
    return Ok;
}

Status SemaphorePost(Semaphore* semaphore) {
    if (semaphore == nullptr) {
        return InvalidArgument;
    }
    {
        std::lock_guard guard(semaphore->mutex);
        ++semaphore->count;
    }
    semaphore->posted.notify_one();
    return Ok;
}

Status SemaphoreWait(Semaphore* semaphore, std::uint64_t timeoutUs) {
    if (semaphore == nullptr) {
        return InvalidArgument;
    }
    std::unique_lock guard(semaphore->mutex);
    const auto available = [semaphore] { return semaphore->count > 0; };
    if (timeoutUs == NoTimeout) {
        if (!WaitWithoutTimeout(semaphore->posted, guard, available)) {
            return TimedOut;
        }
    } else if (!semaphore->posted.wait_for(guard, ToDuration(timeoutUs), available)) {
        return TimedOut;
    }
    --semaphore->count;
    return Ok;
}

// One thread object may run several times, one run at a time. `mutex` guards every member; the
// std::thread itself is joined outside the mutex so that a long join never blocks `ThreadStart` of
// another caller longer than needed.
struct Thread {
    std::mutex mutex;
    std::condition_variable finished;
    std::string name;       // guarded by mutex
    std::thread worker;     // guarded by mutex
    bool running = false;   // guarded by mutex: the thread function has not returned yet
    Status exitStatus = 0;  // guarded by mutex
};

Status ThreadCreate(Thread** thread) {
    if (thread == nullptr) {
        return InvalidArgument;
    }
    *thread = new Thread;
    return Ok;
}

Status ThreadSetName(Thread* thread, const char* name) {
    if (thread == nullptr || name == nullptr) {
        return InvalidArgument;
    }
    std::lock_guard guard(thread->mutex);
    thread->name = name;
    return Ok;
}

Status ThreadStart(Thread* thread, ThreadFx fx, void* argument) {
    if (thread == nullptr || fx == nullptr) {
        return InvalidArgument;
    }
    std::unique_lock guard(thread->mutex);
    if (thread->running) {
        return Busy;
    }
    if (thread->worker.joinable()) {
        thread->worker.join();  // the previous run has returned; joining it is immediate
    }
    thread->running = true;
    std::string name = thread->name;
    try {
        thread->worker = std::thread([thread, fx, argument, name = std::move(name)] {
            if (!name.empty()) {
                // The kernel limits names to 15 characters.
                pthread_setname_np(pthread_self(), name.substr(0, 15).c_str());
            }
            const Status status = fx(argument);
            {
                std::lock_guard done(thread->mutex);
                thread->exitStatus = status;
                thread->running = false;
            }
            thread->finished.notify_all();
        });
    } catch (const std::system_error&) {
        thread->running = false;
        return SystemError;
    }
    return Ok;
}

Status ThreadJoin(Thread* thread, std::uint64_t timeoutUs, Status* exitStatus) {
    if (thread == nullptr) {
        return InvalidArgument;
    }
    std::unique_lock guard(thread->mutex);
    const auto done = [thread] { return !thread->running; };
    if (timeoutUs == NoTimeout) {
        if (!WaitWithoutTimeout(thread->finished, guard, done)) {
            return TimedOut;
        }
    } else if (!thread->finished.wait_for(guard, ToDuration(timeoutUs), done)) {
        return TimedOut;
    }
    std::thread worker = std::move(thread->worker);
    if (exitStatus != nullptr) {
        *exitStatus = thread->exitStatus;
    }
    guard.unlock();
    if (worker.joinable()) {
        worker.join();
    }
    return Ok;
}

Status ThreadDestroy(Thread* thread) {
    if (thread == nullptr) {
        return InvalidArgument;
    }
    const Status status = ThreadJoin(thread);
    delete thread;
    return status;
}

std::uint32_t CurrentThreadId() {
    thread_local const auto id = static_cast<std::uint32_t>(::syscall(SYS_gettid));
    return id;
}

void Sleep(std::uint64_t microseconds) {
    std::this_thread::sleep_for(ToDuration(microseconds));
}

namespace {

std::mutex logSinkMutex;
std::shared_ptr<const std::function<void(std::string_view)>> logSink;  // guarded by logSinkMutex

}  // namespace

std::string FormatV(const char* format, va_list args) {
    va_list copy;
    va_copy(copy, args);
    const int length = std::vsnprintf(nullptr, 0, format, copy);
    va_end(copy);
    if (length <= 0) {
        return {};
    }
    std::string text(static_cast<size_t>(length), '\0');
    va_copy(copy, args);
    std::vsnprintf(text.data(), text.size() + 1, format, copy);
    va_end(copy);
    return text;
}

std::function<void(std::string_view)> SetLogSink(std::function<void(std::string_view)> sink) {
    auto next =
        sink ? std::make_shared<const std::function<void(std::string_view)>>(std::move(sink)) : nullptr;
    std::lock_guard guard(logSinkMutex);
    auto previous = std::exchange(logSink, std::move(next));
    return previous ? *previous : std::function<void(std::string_view)>{};
}

void Log(const char* format, ...) {
    std::shared_ptr<const std::function<void(std::string_view)>> sink;
    {
        std::lock_guard guard(logSinkMutex);
        sink = logSink;
    }
    if (!sink || format == nullptr) {
        return;
    }
    va_list args;
    va_start(args, format);
    const std::string text = FormatV(format, args);
    va_end(args);
    (*sink)(text);
}

}  // namespace NyRt
