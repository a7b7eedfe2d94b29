// A test plug-in with one routine type, "HoldsAbort", whose completion callback blocks until a file
// exists: an abort runs that callback on the thread of the request that asked for it, so a test can hold
// that thread as long as it likes and let it go by creating the file. The file is named by the host's
// environment variable NYR_TEST_GATE; without it, or after 60 s, the callback returns at once. Once the
// routine's code has put the callback in place it creates "<gate>.running".
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
    sink.Add(plugin);
}
