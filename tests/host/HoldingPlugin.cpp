// A test plug-in whose routine types hold a request's thread until a file exists, so that a test can hold
// it as long as it likes and let it go by creating the file:
// - "HoldsAbort": its completion callback blocks; an abort runs that callback on the thread of the request
//   that asked for it. Once the routine's code has put the callback in place it creates "<gate>.running".
// - "HoldsChange": its parameters' change callback blocks; a write of its parameters runs it with the
//   routine's lock held, so reads of that routine wait too. It creates "<gate>.changing" when it starts.
// The file is named by the host's environment variable NYR_TEST_GATE; without it, or after 60 s, the
// callbacks return at once.
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <string>
#include <thread>

#include <sys/stat.h>

#include "NyPlugin/PluginExport.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/Routine.h"
#include "NyRoutine/RoutinePlugin.h"

namespace {

using NyRoutine::IRoutineHost;

constexpr auto kLongestHold = std::chrono::seconds(60);

void WaitForGate() {
    const char* gate = std::getenv("NYR_TEST_GATE");
    if (gate == nullptr) {
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + kLongestHold;
    struct stat info {};
    while (::stat(gate, &info) != 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
}

class HoldsAbort : public NyRoutine::IRoutine {
  public:
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    // Waits for its completion, which only an abort brings. Step 1 tells a test that the callback is
    // set: an abort before that would find none and hold nothing.
    void Run(IRoutineHost& host) override {
        host.SetCompletionFx([](IRoutineHost&, bool) { WaitForGate(); });
        host.SetTotalSteps(1);
        host.SetCurrentStep(1, "Waiting for its abort");
        // Also "<gate>.running", for tests that watch the gate rather than the routine.
        if (const char* gate = std::getenv("NYR_TEST_GATE"); gate != nullptr) {
            std::ofstream(std::string(gate) + ".running") << "running\n";
        }
    }
    void FreeResults(const Ny::Properties::Structure*) override {}
};

struct ChangeParams : Ny::Params::Group {
    ChangeParams() {
        AddParameter("samples", samples, "Samples");
        samples = 10;
    }
    Ny::Params::Value<unsigned int> samples;
};

class HoldsChange : public NyRoutine::RoutineBase<> {
  public:
    void Run(IRoutineHost& host) override {
        host.SetTotalSteps(1);
        const bool given = host.GetParams(params, [](Ny::Properties::Structure&) {
            if (const char* gate = std::getenv("NYR_TEST_GATE"); gate != nullptr) {
                std::ofstream(std::string(gate) + ".changing") << "changing\n";
            }
            WaitForGate();
        });
        if (given) {
            host.WaitForContinue([](IRoutineHost&) {});
        }
    }

  private:
    ChangeParams params;
};

class HoldsAbortFactory : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<HoldsAbort>(); }
};

}  // namespace

NY_PLUGIN_ENTRY(sink) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    auto factory = std::make_shared<HoldsAbortFactory>();
    plugin->AddRoutineInfo(NyRoutine::RoutineInfo("HoldsAbort", *factory, true));
    plugin->AddOwnedObject(factory);
    plugin->AddRoutineType<HoldsChange>(NyRoutine::RoutineInfo("HoldsChange", true));
    sink.Add(plugin);
}
