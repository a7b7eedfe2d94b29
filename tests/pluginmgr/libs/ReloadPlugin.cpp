// A test plug-in built twice from this one source, as two versions of one plug-in that a test swaps on
// disk. NYR_RELOAD_VERSION (1 or 2) is what each build says about itself:
//   - a greeter ("version N, entry call K") whose K counts the entry point's calls in this mapping of
//     the library, so a reload that got the old mapping back shows K = 2;
//   - a greeter factory, whose greeters say "version N made";
//   - a routine plug-in object with the type "Reloadable": its description names the version, and a
//     routine of it waits for a continue and then hands over {"version": N} as its results, so a
//     routine created before a reload shows which code it ran on.
#include <atomic>
#include <memory>
#include <string>
#include <utility>

#include "NyPlugin/PluginExport.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/RoutineInfo.h"
#include "NyRoutine/RoutinePlugin.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"
#include "TestObjects.h"

#ifndef NYR_RELOAD_VERSION
#error "NYR_RELOAD_VERSION must name the build's version"
#endif

namespace {

constexpr unsigned int Version = NYR_RELOAD_VERSION;
const std::string VersionText = "version " + std::to_string(Version);

// Static state of this mapping: a fresh mapping starts again at zero.
std::atomic<int> entryCalls{0};

class Greeter final : public NyPlugin::IPlugin, public PluginTest::IGreeter {
  public:
    explicit Greeter(std::string whoIn) : who(std::move(whoIn)) {}
    const char* Type() const override { return PluginTest::GreeterType; }
    const void* GetObject() const override { return static_cast<const PluginTest::IGreeter*>(this); }
    std::string Greet(const std::string& name) const override { return who + " greets " + name; }

  private:
    std::string who;
};

class GreeterFactory final : public NyPlugin::IPlugin, public PluginTest::IGreeterFactory {
  public:
    const char* Type() const override { return PluginTest::FactoryType; }
    const void* GetObject() const override { return static_cast<const PluginTest::IGreeterFactory*>(this); }
    std::shared_ptr<PluginTest::IGreeter> Make() const override {
        return std::make_shared<Greeter>(VersionText + " made");
    }
};

struct ReloadableResults : Ny::Params::Group {
    ReloadableResults() { AddParameter("version", version, "Version"); }
    Ny::Params::Value<unsigned int> version;
};

class Reloadable final : public NyRoutine::IRoutine {
  public:
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}

    void Run(NyRoutine::IRoutineHost& host) override {
        host.SetTotalSteps(1);
        host.SetCurrentStep(1, (VersionText + " waits for a continue").c_str());
        host.WaitForContinue([](NyRoutine::IRoutineHost& continued) {
            auto results = std::make_unique<ReloadableResults>();
            results->version = Version;
            continued.SetResults(results.release());
            continued.ReadyForCompletion();
        });
    }

    void FreeResults(const Ny::Properties::Structure* results) override {
        delete static_cast<const ReloadableResults*>(results);
    }
};

class ReloadableFactory final : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<Reloadable>(); }
};

}  // namespace

NY_PLUGIN_ENTRY(sink) {
    const int call = ++entryCalls;
    sink.Add(std::make_shared<Greeter>(VersionText + ", entry call " + std::to_string(call)));
    sink.Add(std::make_shared<GreeterFactory>());

    auto routines = NyRoutine::RoutinePlugin::Create();
    auto factory = std::make_shared<ReloadableFactory>();
    const std::string description = "The reloadable test routine, " + VersionText + ".";
    routines->AddRoutineInfo(NyRoutine::RoutineInfo("Reloadable", *factory, true)
                                 .SetDisplayName("Reloadable")
                                 .SetDescription(description.c_str()));
    routines->AddOwnedObject(factory);
    sink.Add(routines);
}
