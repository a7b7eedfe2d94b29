// `RoutineInstance`: one live routine. Runs the plug-in's routine code on a thread of its own, waits
// for the user's continue between steps, guards the routine's parameters and results, and ends the
// routine exactly once, whichever way the end comes (completion, abort, failure, deletion).
//
// Ownership: the routine manager owns each instance (in its entry, beside the routine object); REST
// requests may hold an instance for the duration of one request (RoutineManager::AcquireInstance), so
// the destructor runs on whichever thread lets go last.
//
// Threads:
//   - the creating thread runs the constructor and Start(), and waits in Start() for the first continue
//     unless the type skips start parameters (also released by Abort, deletion and clearing);
//   - the runner runs Run, each continue callback and the end job, one at a time, in order;
//   - the completion-wait thread "NyRoutInst.Wt" polls every 100 ms until the routine is ready for
//     completion or aborted;
//   - client threads call Continue, Abort, the getters and the lock operations, from anywhere.
// Locks, in the order they may be taken:
//   1. `lock`, the runtime's re-entrant instance lock: guards the state transitions, the parameter and
//      result publication and the client locks (held by clients across calls between LockParams and
//      UnlockParams, LockResults and UnlockResults). The updated event is raised with it held when
//      results are set and when written parameters are unlocked (clients read the new values there).
//   2. `fieldsMutex` guards the four text fields; `callbackMutex` the continue and completion callbacks;
//      `startMutex` the two semaphores; `waitThreadMutex` the completion-wait thread's holder;
//      `runnerMutex` the runner's holder. None of these is held while calling routine code or raising
//      an event, and none is taken under another.
// `stopMutex` serializes the stop of the routine's code (StopCode, the destructor): it is held while
// that stop waits for the end, the threads and the instance lock, and nothing that routine code or an
// event handler calls takes it.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "NyApi/AsyncRunner.h"
#include "NyApi/Event.h"
#include "NyApi/Mutex.h"
#include "NyApi/Object.h"
#include "NyCommon/IRoutineInstance.h"
#include "NyCore/Core.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRuntime/Runtime.h"

namespace Ny::Properties {
class Structure;
}

namespace NyRoutine::Internal {

class RoutineInstance;

// The IRoutineHost handed to routine code: forwards every call to its instance.
class RoutineInstanceHost : public IRoutineHost {
  public:
    RoutineInstanceHost(RoutineInstance* instanceIn, NyCore::Core* coreIn)
        : instance(instanceIn), core(coreIn) {}

    bool GetParams(Ny::Properties::Structure& params,
                   std::function<void(Ny::Properties::Structure&)> onChanged) override;
    void SetResults(const Ny::Properties::Structure* results) override;
    void SetTotalSteps(unsigned int total) override;
    void SetCurrentStep(unsigned int step, const std::string& info) override;
    void SetCurrentProgress(unsigned int progress) override;
    using IRoutineHost::SetHelpHtml;  // keeps the HelpMode overload visible beside the override
    void SetHelpHtml(const std::string& html, int mode) override;
    void SetHelpUrl(const std::string& url) override;
    bool WaitForContinue(std::function<void(IRoutineHost&)> onContinue) override;
    bool IsAborted() override;
    bool IsFailed() override;
    void SetFailedState(std::string details) override;
    void SetCompletionFx(std::function<void(IRoutineHost&, bool)> fx) override;
    void ReadyForCompletion() override;
    NyCore::Core* Core() override { return core; }

  private:
    RoutineInstance* instance;
    NyCore::Core* core;
};

class RoutineInstance : public NyCommon::IRoutineInstance {
  public:
    using RoutineState = NyCommon::RoutineState;

    // Throws Ny::Exception with the runtime's status when the lock or the thread object cannot be made.
    RoutineInstance(std::shared_ptr<IRoutine> routine, NyCore::Core* core, std::string id,
                    const RoutineInfo* typeInfo);
    // Ends the routine if it is still active, waits for its jobs, raises DeletedEvent once and frees the
    // results. Never throws.
    ~RoutineInstance() override;
    RoutineInstance(const RoutineInstance&) = delete;
    RoutineInstance& operator=(const RoutineInstance&) = delete;

