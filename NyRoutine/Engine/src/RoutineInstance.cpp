#include "NyRoutine/Engine/RoutineInstance.h"

#include <cstring>
#include <exception>
#include <optional>
#include <utility>

#include "NyApi/Exception.h"
#include "NyApi/Locker.h"
#include "NyApi/Logging.h"

namespace NyRoutine::Internal {

namespace {
using Ny::Logging::Level::CaughtFailure;
using Ny::Logging::Level::Progress;
constexpr std::uint64_t CompletionPollUs = 100000;
constexpr const char* ForeignExceptionDetails =
    "Routine code threw an exception that is not a std::exception.";
}  // namespace

RoutineInstance::RoutineInstance(std::shared_ptr<IRoutine> routineIn, NyCore::Core* core, std::string idIn,
                                 const RoutineInfo* typeInfoIn)
    : maxProgress(100),
      routine(std::move(routineIn)),
      typeInfo(typeInfoIn),
      runner(std::make_unique<Ny::AsyncRunner>()),
      id(std::move(idIn)) {
    host = std::make_unique<RoutineInstanceHost>(this, core);
    NY_CHECK_RT(NyRt::LockCreate(lock.Out()));
    NY_CHECK_RT(NyRt::ThreadCreate(waitThread.Out()));
}

// ---------------------------------------------------------------------------------------------------
// Start, continue, abort

void RoutineInstance::Start() {
    {
        Ny::MutexLock guard(startMutex);
        if (startBegun) {
            throw NY_EXCEPTION(Ny::Status::Refused, "Routine must be in READY state to start.");
        }
        startBegun = true;
    }
    NY_LOG(Progress, "Routine [%s] started.", id.c_str());
    bool endedBefore = false;
    try {
        // `ended` is not set back to 0 here: an abort that came between the creation and this start
        // (another request saw the new routine) was the routine's one end.
        bool waitForStartParams = false;
        {
            Ny::MutexLock guard(startMutex);
            NY_CHECK_RT(NyRt::SemaphoreCreate(startSemaphore.Out(), 0));
            NY_CHECK_RT(NyRt::SemaphoreCreate(completionSemaphore.Out(), 0));
            // Aborted before this start (another request saw the new routine): its end found no
            // semaphore to post, and the destructor must not wait for a post that already happened.
            if (completionDone) {
                NY_CHECK_RT(NyRt::SemaphorePost(completionSemaphore.Get()));
            }
            // Ended before this start (aborted or removed): the routine stays as it ended and its code
            // never runs; the start's resources stay, as for a started routine.
            endedBefore = ended.load() != 0 || aborted.load();
            endedBeforeStart = endedBefore;
            // A routine removed between its creation and this start has nobody to continue it; an early
            // continue (startParamsReceived) was the start's continue already.
            waitForStartParams = !endedBefore && typeInfo != nullptr && !typeInfo->SkipStartParams() &&
                                 !startParamsReceived && !startReleased;
        }
        if (!endedBefore) {
            // Only from Ready: an abort that ends the routine from now on sets its final state.
            RoutineState expected = RoutineState::Ready;
            state.compare_exchange_strong(expected, RoutineState::Running);
            Queue([this] { RunCallbackWrapper(*host); });
        }
        if (waitForStartParams) {
            // Posted by the first Continue, by Abort, or when the manager removes or clears the routine;
            // the semaphore lives as long as the instance, which outlives this call (its caller holds it).
            NyRt::Semaphore* started = nullptr;
            {
                Ny::MutexLock guard(startMutex);
                started = startSemaphore.Get();
            }
            NY_CHECK_RT(NyRt::SemaphoreWait(started));
            startParamsReceived = true;
        }
    } catch (const std::exception& e) {
        FailStart(e);
    }
    if (endedBefore) {
        throw NY_EXCEPTION(Ny::Status::Refused, "Routine must be in READY state to start.");
    }
}

bool RoutineInstance::EndedBeforeStart() const {
    Ny::MutexLock guard(startMutex);
    return endedBeforeStart;
}

void RoutineInstance::FailStart(const std::exception& e) {
    {
        Ny::MutexLock guard(startMutex);
        completionSemaphore.Reset();
        startSemaphore.Reset();
        startBegun = false;
    }
    RoutineState expected = RoutineState::Running;
    state.compare_exchange_strong(expected, RoutineState::Ready);
    std::throw_with_nested(NY_EXCEPTION(Ny::StatusOf(e), "Routine Instance start failed."));
}

void RoutineInstance::Continue() {
    {
        // Before Start (the client saw the routine announced while its creation had not started it):
        // remembered as the start's continue, and Start does not wait. Under the mutex Start takes, so
        // that the continue is either remembered here or posted to the start's semaphore below.
        Ny::MutexLock guard(startMutex);
        if (!startBegun) {
            startParamsReceived = true;
            return;
        }
    }
    std::function<void(IRoutineHost&)> callback;
    {
        Ny::Locker locker(lock.Get());
        state = RoutineState::Running;
        paramsEditable = false;
        // The callback moves into its job rather than into a shared slot: a second continue may arrive
        // while the first callback still runs on the runner.
        if (!aborted) {
            Ny::MutexLock guard(callbackMutex);
            callback = std::move(continueFx);
            continueFx = nullptr;
        }
    }
    if (callback) {
        Queue([this, callback = std::move(callback)]() mutable { ContinueCallbackWrapper(*host, callback); });
    } else if (runFinished) {
        if (HasCompletionFx()) {
            StartWaitThread();
        } else {
            Completed();
        }
    }
    if (typeInfo != nullptr && !typeInfo->SkipStartParams() && !startParamsReceived) {
        Ny::MutexLock guard(startMutex);
        if (startSemaphore) {
            NY_CHECK_RT(NyRt::SemaphorePost(startSemaphore.Get()));
        }
    }
    OnUpdated();
}

void RoutineInstance::Abort() {
    NY_LOG(Progress, "Routine [%s] aborted.", id.c_str());
    {
        Ny::Locker locker(lock.Get());
        aborted = true;
    }
    // A creation still waiting for its first continue returns now, with the routine aborted.
    ReleaseStartWaiter();
    EndRoutine();
}

void RoutineInstance::ReleaseStartWaiter() {
    Ny::MutexLock guard(startMutex);
    if (startReleased) {
        return;
    }
    startReleased = true;
    if (startSemaphore && !startParamsReceived) {
        NyRt::SemaphorePost(startSemaphore.Get());
    }
}

// ---------------------------------------------------------------------------------------------------
// Jobs on the runner and the completion-wait thread

void RoutineInstance::RunCallbackWrapper(IRoutineHost& routineHost) {
    bool complete = false;
    try {
        routine->Run(routineHost);
        {
            Ny::Locker locker(lock.Get());
            runFinished = true;
        }
        if (HasContinueFx()) {
            return;
        }
        if (!HasCompletionFx()) {
            complete = true;
        } else {
            StartWaitThread();
        }
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "RoutineInstance::RunCallbackWrapper run exception: %s", e.what());
        Fail(e.what());
        Completed();
        return;
    } catch (...) {
        FailForeign();
        throw;
    }
    if (complete) {
        Completed();  // outside the guard: a failure here is the runner's to report
    }
}

