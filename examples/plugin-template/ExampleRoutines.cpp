// A plug-in with one routine type, "Alignment": it asks for a target position, a speed and a note,
// waits for the user's continue, moves and verifies in two steps with progress, and hands over results.
// Copy this project, rename the type and the classes, and replace the work in Move and Verify.
//
// Threading: Run and the continue callback run on the routine's own thread, one at a time. Clients write
// the parameters from their request threads while the routine waits for the continue, never after it.
#include <memory>
#include <string>

#include "NyRoutine/Routine.h"

namespace {

using NyRoutine::HelpMode;
using NyRoutine::IRoutineHost;

// What the user sets before the routine starts moving. Each member is one parameter of the routine's
// document; limits and options are checked on every write, and a refused write changes nothing.
struct AlignmentParams : Ny::Params::Group {
    AlignmentParams() {
        AddParameter("position", position, "Target position (mm)");
        AddParameter("speed", speed, "Speed");
        AddParameter("note", note, "Note");
        position.Minimum(0.0).Maximum(100.0);
        position = 50.0;
        speed.AddOption(1, "Slow").AddOption(2, "Normal").AddOption(4, "Fast");
        speed = 2u;
        note = std::string();
    }
    Ny::Params::Value<double> position;
    Ny::Params::Enum<unsigned int> speed;
    Ny::Params::Value<std::string> note;
};

struct AlignmentResults : Ny::Params::Group {
    AlignmentResults() {
        AddParameter("position", position, "Reached position (mm)");
        AddParameter("deviation", deviation, "Deviation (mm)");
        AddParameter("note", note, "Note");
    }
    Ny::Params::Value<double> position;
    Ny::Params::Value<double> deviation;
    Ny::Params::Value<std::string> note;
};

class Alignment : public NyRoutine::RoutineBase<AlignmentResults> {
  public:
    void Run(IRoutineHost& host) override {
        host.SetTotalSteps(3);
        host.SetCurrentStep(1, "Set the target, then continue.");
        host.SetHelpHtml("<p>Choose the <b>target position</b> (0 to 100 mm) and the <b>speed</b>.</p>",
                         HelpMode::Replace);
        // `params` is a member: it must outlive its publication, which lasts until the routine ends.
        if (!host.GetParams(params, nullptr)) {
            return;  // aborted before the parameters were published
        }
        host.WaitForContinue([this](IRoutineHost& continued) { Align(continued); });
    }  // returns at once: the routine now waits for the user's continue

  private:
    // After the continue: the parameters are closed for writing and can be read without a lock.
    void Align(IRoutineHost& host) {
        host.SetHelpHtml("<p>Keep clear of the axis while it moves.</p>", HelpMode::Append);
        const double reached = Move(host);
        if (host.IsAborted()) {
            return;  // an abort or a delete: stop soon, hand over nothing
        }
        auto results = std::make_unique<AlignmentResults>();
        results->position = reached;
        results->deviation = Verify(host);
        results->note = params.note.Get();
        HandOverResults(host, std::move(results));  // the engine frees them when it is done with them
    }                                               // returning from the last callback completes the routine

    // Step 2: approaches the target in increments; the speed sets the increment.
    double Move(IRoutineHost& host) {
        host.SetCurrentStep(2, "Moving to the target");
        const unsigned int increments = 40 / params.speed.Get();
        for (unsigned int i = 1; i <= increments && !host.IsAborted(); ++i) {
            host.SetCurrentProgress(i * 100 / increments);
        }
        return params.position.Get();
    }

    // Step 3: measures how far the axis is off. A stand-in: the faster it moved, the less precise.
    double Verify(IRoutineHost& host) {
        host.SetCurrentStep(3, "Verifying");
        for (unsigned int progress = 25; progress <= 100 && !host.IsAborted(); progress += 25) {
            host.SetCurrentProgress(progress);
        }
        return 0.005 * params.speed.Get();
    }

    AlignmentParams params;
};

}  // namespace

// The entry point the host calls when it loads the library: one routine plug-in with its types.
NY_PLUGIN_ENTRY(sink) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    plugin->AddRoutineType<Alignment>(
        NyRoutine::RoutineInfo("Alignment", /*skipStartParams=*/false)
            .SetDisplayName("Axis alignment")
            .SetDescription("Moves the axis to a target position and measures the deviation."));
    sink.Add(plugin);
}
