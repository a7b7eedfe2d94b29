// A test plug-in that offers a type named like one of the sample plug-in ("Calibration") and one of
// its own ("Extra"), both of which complete at once.
#include <memory>

#include "NyPlugin/PluginExport.h"
#include "NyRoutine/IRoutine.h"
#include "NyRoutine/IRoutineFactory.h"
#include "NyRoutine/RoutinePlugin.h"

namespace {

class Instant : public NyRoutine::IRoutine {
  public:
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(NyRoutine::IRoutineHost&) override {}
    void FreeResults(const Ny::Properties::Structure*) override {}
};

class InstantFactory : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<Instant>(); }
};

}  // namespace

NY_PLUGIN_ENTRY(sink) {
    auto plugin = NyRoutine::RoutinePlugin::Create();
    auto factory = std::make_shared<InstantFactory>();
    plugin->AddRoutineInfo(NyRoutine::RoutineInfo("Calibration", *factory, true));
    plugin->AddRoutineInfo(NyRoutine::RoutineInfo("Extra", *factory, true));
    plugin->AddOwnedObject(factory);
    sink.Add(plugin);
}