void RoutineInstance::ContinueCallbackWrapper(IRoutineHost& routineHost,
                                              std::function<void(IRoutineHost&)>& callback) {
    if (callback && !aborted) {
        try {
            callback(routineHost);
            callback = nullptr;
        } catch (const std::exception& e) {
            NY_LOG(CaughtFailure, "RoutineInstance::ContinueCallbackWrapper callback exception: %s",
                   e.what());
            Fail(e.what());
            Completed();
            return;
        } catch (...) {
            FailForeign();
            throw;
        }
    }
    if (!HasContinueFx()) {
        WaitForCompletion();
    }
}

void RoutineInstance::WaitForCompletion() {
    if (!HasCompletionFx()) {
        Completed();
        return;
    }
    StartWaitThread();
}

void RoutineInstance::StartWaitThread() {
    Ny::MutexLock guard(waitThreadMutex);
    if (!waitThread) {
        return;  // the destructor has taken the thread object: nothing more to wait for
    }
    // A second start while the thread still polls is refused by the runtime (Busy) and ignored: the
    // running poll already covers it. After the thread returned, the object starts again.
    if (NyRt::ThreadSetName(waitThread.Get(), "NyRoutInst.Wt") == NyRt::Ok) {
        NyRt::ThreadStart(waitThread.Get(), &RoutineInstance::WaitingForCompletionThreadFx, this);
    }
}

