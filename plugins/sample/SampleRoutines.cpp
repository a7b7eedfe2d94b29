// The sample plug-in: two routine types that show how routines are written.
//
//   "SelfTest"    runs three checks by itself and completes; no user input.
//   "Calibration" asks for its parameters, waits for the user's continue, measures and hands over
//                 results.
//
// Routine code runs on the routine's own thread (one job at a time) and talks to the engine only
// through the IRoutineHost it is given. Parameters are published with GetParams and read back once the
// user has continued; results are handed over from a unique_ptr with HandOverResults, and RoutineBase
// frees them when the engine gives them back.
#include <algorithm>
#include <cmath>
#include <memory>
#include <random>
#include <string>

#include "NyRoutine/Routine.h"
#include "NyRuntime/Runtime.h"

namespace {

using NyRoutine::HelpMode;
using NyRoutine::IRoutineHost;

// ---------------------------------------------------------------------------------------------------
// SelfTest: three steps, each a check with progress from 0 to 100 (about a second in all).

struct SelfTestResults : Ny::Params::Group {
    SelfTestResults() {
        AddParameter("passedChecks", passedChecks, "Passed checks");
        AddParameter("summary", summary, "Summary");
    }
    Ny::Params::Value<unsigned int> passedChecks;
    Ny::Params::Value<std::string> summary;
};

class SelfTest : public NyRoutine::RoutineBase<SelfTestResults> {
  public:
    void Run(IRoutineHost& host) override {
        static const char* const checks[] = {"Checking the power supply", "Checking the sensors",
                                             "Checking the actuators"};
        host.SetTotalSteps(3);
        unsigned int passed = 0;
        for (unsigned int step = 1; step <= 3 && !host.IsAborted(); ++step) {
            host.SetCurrentStep(step, checks[step - 1]);
            for (unsigned int progress = 5; progress <= 100 && !host.IsAborted(); progress += 5) {
                NyRt::Sleep(16000);  // the "check"
                host.SetCurrentProgress(progress);
            }
            passed += host.IsAborted() ? 0 : 1;
        }
        auto results = std::make_unique<SelfTestResults>();
        results->passedChecks = passed;
        results->summary = passed == 3 ? std::string("All checks passed.")
                                       : std::to_string(passed) + " of 3 checks ran before the abort.";
        HandOverResults(host, std::move(results));  // the engine owns it now
        // Returning without a continue or completion callback completes the routine.
    }
};

// ---------------------------------------------------------------------------------------------------
// Calibration: parameters, one user step, a measurement, results.

struct CalibrationParams : Ny::Params::Group {
    CalibrationParams() {
        AddParameter("samples", samples, "samples");
        AddParameter("label", label, "label");
        AddParameter("mode", mode, "mode");
        samples.Minimum(1).Maximum(1000);
        samples = 10;
        label = std::string("default");
        mode.AddOption(0, "Fast");
        mode.AddOption(1, "Precise");
    }
    Ny::Params::Value<unsigned int> samples;
    Ny::Params::Value<std::string> label;
    Ny::Params::Enum<unsigned int> mode;
};

struct CalibrationResults : Ny::Params::Group {
    CalibrationResults() {
        AddParameter("offset", offset, "Offset");
        AddParameter("gain", gain, "Gain");
        AddParameter("label", label, "Label");
    }
    Ny::Params::Value<double> offset;
    Ny::Params::Value<double> gain;
    Ny::Params::Value<std::string> label;
};

class Calibration : public NyRoutine::RoutineBase<CalibrationResults> {
  public:
    void Run(IRoutineHost& host) override {
        host.SetTotalSteps(2);
        host.SetCurrentStep(1, "Set the calibration parameters, then continue.");
        host.SetHelpHtml(
            "<p>Choose how many <b>samples</b> to take (1 to 1000), a <b>label</b> for the result and the "
            "<b>mode</b>: <i>Precise</i> takes longer per sample.</p>",
            HelpMode::Replace);
        host.SetCompletionFx([](IRoutineHost&, bool aborted) {
            NY_LOG(Ny::Logging::Level::Progress, "Calibration %s.", aborted ? "aborted" : "finished");
        });
        // Publish the parameters: clients may change them until the user continues.
        if (!host.GetParams(params, nullptr)) {
            return;  // aborted before we got here
        }
        host.WaitForContinue([this](IRoutineHost& continued) { Measure(continued); });
    }

  private:
    // Runs after the user's continue: the parameters are closed for writing now.
    void Measure(IRoutineHost& host) {
        host.SetCurrentStep(2, "Measuring");
        host.SetHelpHtml("", HelpMode::Replace);
        const unsigned int samples = params.samples;
        const bool precise = params.mode == 1u;
        std::mt19937 noise(samples);
        std::normal_distribution<double> reading(0.5, precise ? 0.01 : 0.05);
        double sum = 0;
        double sumSquares = 0;
        unsigned int taken = 0;
        for (; taken < samples && !host.IsAborted(); ++taken) {
            NyRt::Sleep(precise ? 4000 : 1000);
            const double value = reading(noise);
            sum += value;
            sumSquares += value * value;
            host.SetCurrentProgress((taken + 1) * 100 / samples);
        }
        if (host.IsAborted()) {
            return;
        }
        auto results = std::make_unique<CalibrationResults>();
        const double mean = sum / taken;
        results->offset = mean - 0.5;
        results->gain = 1.0 + std::sqrt(std::max(0.0, sumSquares / taken - mean * mean));
        results->label = params.label.Get();
        HandOverResults(host, std::move(results));
        host.ReadyForCompletion();
    }

    CalibrationParams params;  // published with GetParams: a member, so it outlives its publication
};

}  // namespace

// The plug-in's entry point: one routine plug-in object carrying both types.
NY_PLUGIN_ENTRY(sink) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    plugin->AddRoutineType<SelfTest>(
        NyRoutine::RoutineInfo("SelfTest", true)
            .SetDisplayName("Self test")
            .SetDescription("Checks the power supply, the sensors and the actuators."));
    plugin->AddRoutineType<Calibration>(
        NyRoutine::RoutineInfo("Calibration", false)
            .SetDisplayName("Sensor calibration")
            .SetDescription("Measures the sensor's offset and gain from a number of samples."));
    sink.Add(plugin);
}
