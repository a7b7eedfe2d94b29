#include "NyApi/AsyncRunner.h"

#include <exception>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"

namespace Ny {

AsyncRunner::~AsyncRunner() {
    std::deque<std::function<void()>> dropped;
    std::thread joining;  // once stopping is set, no Run starts a worker: this one is the last
    {
        MutexLock guard(mutex);
        stopping = true;
        dropped.swap(queue);
        joining = std::move(worker);
    }
    wake.NotifyAll();
    if (joining.joinable()) {
        joining.join();
    }
    // `dropped` goes here, outside the lock: destroying a job may release objects with destructors
    // of their own.
}

void AsyncRunner::Run(std::function<void()> job) {
    {
        MutexLock guard(mutex);
        if (stopping) {
            return;
        }
        queue.push_back(std::move(job));
        if (!workerRunning) {
            if (worker.joinable()) {
                worker.join();  // it has left its loop after an idle spell: the join is immediate
            }
            workerRunning = true;
            worker = std::thread([this] { Loop(); });
        }
    }
    wake.NotifyOne();
}

bool AsyncRunner::IsRunnerThread() const {
    MutexLock guard(mutex);
    return workerRunning && worker.get_id() == std::this_thread::get_id();
}

void AsyncRunner::Loop() {
    for (;;) {
        std::function<void()> job;
        {
            MutexLock guard(mutex);
            const auto idleUntil = std::chrono::steady_clock::now() + IdleTimeout;
            while (!stopping && queue.empty()) {
                if (!wake.WaitUntil(mutex, idleUntil) && !stopping && queue.empty()) {
                    workerRunning = false;  // idle: the next Run starts a new thread
                    return;
                }
            }
            if (stopping) {
                workerRunning = false;
                return;
            }
            job = std::move(queue.front());
            queue.pop_front();
        }
        try {
            job();
        } catch (const std::exception& e) {
            NY_LOG(Logging::Level::CaughtFailure, "AsyncRunner job exception: %s", e.what());
            Exception::LogException(e, 0);
            Exception::LogBackTrace(e);
        } catch (...) {
            NY_LOG(Logging::Level::CaughtFailure, "AsyncRunner job exception of unknown type");
        }
    }
}

}  // namespace Ny