NyRt::Status RoutineInstance::WaitingForCompletionThreadFx(void* instancePointer) {
    auto& self = *static_cast<RoutineInstance*>(instancePointer);
    if (self.HasCompletionFx() && !self.readyForCompletion) {
        for (;;) {
            NyRt::Sleep(CompletionPollUs);
            // Deletion counts as an abort here: the destructor joins this thread.
            if (self.aborted || self.deleting) {
                return Ny::Status::WaitAborted;
            }
            if (self.readyForCompletion) {
                break;
            }
        }
    }
    self.Queue([&self] {
        NY_LOG(Progress, "Routine [%s] completed successfully -- ending routine.", self.id.c_str());
        self.EndRoutine();
    });
    return NyRt::Ok;
}

void RoutineInstance::EndRoutine() {
    std::int32_t expected = 0;
    if (!ended.compare_exchange_strong(expected, 1)) {
        NY_LOG(Progress, "Attempted to end routine [%s], but it already ended.", id.c_str());
        return;
    }
    NY_LOG(Progress, "Ending routine [%s].", id.c_str());
    if (completionDone) {
        return;
    }
    std::function<void(IRoutineHost&, bool)> fx;
    {
        Ny::MutexLock guard(callbackMutex);
        fx = completionFx;
    }
    if (fx) {
        // A completion callback that throws must still let the routine end, or the destructor would
        // wait for the end forever: the routine fails, completes, and the caller gets the exception.
        try {
            // Routine code, also when an abort from a client thread ends the routine here.
            const Ny::Logging::RoutineScope scope(id);
            fx(*host, aborted);
        } catch (const std::exception& e) {
            Fail(std::string("Completion callback failed: ") + e.what());
            Completed();
            throw;
        } catch (...) {
            NY_LOG(CaughtFailure, "Routine [%s] threw an exception that is not a std::exception.",
                   id.c_str());
            Fail(std::string("Completion callback failed: ") + ForeignExceptionDetails);
            Completed();
            throw;
        }
    }
    Completed();
}

void RoutineInstance::Completed() {
    {
        Ny::Locker locker(lock.Get());
        if (state.load() != RoutineState::Failed) {
            state = aborted ? RoutineState::Aborted : RoutineState::Completed;
        }
    }
    if (deleting) {
        NY_LOG(Progress, "Routine [%s] is being deleted, so skip OnUpdated()", id.c_str());
    } else {
        OnUpdated();
    }
    {
        // Under the same mutex as the semaphore's creation in Start: either Start sees completionDone or
        // this sees the semaphore.
        Ny::MutexLock guard(startMutex);
        if (completionSemaphore) {
            NY_CHECK_RT(NyRt::SemaphorePost(completionSemaphore.Get()));
        }
        completionDone = true;
    }
    NY_LOG(Progress, "Routine [%s] completed.", id.c_str());
}

void RoutineInstance::FailForeign() {
    // Nothing of such an exception can be told, so the log names the routine; the caller passes the
    // exception on to the runner, but the routine ends first as with a std::exception, or it would stay
    // Running, hold its place and keep its end waited for forever.
    NY_LOG(CaughtFailure, "Routine [%s] threw an exception that is not a std::exception.", id.c_str());
    Fail(ForeignExceptionDetails);
    Completed();
}

void RoutineInstance::Fail(const std::string& details) {
    Ny::Locker locker(lock.Get());
    {
        Ny::MutexLock guard(fieldsMutex);
        stateDetails = details;
    }
    state = RoutineState::Failed;
}

