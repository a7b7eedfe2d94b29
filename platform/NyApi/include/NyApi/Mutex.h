// `Ny::Mutex`, `Ny::MutexLock` and `Ny::CondVar`: a plain mutex, its scoped holder and a condition
// variable, annotated so that clang's thread-safety analysis (-Wthread-safety) checks every rule a
// comment would otherwise only state: which members a mutex guards (`NY_GUARDED_BY`), which helpers
// must be called with it held (`NY_REQUIRES`, name ending in `Locked`), and which must not
// (`NY_EXCLUDES`). Under g++ the annotations compile to nothing and the classes cost what std::mutex
// costs.
//
// Waiting: `CondVar::Wait*` take the mutex the caller holds. They have no predicate form on purpose:
// a predicate lambda reads guarded members where the analysis cannot see the lock, so callers loop
// (`while (!ready) wake.Wait(mutex);`) in code where it can.
//
// The runtime's re-entrant lock (`NyRt::Lock`) is a different thing: it is the routine's lock that
// the design holds across calls, not a lock of our own bookkeeping.
#pragma once

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <shared_mutex>

#if defined(__clang__)
#define NY_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define NY_THREAD_ANNOTATION(x)
#endif

#define NY_CAPABILITY(x) NY_THREAD_ANNOTATION(capability(x))
#define NY_SCOPED_CAPABILITY NY_THREAD_ANNOTATION(scoped_lockable)
#define NY_GUARDED_BY(x) NY_THREAD_ANNOTATION(guarded_by(x))
#define NY_PT_GUARDED_BY(x) NY_THREAD_ANNOTATION(pt_guarded_by(x))
#define NY_ACQUIRED_BEFORE(...) NY_THREAD_ANNOTATION(acquired_before(__VA_ARGS__))
#define NY_ACQUIRED_AFTER(...) NY_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define NY_REQUIRES(...) NY_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define NY_REQUIRES_SHARED(...) NY_THREAD_ANNOTATION(requires_shared_capability(__VA_ARGS__))
#define NY_ACQUIRE_SHARED(...) NY_THREAD_ANNOTATION(acquire_shared_capability(__VA_ARGS__))
#define NY_RELEASE_SHARED(...) NY_THREAD_ANNOTATION(release_shared_capability(__VA_ARGS__))
#define NY_RELEASE_GENERIC(...) NY_THREAD_ANNOTATION(release_generic_capability(__VA_ARGS__))
#define NY_ACQUIRE(...) NY_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define NY_RELEASE(...) NY_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define NY_TRY_ACQUIRE(...) NY_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define NY_EXCLUDES(...) NY_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define NY_ASSERT_CAPABILITY(x) NY_THREAD_ANNOTATION(assert_capability(x))
#define NY_RETURN_CAPABILITY(x) NY_THREAD_ANNOTATION(lock_returned(x))
// Only where the analysis cannot follow (say why next to it).
#define NY_NO_THREAD_SAFETY_ANALYSIS NY_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace Ny {

class CondVar;

// Not re-entrant. Thread-safe, as a mutex is.
class NY_CAPABILITY("mutex") Mutex {
  public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    void Lock() NY_ACQUIRE() { mutex.lock(); }
    void Unlock() NY_RELEASE() { mutex.unlock(); }
    bool TryLock() NY_TRY_ACQUIRE(true) { return mutex.try_lock(); }
    // Tells the analysis that the caller holds it where it cannot see that (no run-time check).
    void AssertHeld() const NY_ASSERT_CAPABILITY(this) {}

  private:
    friend class CondVar;
    std::mutex mutex;
};

// Holds a `Ny::Mutex` for its scope. `Unlock`/`Lock` let a scope step out of the lock for a call that
// must not run under it (an event, a join) and come back.
class NY_SCOPED_CAPABILITY MutexLock {
  public:
    explicit MutexLock(Mutex& mutexIn) NY_ACQUIRE(mutexIn) : mutex(mutexIn) { mutex.Lock(); }
    ~MutexLock() NY_RELEASE() {
        if (held) {
            mutex.Unlock();
        }
    }
    MutexLock(const MutexLock&) = delete;
    MutexLock& operator=(const MutexLock&) = delete;

    void Unlock() NY_RELEASE() {
        mutex.Unlock();
        held = false;
    }
    void Lock() NY_ACQUIRE() {
        mutex.Lock();
        held = true;
    }

