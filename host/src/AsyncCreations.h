// `AsyncCreations`: creations whose client asked not to be held (`Prefer: respond-async`).
//
// A creation waits inside the library until the routine's first continue, which may be minutes away.
// For such a client the creation runs on a thread of its own; the request is answered as soon as the
// routine exists (its created notification) or the creation ended, whichever comes first, and the thread
// goes on waiting for the continue exactly as the request would have.
//
// Bounded: at most `maxRunning` creations at once (the routine limit keeps real ones to one; the rest are
// refusals that end at once), beyond which `Run` refuses. Threads that finished are joined by the next
// `Run` and by `JoinAll`.
//
// Ownership and lifetime: owned by the host service. The owner releases waiting creations (by clearing
// every routine) before `JoinAll` or destruction, which wait for every thread. Thread-safe.
#pragma once

#include <cstddef>
#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <thread>

#include "NyApi/Mutex.h"
#include "NyRest/Resource.h"
#include "NyRest/ResourceRouter.h"

namespace NyHost {

class AsyncCreations {
  public:
    using CreatedFx = std::function<void(const NyRest::CreateResult&)>;
    // Runs the creation; calls the given function when the routine exists.
    using Creation = std::function<NyRest::Response(const CreatedFx& onCreated)>;

    // What `Run` gives back: the routine as soon as it exists, or the creation's own reply when it ended
    // before (a refusal, a failure, or a routine that does not wait).
    struct Outcome {
        std::optional<NyRest::CreateResult> created;
        NyRest::Response finished;
    };

    explicit AsyncCreations(std::size_t maxRunning);
    ~AsyncCreations();
    AsyncCreations(const AsyncCreations&) = delete;
    AsyncCreations& operator=(const AsyncCreations&) = delete;

    // Starts `creation` on a thread of its own and waits until the routine exists or the creation ended.
    // Null when `maxRunning` creations run already. Never throws but std::system_error when no thread
    // can be started.
    std::optional<Outcome> Run(Creation creation) NY_EXCLUDES(mutex);
    // Waits for every creation thread to end.
    void JoinAll() NY_EXCLUDES(mutex);
    std::size_t Running() const NY_EXCLUDES(mutex);

  private:
    struct Task;

    void JoinFinished() NY_EXCLUDES(mutex);

    const std::size_t maxRunning;
    // Guards the task list; taken alone (a task's own lock is never taken under it).
    mutable Ny::Mutex mutex;
    std::list<std::shared_ptr<Task>> tasks NY_GUARDED_BY(mutex);
};

}  // namespace NyHost