bool RoutineInstance::HasContinueFx() const {
    Ny::MutexLock guard(callbackMutex);
    return static_cast<bool>(continueFx);
}

bool RoutineInstance::HasCompletionFx() const {
    Ny::MutexLock guard(callbackMutex);
    return static_cast<bool>(completionFx);
}

// ---------------------------------------------------------------------------------------------------
// Destruction

RoutineInstance::~RoutineInstance() {
    // In named steps, each guarded on its own: a failure of the end skips the deleted event only.
    const bool ended = EndAndWaitForEnd();
    {
        Ny::MutexLock guard(stopMutex);
        StopJobsLocked();
    }
    if (ended) {
        RaiseDeletedGuarded();
    }
    FreeResultsGuarded();
}

void RoutineInstance::EndForRemoval() {
    deleting = true;
    const RoutineState current = state.load();
    if (current == RoutineState::Running || current == RoutineState::WaitingForFeedback ||
        current == RoutineState::Failed) {
        aborted = true;
    }
    ReleaseStartWaiter();
    EndRoutine();
}

bool RoutineInstance::EndAndWaitForEnd() noexcept {
    try {
        NY_LOG(Progress, "Routine [%s] deleted.", id.c_str());
        EndForRemoval();
        Ny::MutexLock guard(stopMutex);
        WaitForEndLocked();
        return true;
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Exception thrown in destructor");
        Ny::Exception::LogException(e, 0);
        Ny::Exception::LogBackTrace(e);
    } catch (...) {
        NY_LOG(CaughtFailure, "Exception thrown in destructor");
    }
    return false;
}

bool RoutineInstance::StopCode() noexcept {
    if (IsOwnThread()) {
        return false;
    }
    Ny::MutexLock guard(stopMutex);
    try {
        WaitForEndLocked();
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Waiting for the end of routine %s failed.", id.c_str());
        Ny::Exception::LogException(e, 0);
    }
    StopJobsLocked();
    try {
        // A writer that holds the lock now finishes first: its change callback is routine code.
        Ny::Locker locker(lock.Get());
        paramsEditable = false;
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Closing the parameters of routine %s failed.", id.c_str());
        Ny::Exception::LogException(e, 0);
    }
    return true;
}

void RoutineInstance::WaitForEndLocked() {
    // Only an end that has begun is waited for: one that never began would never post.
    if (endWaited || ended.load() == 0) {
        return;
    }
    NyRt::Semaphore* completion = nullptr;
    {
        Ny::MutexLock guard(startMutex);
        completion = completionSemaphore.Get();
    }
    if (completion != nullptr) {
        NY_CHECK_RT(NyRt::SemaphoreWait(completion));
    }
    endWaited = true;
}

void RoutineInstance::StopJobsLocked() noexcept {
    if (jobsStopped) {
        return;
    }
    jobsStopped = true;
    // The completion-wait thread queues on the runner, so it goes first; once the holder is empty no job
    // can start it again. Then the runner stops (waiting for the job in progress, dropping queued ones),
    // before any lock, semaphore or event it may use goes. It is taken out of its holder first, so that
    // a job queued from now on is dropped, and destroyed outside the holder's mutex, which the job in
    // progress may take to queue another.
    Ny::Object<NyRt::Thread> thread;
    {
        Ny::MutexLock guard(waitThreadMutex);
        thread = std::move(waitThread);
    }
    try {
        if (thread) {
            NY_CHECK_RT(NyRt::ThreadJoin(thread.Get()));
            thread.Reset();
        }
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Joining the completion-wait thread of routine %s failed.", id.c_str());
        Ny::Exception::LogException(e, 0);
    }
    std::unique_ptr<Ny::AsyncRunner> stopped;
    {
        Ny::MutexLock guard(runnerMutex);
        stopped = std::move(runner);
    }
    stopped.reset();
}

void RoutineInstance::Queue(std::function<void()> job) {
    Ny::MutexLock guard(runnerMutex);
    if (runner) {
        // Every job runs routine code or ends the routine: its log lines name the routine. The runner
        // dies before the instance, so `this` outlives the job.
        runner->Run([this, job = std::move(job)] {
            const Ny::Logging::RoutineScope scope(id);
            job();
        });
    }
}

