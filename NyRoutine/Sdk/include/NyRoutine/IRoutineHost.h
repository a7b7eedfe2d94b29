// `NyRoutine::IRoutineHost`: everything routine code can do, given to IRoutine::Run, to every continue
// callback and to the completion callback (always the same host object for one routine).
//
// A typical routine with one user step:
//     void Run(IRoutineHost& host) override {
//         host.SetTotalSteps(2);
//         host.SetCurrentStep(1, "Set the parameters, then continue.");
//         if (!host.GetParams(params, nullptr)) return;  // a member: publish; false when aborted
//         host.WaitForContinue([this](IRoutineHost& h) { Work(h); });  // returns at once
//     }   // the routine now waits for the user's continue; Work runs on the routine's thread then.
//
// Threading: call these from the routine's own thread (Run, callbacks) or any thread the routine
// starts; all of them are thread-safe. GetParams and SetResults wait while a client reads or writes
// the routine's parameters or results.
//
// Lifetime: the host reference is valid as long as the routine itself, no longer. The engine waits for
// the routine's own thread before the routine goes, but not for threads the routine starts: such a
// thread must stop using the host before the routine ends, for example by being told to stop and joined
// in the completion callback (which runs when the routine ends, also when it is aborted or deleted).
//
// Exceptions: a std::exception thrown out of Run or a continue callback ends the routine Failed with
// the exception's text as details; out of the completion callback, Failed with "Completion callback
// failed: " and the text. Anything else thrown (`throw 42`) ends the routine in the same way, with
// "Routine code threw an exception that is not a std::exception." in place of the text and a log line
// naming the routine; it is then passed on to the caller of the code: the routine's thread, which logs
// it and goes on, an abort that ran the completion callback, which passes it on to its caller, or a
// deletion, which logs it and goes on.
#pragma once

#include <functional>
#include <string>

namespace Ny::Properties {
class Structure;
}
namespace NyCore {
class Core;
}

namespace NyRoutine {

// How SetHelpHtml combines the new help text with the current one. The values are those of the
// `int` mode: any negative number prepends, 0 replaces, any positive number appends.
enum class HelpMode : int { Prepend = -1, Replace = 0, Append = 1 };

// Implementations override the `int` slot of SetHelpHtml and add `using IRoutineHost::SetHelpHtml;`
// so that the HelpMode overload stays visible through their own type.
class IRoutineHost {
  public:
    virtual ~IRoutineHost() = default;

    // Publishes `params` (owned by the routine; it must outlive its publication, so a member of the
    // routine object is the usual place) and opens them for writing by clients until the next
    // continue. `onChanged` runs on the client's thread after each write. Returns false when the
    // routine has been aborted.
    virtual bool GetParams(Ny::Properties::Structure& params,
                           std::function<void(Ny::Properties::Structure&)> onChanged) = 0;
    // Hands `results` over to the engine (make it with `new`; it is given back through
    // IRoutine::FreeResults when replaced or when the routine is deleted). Null drops the current
    // results. Raises an update. The engine owns `results` from this call on, also when the call
    // throws (an update handler failed; the very structure it holds already was handed over again,
    // which is refused with Ny::Exception InvalidValue (-997)): it is given back exactly once all the same,
    // so the caller never frees it. RoutineBase::HandOverResults does this from a std::unique_ptr.
    virtual void SetResults(const Ny::Properties::Structure* results) = 0;
    virtual void SetTotalSteps(unsigned int total) = 0;
    // Step 0 to the total. A new step resets the progress to 0. Throws Ny::Exception InvalidValue (-997)
    // beyond the total.
    virtual void SetCurrentStep(unsigned int step, const std::string& info) = 0;
    // Percentage of the current step, 0 to 100. Throws Ny::Exception InvalidValue (-997) beyond 100.
    virtual void SetCurrentProgress(unsigned int progress) = 0;
    // mode < 0 inserts before the current help, 0 replaces it, > 0 appends (see HelpMode).
    virtual void SetHelpHtml(const std::string& html, int mode) = 0;
    // The same with a named mode: host.SetHelpHtml("<p>...</p>", HelpMode::Append).
    void SetHelpHtml(const std::string& html, HelpMode mode) { SetHelpHtml(html, static_cast<int>(mode)); }
    virtual void SetHelpUrl(const std::string& url) = 0;
    // Registers the callback for the user's next continue and returns at once; the routine then waits
    // for feedback. Returns false (and drops the callback) when the routine has been aborted.
    virtual bool WaitForContinue(std::function<void(IRoutineHost&)> onContinue) = 0;
    virtual bool IsAborted() = 0;
    virtual bool IsFailed() = 0;
    // Ends the routine in state Failed with `details` (no exception needed).
    virtual void SetFailedState(std::string details) = 0;
    // Called once when the routine ends, with true when it was aborted. With a completion callback the
    // routine completes only after ReadyForCompletion.
    virtual void SetCompletionFx(std::function<void(IRoutineHost&, bool)> fx) = 0;
    virtual void ReadyForCompletion() = 0;
    // The host process's core; null when the host has none.
    virtual NyCore::Core* Core() = 0;
};

}  // namespace NyRoutine