  private:
    Mutex& mutex;
    bool held = true;
};

// A re-entrant mutex, for the rare lock that is held on purpose while handlers run that may come back
// on the same thread. The analysis sees each holder's scope; the re-entry across calls it cannot see.
class NY_CAPABILITY("recursive mutex") RecursiveMutex {
  public:
    RecursiveMutex() = default;
    RecursiveMutex(const RecursiveMutex&) = delete;
    RecursiveMutex& operator=(const RecursiveMutex&) = delete;

    void Lock() NY_ACQUIRE() { mutex.lock(); }
    void Unlock() NY_RELEASE() { mutex.unlock(); }

  private:
    std::recursive_mutex mutex;
};

// Holds a `Ny::RecursiveMutex` for its scope.
class NY_SCOPED_CAPABILITY RecursiveLock {
  public:
    explicit RecursiveLock(RecursiveMutex& mutexIn) NY_ACQUIRE(mutexIn) : mutex(mutexIn) { mutex.Lock(); }
    ~RecursiveLock() NY_RELEASE() { mutex.Unlock(); }
    RecursiveLock(const RecursiveLock&) = delete;
    RecursiveLock& operator=(const RecursiveLock&) = delete;

  private:
    RecursiveMutex& mutex;
};

// A reader-writer mutex: many readers or one writer. Not re-entrant.
class NY_CAPABILITY("shared mutex") SharedMutex {
  public:
    SharedMutex() = default;
    SharedMutex(const SharedMutex&) = delete;
    SharedMutex& operator=(const SharedMutex&) = delete;

    void Lock() NY_ACQUIRE() { mutex.lock(); }
    void Unlock() NY_RELEASE() { mutex.unlock(); }
    void LockShared() NY_ACQUIRE_SHARED() { mutex.lock_shared(); }
    void UnlockShared() NY_RELEASE_SHARED() { mutex.unlock_shared(); }

  private:
    std::shared_mutex mutex;
};

// Holds a `Ny::SharedMutex` for writing for its scope.
class NY_SCOPED_CAPABILITY WriterLock {
  public:
    explicit WriterLock(SharedMutex& mutexIn) NY_ACQUIRE(mutexIn) : mutex(mutexIn) { mutex.Lock(); }
    ~WriterLock() NY_RELEASE() { mutex.Unlock(); }
    WriterLock(const WriterLock&) = delete;
    WriterLock& operator=(const WriterLock&) = delete;

  private:
    SharedMutex& mutex;
};

// Holds a `Ny::SharedMutex` for reading for its scope.
class NY_SCOPED_CAPABILITY ReaderLock {
  public:
    explicit ReaderLock(SharedMutex& mutexIn) NY_ACQUIRE_SHARED(mutexIn) : mutex(mutexIn) {
        mutex.LockShared();
    }
    ~ReaderLock() NY_RELEASE_GENERIC() { mutex.UnlockShared(); }
    ReaderLock(const ReaderLock&) = delete;
    ReaderLock& operator=(const ReaderLock&) = delete;

  private:
    SharedMutex& mutex;
};

// A condition variable over `Ny::Mutex`. Every wait may wake spuriously: callers loop on their condition.
// Notify with the mutex held whenever a waiter may destroy the object once its condition holds (a
// destructor waiting for calls to leave): otherwise the notification can reach a destroyed variable.
class CondVar {
  public:
    void Wait(Mutex& mutex) NY_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.mutex, std::adopt_lock);
        condition.wait(held);
        held.release();  // the caller's holder still owns it
    }
    // False when the deadline passed.
    template <typename Clock, typename Duration>
    bool WaitUntil(Mutex& mutex, const std::chrono::time_point<Clock, Duration>& deadline)
        NY_REQUIRES(mutex) {
        std::unique_lock<std::mutex> held(mutex.mutex, std::adopt_lock);
        const bool woken = condition.wait_until(held, deadline) == std::cv_status::no_timeout;
        held.release();
        return woken;
    }
    template <typename Rep, typename Period>
    bool WaitFor(Mutex& mutex, const std::chrono::duration<Rep, Period>& timeout) NY_REQUIRES(mutex) {
        return WaitUntil(mutex, std::chrono::steady_clock::now() + timeout);
    }
    void NotifyOne() { condition.notify_one(); }
    void NotifyAll() { condition.notify_all(); }

  private:
    std::condition_variable condition;
};

}  // namespace Ny