bool RoutineInstance::IsOwnThread() const {
    Ny::MutexLock guard(runnerMutex);
    return runner && runner->IsRunnerThread();
}

void RoutineInstance::RaiseDeletedGuarded() noexcept {
    try {
        OnDeleted();
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Exception thrown in destructor");
        Ny::Exception::LogException(e, 0);
        Ny::Exception::LogBackTrace(e);
    } catch (...) {
        NY_LOG(CaughtFailure, "Exception thrown in destructor");
    }
}

void RoutineInstance::FreeResultsGuarded() noexcept {
    if (results != nullptr) {
        NY_LOG(Progress, "Routine [%s] deleted -- freeing results.", id.c_str());
        try {
            routine->FreeResults(std::exchange(results, nullptr));
        } catch (...) {
            NY_LOG(CaughtFailure, "Exception thrown in destructor");
        }
    }
}

// ---------------------------------------------------------------------------------------------------
// Host operations: parameters, results, waiting, failure

bool RoutineInstance::GetParams(Ny::Properties::Structure& paramsIn,
                                std::function<void(Ny::Properties::Structure&)> fx) {
    Ny::Locker locker(lock.Get());
    params = &paramsIn;
    paramsFx = std::move(fx);
    paramsEditable = true;
    return !aborted;
}

void RoutineInstance::SetResults(const Ny::Properties::Structure* resultsIn) {
    // The instance owns `resultsIn` from the call on, also when it throws: routine code hands results
    // over from a unique_ptr it released, so no way out may leave them to the caller. Each way out
    // either keeps them (to be given back later) or gives them back now.
    std::optional<Ny::Locker> locker;
    try {
        locker.emplace(lock.Get());
    } catch (...) {
        if (resultsIn != nullptr) {
            routine->FreeResults(resultsIn);
        }
        throw;
    }
    // Handing over the structure the instance already holds: it stays held (freeing it would free it
    // while still in use) and is given back once, later.
    if (resultsIn != nullptr && resultsIn == results) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Routine [%s] results were handed over twice.",
                           id.c_str());
    }
    // The field lets go of the previous results before they are given back, so a FreeResults that
    // throws cannot have them given back a second time by the destructor.
    const Ny::Properties::Structure* previous = std::exchange(results, resultsIn);
    std::exception_ptr freeFailure;
    if (previous != nullptr) {
        try {
            routine->FreeResults(previous);
        } catch (...) {
            freeFailure = std::current_exception();  // passed on after the update: the results did change
        }
    }
    // Raised with the lock held on purpose: handlers read the new results consistently (re-entrant lock).
    OnUpdated();
    if (freeFailure) {
        std::rethrow_exception(freeFailure);
    }
}

bool RoutineInstance::WaitForContinue(std::function<void(IRoutineHost&)> fx) {
    if (!aborted) {
        Ny::Locker locker(lock.Get());
        state = RoutineState::WaitingForFeedback;
        Ny::MutexLock guard(callbackMutex);
        continueFx = std::move(fx);
    }
    return !aborted;
}

void RoutineInstance::SetCompletionFx(std::function<void(IRoutineHost&, bool)> fx) {
    Ny::MutexLock guard(callbackMutex);
    completionFx = std::move(fx);
}

void RoutineInstance::SetFailedState(const std::string& details) {
    Fail(details);
}

// ---------------------------------------------------------------------------------------------------
// Reporting

void RoutineInstance::SetCurrentStep(unsigned int step, const std::string& info) {
    const std::uint32_t total = totalSteps.load();
    if (step > total) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Routine step (%1$u) exceeds total steps (%2$u).", step,
                           total);
    }
    {
        Ny::MutexLock guard(fieldsMutex);
        currentStepInfo = info;
    }
    if (step != currentStep.load()) {
        currentStep = step;
        currentProgress = 0;
        OnStepsUpdated();
    }
}

void RoutineInstance::SetCurrentProgress(unsigned int progress) {
    if (progress > maxProgress) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "Routine progress (%1$u) exceeds max (%2$u).", progress,
                           maxProgress);
    }
    if (progress != currentProgress.exchange(progress)) {
        OnStepsUpdated();
    }
}

