// `Ny::AsyncRunner`: runs queued jobs one at a time, in order, on a thread of its own.
//
// `Run` queues and returns at once. The runner owns its thread: the thread starts with a job and ends
// after a short idle spell (IdleTimeout), so that thousands of idle owners (routines waiting for a
// user) hold no thread; the next job starts it again. The runner joins it, on restart or destruction.
// Destruction waits for the job in progress to return and drops the jobs still queued behind it (they are
// destroyed without running): an owner that is going away must not have its code called back while it dies. A
// job that throws is logged (caught-failure level) and the runner goes on with the next job. Thread-safe,
// except that a job must not destroy its runner.
#pragma once

#include <chrono>
#include <deque>
#include <functional>
#include <thread>

#include "NyApi/Mutex.h"

namespace Ny {

class AsyncRunner {
  public:
    AsyncRunner() = default;
    ~AsyncRunner();
    AsyncRunner(const AsyncRunner&) = delete;
    AsyncRunner& operator=(const AsyncRunner&) = delete;

    // Queues `job`. After destruction has begun the job is dropped.
    void Run(std::function<void()> job);

    // True on the runner's own thread (for assertions and diagnostics).
    bool IsRunnerThread() const;

    static constexpr std::chrono::milliseconds IdleTimeout{200};

  private:
    void Loop();

    mutable Mutex mutex;  // guards the queue, stopping and the worker; a leaf, never held while a job runs
    CondVar wake;         // a job was queued or stopping was set
    std::deque<std::function<void()>> queue NY_GUARDED_BY(mutex);
    bool stopping NY_GUARDED_BY(mutex) = false;
    bool workerRunning NY_GUARDED_BY(mutex) = false;  // the thread has not left its loop
    std::thread worker NY_GUARDED_BY(mutex);          // started by Run, joined by Run or ~AsyncRunner
};

}  // namespace Ny