    // Queues Run and, unless the type skips start parameters, waits for the first Continue (or an
    // abort, a deletion or a clear). A continue that came before (another request saw the routine
    // announced) counts as that first continue. Throws -1000 "Routine must be in READY state to start."
    // on a second start and on a routine that ended before it (aborted or removed: its code never runs,
    // see EndedBeforeStart), and "Routine Instance start failed." (nesting the cause) when it cannot
    // start (it may then be started again).
    void Start() override;
    // True once Start found the routine already ended; the routine stays as it ended. Thread-safe.
    bool EndedBeforeStart() const;
    // Resumes a routine that waits for feedback (any state is accepted); before Start, it is remembered
    // as the start's continue. Thread-safe.
    void Continue() override;
    // Ends the routine as aborted; running routine code learns it from IsAborted. Thread-safe. Passes
    // on an exception of the routine's completion callback (the routine has ended nonetheless).
    void Abort() override;

    RoutineState State() const override { return state.load(); }
    std::string StateDetails() const override;
    std::string HelpHtml() const override;
    std::string HelpUrl() const override;
    unsigned int TotalSteps() const override { return totalSteps.load(); }
    unsigned int CurrentStep() const override { return currentStep.load(); }
    std::string CurrentStepInfo() const override;
    unsigned int CurrentProgress() const override { return currentProgress.load(); }
    Ny::Event<std::string>& UpdatedEvent() override { return updatedEvent; }
    Ny::Event<std::string>& StepsUpdatedEvent() override { return stepsUpdatedEvent; }
    Ny::Event<std::string>& DeletedEvent() override { return deletedEvent; }

    // True on the routine's runner thread: its owner must not destroy it there (the destruction joins
    // that thread). The completion-wait thread never releases an instance: it only queues on the runner.
    bool IsOwnThread() const;

    const RoutineInfo* TypeInfo() const { return typeInfo; }
    const std::string& Id() const { return id; }
    void SetCompletionFx(std::function<void(IRoutineHost&, bool)> fx);
    void ReadyForCompletion() { readyForCompletion = true; }
    void SetFailedState(const std::string& details);

    // Reporting (routine code, through its host). Steps beyond the total and progress beyond 100 throw
    // -997; a new step or progress value raises StepsUpdatedEvent.
    void SetTotalSteps(unsigned int total) { totalSteps = total; }
    void SetCurrentStep(unsigned int step, const std::string& info);
    void SetCurrentProgress(unsigned int progress);
    void SetHelpHtml(std::string html, int mode);
    void SetHelpUrl(std::string url);

    // Client access to parameters and results. Each Lock takes the instance lock (waiting without
    // time-out) and must be followed by exactly one Unlock on the same thread, also on failure.
    // LockParams(true) returns null (lock held for reading) unless the parameters are open for writing.
    Ny::Properties::Structure* LockParams(bool forWriting);
    // After a write: calls the routine's change callback and raises UpdatedEvent, then releases.
    void UnlockParams();
    // Releases like UnlockParams, but reports no write (no change callback, no event) even when the
    // lock was taken for writing: for a writer that refused the request and stored nothing.
    void UnlockParamsUnwritten();
    // Whether the routine waits for parameters now: its code published parameters that are open for
    // writing, and it has not stopped (completed, aborted, failed, ending or being deleted). Taken
    // under the instance lock; a caller that holds the lock (LockParams) may act on the answer before
    // anything can change it. Thread-safe.
    bool AcceptsParams() const;
    const Ny::Properties::Structure* LockResults();
    void UnlockResults();