void RoutineInstance::SetHelpHtml(std::string html, int mode) {
    Ny::MutexLock guard(fieldsMutex);
    if (mode == 0) {
        helpHtml = std::move(html);
    } else if (mode < 0) {
        helpHtml.insert(0, html.c_str());  // up to the first NUL
    } else {
        helpHtml.append(html.c_str());
    }
}

void RoutineInstance::SetHelpUrl(std::string url) {
    Ny::MutexLock guard(fieldsMutex);
    helpUrl = std::move(url);
}

std::string RoutineInstance::StateDetails() const {
    Ny::MutexLock guard(fieldsMutex);
    return stateDetails;
}

std::string RoutineInstance::HelpHtml() const {
    Ny::MutexLock guard(fieldsMutex);
    return helpHtml;
}

std::string RoutineInstance::HelpUrl() const {
    Ny::MutexLock guard(fieldsMutex);
    return helpUrl;
}

std::string RoutineInstance::CurrentStepInfo() const {
    Ny::MutexLock guard(fieldsMutex);
    return currentStepInfo;
}

// ---------------------------------------------------------------------------------------------------
// Client locks

Ny::Properties::Structure* RoutineInstance::LockParams(bool forWriting) {
    const std::uint32_t thread = NyRt::CurrentThreadId();
    if (paramsLocked) {
        NY_LOG(Progress,
               "<%u> Routine params already locked (paramsWriting = %u). Waiting for (forWriting = %u)...",
               thread, static_cast<unsigned>(paramsWriting.load()), static_cast<unsigned>(forWriting));
    }
    NY_CHECK_RT(NyRt::LockEnter(lock.Get()));
    paramsLocked = true;
    if (forWriting && !paramsEditable) {
        paramsWriting = false;
        NY_LOG(Progress, "<%u> Routine params locked, but not forWriting.", thread);
        return nullptr;
    }
    paramsWriting = forWriting;
    NY_LOG(Progress, "<%u> Routine params locked (forWriting = %u).", thread,
           static_cast<unsigned>(forWriting));
    return params;
}

void RoutineInstance::UnlockParams() {
    if (!paramsLocked) {
        return;
    }
    // The lock is left on every path: a change callback or an updated handler that throws must not
    // keep the routine locked for ever.
    struct Exit {
        RoutineInstance& self;
        ~Exit() {
            self.paramsLocked = false;
            NY_LOG(Progress, "<%u> Routine params unlocked (paramsWriting was = %u).",
                   NyRt::CurrentThreadId(), static_cast<unsigned>(self.paramsWriting.load()));
            NyRt::LockExit(self.lock.Get());
        }
    } exit{*this};
    if (paramsWriting) {
        // Both with the lock held: the routine sees the written values before anyone else changes them.
        if (paramsFx) {
            paramsFx(*params);
        }
        OnUpdated();
    }
}

void RoutineInstance::UnlockParamsUnwritten() {
    if (!paramsLocked) {
        return;
    }
    // Written while the lock is still held, like every change of the flag.
    paramsWriting = false;
    UnlockParams();
}

bool RoutineInstance::AcceptsParams() const {
    Ny::Locker locker(lock.Get());
    const RoutineState now = state.load();
    const bool stopped = aborted || deleting || ended.load() != 0 || NyCommon::IsStopped(now);
    return params != nullptr && paramsEditable && !stopped;
}

const Ny::Properties::Structure* RoutineInstance::LockResults() {
    const std::uint32_t thread = NyRt::CurrentThreadId();
    if (resultsLocked) {
        NY_LOG(Progress, "<%u> Routine results already locked. Waiting...", thread);
    }
    NY_CHECK_RT(NyRt::LockEnter(lock.Get()));
    resultsLocked = true;
    NY_LOG(Progress, "<%u> Routine results locked.", thread);
    return results;
}

