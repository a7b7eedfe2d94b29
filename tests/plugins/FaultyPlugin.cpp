// A test plug-in whose routines misbehave in every way routine code can: they throw from Run, from a
// continue callback and from the completion callback, throw something that is not a std::exception,
// have a factory that makes nothing, never return from Run unless aborted, take seconds to stop once
// aborted, and hand their results over twice. The host must stay up and every routine must end in a
// defined state; a deletion that waits for a slow routine must not hold up other requests (the
// benchmarks measure reads while one waits).
#include <chrono>
#include <memory>
#include <stdexcept>
#include <thread>

#include "NyPlugin/PluginExport.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/RoutinePlugin.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"

namespace {

using NyRoutine::IRoutineHost;

struct Results : Ny::Params::Group {
    Results() { AddParameter("value", value, ""); }
    Ny::Params::Value<unsigned int> value;
};

enum class Fault {
    ThrowInRun,
    ThrowInContinue,
    ThrowInCompletion,
    ThrowNonStandard,
    Stubborn,
    SlowToAbort,
    ResultsTwice
};

// How long a SlowToAbort routine goes on after its abort: long enough to see who waits for it.
constexpr std::chrono::seconds kSlowAbortDelay{2};

class Faulty : public NyRoutine::IRoutine {
  public:
    explicit Faulty(Fault faultIn) : fault(faultIn) {}
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(IRoutineHost& host) override {
        switch (fault) {
            case Fault::ThrowInRun:
                throw std::runtime_error("Run failed");
            case Fault::ThrowInContinue:
                host.WaitForContinue([](IRoutineHost&) { throw std::logic_error("continue failed"); });
                break;
            case Fault::ThrowInCompletion:
                host.SetCompletionFx(
                    [](IRoutineHost&, bool) { throw std::runtime_error("completion failed"); });
                host.ReadyForCompletion();
                break;
            case Fault::ThrowNonStandard:
                throw 42;
            case Fault::Stubborn:
                // Ignores everything but an abort (or deletion), then gives up.
                while (!host.IsAborted()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
                break;
            case Fault::SlowToAbort:
                // Waits for its abort (or deletion) and then takes its time to wind down.
                while (!host.IsAborted()) {
                    std::this_thread::sleep_for(std::chrono::milliseconds(5));
                }
                std::this_thread::sleep_for(kSlowAbortDelay);
                break;
            case Fault::ResultsTwice: {
                auto* results = new Results;
                host.SetResults(results);
                host.SetResults(results);  // refused: the engine already holds it
                break;
            }
        }
    }
    void FreeResults(const Ny::Properties::Structure* results) override {
        delete static_cast<const Results*>(results);
    }

  private:
    Fault fault;
};

class FaultyFactory : public NyRoutine::IRoutineFactory {
  public:
    explicit FaultyFactory(Fault faultIn) : fault(faultIn) {}
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<Faulty>(fault); }

  private:
    Fault fault;
};

class NothingFactory : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return nullptr; }
};

}  // namespace

NY_PLUGIN_ENTRY(sink) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    const std::pair<const char*, Fault> faults[] = {{"ThrowInRun", Fault::ThrowInRun},
                                                    {"ThrowInContinue", Fault::ThrowInContinue},
                                                    {"ThrowInCompletion", Fault::ThrowInCompletion},
                                                    {"ThrowNonStandard", Fault::ThrowNonStandard},
                                                    {"Stubborn", Fault::Stubborn},
                                                    {"SlowToAbort", Fault::SlowToAbort},
                                                    {"ResultsTwice", Fault::ResultsTwice}};
    for (const auto& [name, fault] : faults) {
        auto factory = std::make_shared<FaultyFactory>(fault);
        plugin->AddRoutineInfo(NyRoutine::RoutineInfo(name, *factory, true));
        plugin->AddOwnedObject(factory);
    }
    auto nothing = std::make_shared<NothingFactory>();
    plugin->AddRoutineInfo(NyRoutine::RoutineInfo("MakesNothing", *nothing, true));
    plugin->AddOwnedObject(nothing);
    sink.Add(plugin);
}
