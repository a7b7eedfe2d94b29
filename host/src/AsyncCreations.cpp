#include "AsyncCreations.h"

#include <atomic>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "NyApi/Logging.h"

namespace NyHost {

struct AsyncCreations::Task {
    // Guards what the creation has told so far; taken by the creation thread and the waiting request.
    Ny::Mutex mutex;
    Ny::CondVar changed;
    std::optional<NyRest::CreateResult> created NY_GUARDED_BY(mutex);
    std::optional<NyRest::Response> finished NY_GUARDED_BY(mutex);
    std::atomic<bool> done{false};  // the thread is about to return: joining it cannot block for long
    std::thread thread;
};

namespace {

NyRest::Response FailedCreation(const char* message) {
    NyRest::Response response;
    response.status = 500;
    response.body = {{"status", 0}, {"message", message}, {"causes", nlohmann::json::array()}};
    return response;
}

}  // namespace

AsyncCreations::AsyncCreations(std::size_t maxRunningIn) : maxRunning(maxRunningIn) {}

AsyncCreations::~AsyncCreations() {
    JoinAll();
}

std::optional<AsyncCreations::Outcome> AsyncCreations::Run(Creation creation) {
    JoinFinished();
    auto task = std::make_shared<Task>();
    {
        Ny::MutexLock guard(mutex);
        if (tasks.size() >= maxRunning) {
            return std::nullopt;
        }
        // The thread holds the task by name, so the list may drop it while the creation still runs.
        task->thread = std::thread([task, creation = std::move(creation)] {
            const auto onCreated = [&task](const NyRest::CreateResult& result) {
                Ny::MutexLock taskGuard(task->mutex);
                if (!task->created) {
                    task->created = result;
                }
                task->changed.NotifyAll();
            };
            NyRest::Response reply;
            try {
                reply = creation(onCreated);
            } catch (const std::exception& e) {
                NY_LOG(Ny::Logging::Level::CaughtFailure, "A creation failed: %s", e.what());
                reply = FailedCreation("The creation failed.");
            } catch (...) {
                reply = FailedCreation("The creation failed with an unknown error.");
            }
            bool answeredEarly = false;
            {
                Ny::MutexLock taskGuard(task->mutex);
                answeredEarly = task->created.has_value();
                task->finished = reply;
                task->changed.NotifyAll();
            }
            if (answeredEarly && reply.status >= 400) {
                // The client was told 202 already; what became of its routine shows in its document and
                // the events, and the operator reads it here.
                NY_LOG(Ny::Logging::Level::Notice, "A creation answered early ended with %1$d: %2$s",
                       reply.status, reply.body.value("message", std::string()).c_str());
            }
            task->done = true;
        });
        tasks.push_back(task);
    }
    Ny::MutexLock taskGuard(task->mutex);
    while (!task->created && !task->finished) {
        task->changed.Wait(task->mutex);
    }
    Outcome outcome;
    outcome.created = task->created;
    if (!outcome.created) {
        outcome.finished = *task->finished;
    }
    return outcome;
}

void AsyncCreations::JoinFinished() {
    std::vector<std::shared_ptr<Task>> finished;
    {
        Ny::MutexLock guard(mutex);
        for (auto it = tasks.begin(); it != tasks.end();) {
            if ((*it)->done) {
                finished.push_back(std::move(*it));
                it = tasks.erase(it);
            } else {
                ++it;
            }
        }
    }
    for (const auto& task : finished) {
        task->thread.join();
    }
}

void AsyncCreations::JoinAll() {
    for (;;) {
        std::list<std::shared_ptr<Task>> all;
        {
            Ny::MutexLock guard(mutex);
            all.swap(tasks);
        }
        if (all.empty()) {
            return;
        }
        for (const auto& task : all) {
            task->thread.join();
        }
    }
}

std::size_t AsyncCreations::Running() const {
    Ny::MutexLock guard(mutex);
    std::size_t running = 0;
    for (const auto& task : tasks) {
        running += task->done ? 0 : 1;
    }
    return running;
}

}  // namespace NyHost