    // Lets a creating caller waiting in Start go (it then returns normally). Used by the manager when
    // the routine is removed or cleared; Abort calls it too. Thread-safe, idempotent.
    void ReleaseStartWaiter();
    // Ends the routine as its destruction would (aborted when still active, completion callback with
    // `true`), without waiting for its jobs. A removal calls it, so that a request still holding the
    // instance cannot keep the routine running past its deleted notification. Thread-safe, idempotent;
    // passes on an exception of the completion callback (the routine has ended nonetheless).
    void EndForRemoval();
    // After the routine was ended (EndForRemoval or Abort): waits until none of its code runs or can run
    // any more. Waits for its end to be over (a completion callback running on another thread included),
    // for the completion-wait thread and for the runner's job in progress; drops the jobs still queued,
    // runs no later job, and closes the parameters to writers (waiting for a writer in progress, whose
    // change callback is routine code). A holder of the instance may still call it; nothing of the
    // routine runs for it. Returns false at once, doing nothing, on the routine's own runner thread: the
    // job that calls it is routine code that cannot be waited for from inside. Thread-safe, idempotent;
    // never throws (a failure is logged).
    bool StopCode() noexcept;

  private:
    friend class RoutineInstanceHost;

    bool GetParams(Ny::Properties::Structure& params, std::function<void(Ny::Properties::Structure&)> fx);
    void SetResults(const Ny::Properties::Structure* results);
    bool WaitForContinue(std::function<void(IRoutineHost&)> fx);
    bool IsAborted() const { return aborted.load(); }
    bool IsFailed() const { return state.load() == RoutineState::Failed; }

    void RunCallbackWrapper(IRoutineHost& host);
    void ContinueCallbackWrapper(IRoutineHost& host, std::function<void(IRoutineHost&)>& callback);
    void WaitForCompletion();
    void StartWaitThread();
    static NyRt::Status WaitingForCompletionThreadFx(void* instance);
    void EndRoutine();
    void Completed();
    void Fail(const std::string& details);
    // Ends the routine Failed after its code threw something that is not a std::exception; the caller
    // rethrows it.
    void FailForeign();
    // Undoes a start that failed, so that it may be tried again, and throws the failure (nested).
    [[noreturn]] void FailStart(const std::exception& cause);
    bool HasContinueFx() const;
    bool HasCompletionFx() const;
    void OnUpdated();
    void OnStepsUpdated();
    void OnDeleted();
    // The destructor's steps. Each catches and logs its own failures.
    bool EndAndWaitForEnd() noexcept;  // false when ending failed (then no deleted event)
    // Waits for an end that has begun to be over; once only. Throws what the runtime throws.
    void WaitForEndLocked() NY_REQUIRES(stopMutex);
    // Joins the completion-wait thread and stops the runner; later jobs are dropped. Once only.
    void StopJobsLocked() noexcept NY_REQUIRES(stopMutex);
    // Queues a job on the runner, or drops it once the runner has stopped.
    void Queue(std::function<void()> job);
    void RaiseDeletedGuarded() noexcept;
    void FreeResultsGuarded() noexcept;