void RoutineInstance::UnlockResults() {
    if (!resultsLocked) {
        return;
    }
    resultsLocked = false;
    NY_LOG(Progress, "<%u> Routine results unlocked.", NyRt::CurrentThreadId());
    NY_CHECK_RT(NyRt::LockExit(lock.Get()));
}

ParamsAccess::ParamsAccess(RoutineInstance& instanceIn, bool forWriting)
    : instance(&instanceIn), params(instanceIn.LockParams(forWriting)) {}

ParamsAccess::~ParamsAccess() {
    if (instance == nullptr) {
        return;
    }
    try {
        Release();
    } catch (const std::exception& e) {
        NY_LOG(CaughtFailure, "Releasing routine params failed (%s).", e.what());
    } catch (...) {
        // The change callback is routine code: whatever it throws, a destructor must not pass it on.
        NY_LOG(CaughtFailure, "Releasing routine params failed (an exception that is not a std::exception).");
    }
}

void ParamsAccess::Release() {
    if (RoutineInstance* held = std::exchange(instance, nullptr)) {
        held->UnlockParams();
    }
}

void ParamsAccess::ReleaseUnwritten() noexcept {
    if (RoutineInstance* held = std::exchange(instance, nullptr)) {
        // Nothing runs but the unlock itself (no callback, no event); its failure is only logged.
        try {
            held->UnlockParamsUnwritten();
        } catch (const std::exception& e) {
            NY_LOG(CaughtFailure, "Releasing routine params failed (%s).", e.what());
        }
    }
}

ResultsAccess::ResultsAccess(RoutineInstance& instanceIn)
    : instance(&instanceIn), results(instanceIn.LockResults()) {}

ResultsAccess::~ResultsAccess() {
    if (RoutineInstance* held = std::exchange(instance, nullptr)) {
        try {
            held->UnlockResults();
        } catch (const std::exception& e) {
            NY_LOG(CaughtFailure, "Releasing routine results failed (%s).", e.what());
        }
    }
}

// ---------------------------------------------------------------------------------------------------
// Events

void RoutineInstance::OnUpdated() {
    updatedEvent.Raise(id);
}

void RoutineInstance::OnStepsUpdated() {
    stepsUpdatedEvent.Raise(id);
}

void RoutineInstance::OnDeleted() {
    deletedEvent.Raise(id);
}

// ---------------------------------------------------------------------------------------------------
// RoutineInstanceHost: forwards to the instance

bool RoutineInstanceHost::GetParams(Ny::Properties::Structure& params,
                                    std::function<void(Ny::Properties::Structure&)> onChanged) {
    return instance->GetParams(params, std::move(onChanged));
}

void RoutineInstanceHost::SetResults(const Ny::Properties::Structure* results) {
    instance->SetResults(results);
}

void RoutineInstanceHost::SetTotalSteps(unsigned int total) {
    instance->SetTotalSteps(total);
}

void RoutineInstanceHost::SetCurrentStep(unsigned int step, const std::string& info) {
    instance->SetCurrentStep(step, info);
}

void RoutineInstanceHost::SetCurrentProgress(unsigned int progress) {
    instance->SetCurrentProgress(progress);
}

void RoutineInstanceHost::SetHelpHtml(const std::string& html, int mode) {
    instance->SetHelpHtml(html, mode);
}

void RoutineInstanceHost::SetHelpUrl(const std::string& url) {
    instance->SetHelpUrl(url);
}

bool RoutineInstanceHost::WaitForContinue(std::function<void(IRoutineHost&)> onContinue) {
    return instance->WaitForContinue(std::move(onContinue));
}

bool RoutineInstanceHost::IsAborted() {
    return instance->IsAborted();
}

bool RoutineInstanceHost::IsFailed() {
    return instance->IsFailed();
}

void RoutineInstanceHost::SetFailedState(std::string details) {
    instance->SetFailedState(details);
}

void RoutineInstanceHost::SetCompletionFx(std::function<void(IRoutineHost&, bool)> fx) {
    instance->SetCompletionFx(std::move(fx));
}

void RoutineInstanceHost::ReadyForCompletion() {
    instance->ReadyForCompletion();
}

}  // namespace NyRoutine::Internal