    const std::uint32_t maxProgress;
    std::unique_ptr<RoutineInstanceHost> host;
    std::shared_ptr<IRoutine> routine;
    const RoutineInfo* typeInfo;
    std::unique_ptr<Ny::AsyncRunner> runner NY_GUARDED_BY(runnerMutex);  // empty once stopped
    std::function<void(Ny::Properties::Structure&)> paramsFx;            // guarded by lock
    std::function<void(IRoutineHost&)> continueFx NY_GUARDED_BY(callbackMutex);
    std::function<void(IRoutineHost&, bool)> completionFx NY_GUARDED_BY(callbackMutex);
    Ny::Object<NyRt::Thread> waitThread NY_GUARDED_BY(waitThreadMutex);
    const std::string id;
    Ny::Properties::Structure* params = nullptr;  // guarded by lock
    std::atomic<bool> paramsLocked{false};        // written under lock; read before entering it (log hint)
    std::atomic<bool> paramsWriting{false};       // written under lock; read before entering it (log hint)
    bool paramsEditable = false;                  // guarded by lock
    std::atomic<bool> startParamsReceived{false};
    std::atomic<bool> runFinished{false};
    std::atomic<bool> readyForCompletion{false};
    std::atomic<bool> completionDone{false};
    const Ny::Properties::Structure* results = nullptr;  // guarded by lock
    std::atomic<bool> resultsLocked{false};  // written under lock; read before entering it (log hint)
    std::atomic<RoutineState> state{RoutineState::Ready};  // changed under lock, read anywhere
    std::string stateDetails NY_GUARDED_BY(fieldsMutex);
    std::string helpHtml NY_GUARDED_BY(fieldsMutex);
    std::string helpUrl NY_GUARDED_BY(fieldsMutex);
    std::atomic<bool> aborted{false};  // set under lock, read anywhere
    std::atomic<bool> deleting{false};
    std::atomic<std::uint32_t> totalSteps{0};
    std::atomic<std::uint32_t> currentStep{0};
    std::string currentStepInfo NY_GUARDED_BY(fieldsMutex);
    std::atomic<std::uint32_t> currentProgress{0};
    Ny::Object<NyRt::Semaphore> startSemaphore NY_GUARDED_BY(startMutex);
    Ny::Object<NyRt::Semaphore> completionSemaphore NY_GUARDED_BY(startMutex);
    Ny::Object<NyRt::Lock> lock;
    std::atomic<std::int32_t> ended{0};  // 0 -> 1 once, by EndRoutine
    Ny::Event<std::string> updatedEvent;
    Ny::Event<std::string> stepsUpdatedEvent;
    Ny::Event<std::string> deletedEvent;

    // Leaf locks: none is taken under another, and none is held while routine code runs or an event is
    // raised. `lock` (the runtime's re-entrant lock above) may be held when they are taken.
    mutable Ny::Mutex fieldsMutex;    // the four text fields
    mutable Ny::Mutex callbackMutex;  // the continue and completion callbacks
    mutable Ny::Mutex startMutex;     // the two semaphores, startReleased, startBegun and an early continue
    Ny::Mutex waitThreadMutex;        // the completion-wait thread's holder
    mutable Ny::Mutex runnerMutex;    // the runner's holder; held while queuing (the runner's is a leaf)
    Ny::Mutex stopMutex;              // the stop of the routine's code (see the header comment)
    bool endWaited NY_GUARDED_BY(stopMutex) = false;       // the end was waited for
    bool jobsStopped NY_GUARDED_BY(stopMutex) = false;     // the threads are joined: no routine code runs
    bool startReleased NY_GUARDED_BY(startMutex) = false;  // no caller may wait in Start any more
    bool startBegun NY_GUARDED_BY(startMutex) = false;     // Start was called (once only)
    bool endedBeforeStart NY_GUARDED_BY(startMutex) = false;
};

// Holds the instance's parameter lock for its scope: LockParams on construction, UnlockParams on
// Release or destruction. Release passes on what the unlock throws (a written value the routine's
// change callback refuses); the destructor logs it instead. One thread, not copyable.
class ParamsAccess {
  public:
    ParamsAccess(RoutineInstance& instance, bool forWriting);
    ~ParamsAccess();
    ParamsAccess(const ParamsAccess&) = delete;
    ParamsAccess& operator=(const ParamsAccess&) = delete;

    // The parameters; null when asked for writing while they are closed, or when the routine has none.
    Ny::Properties::Structure* Get() const { return params; }
    void Release();
    // Releases without reporting a write (RoutineInstance::UnlockParamsUnwritten). Never throws.
    void ReleaseUnwritten() noexcept;

  private:
    RoutineInstance* instance;  // null once released
    Ny::Properties::Structure* params;
};

// Holds the instance's result lock for its scope (LockResults ... UnlockResults).
class ResultsAccess {
  public:
    explicit ResultsAccess(RoutineInstance& instance);
    ~ResultsAccess();
    ResultsAccess(const ResultsAccess&) = delete;
    ResultsAccess& operator=(const ResultsAccess&) = delete;

    const Ny::Properties::Structure* Get() const { return results; }

  private:
    RoutineInstance* instance;
    const Ny::Properties::Structure* results;
};

}  // namespace NyRoutine::Internal
