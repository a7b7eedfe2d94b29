// Fuzzes the whole request dispatch against a live routine front: the input is split into a method,
// a target and a body, and dispatched through the router to the routines and routine-types resources
// with real routine types. Every request must get a reply; nothing may crash or hang.
#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

#include "NyRest/ResourceRouter.h"
#include "NyRoutine/Engine/RoutineManager.h"
#include "NyRoutine/IRoutineHost.h"
#include "NyRoutine/Protocol/RoutineTypes.h"
#include "NyRoutine/Protocol/RoutinesDir.h"
#include "NyValues/Params/Group.h"
#include "NyValues/Params/Value.h"

namespace {

using NyRoutine::IRoutineHost;

struct Params : Ny::Params::Group {
    Params() {
        AddParameter("samples", samples, "");
        samples.Minimum(1).Maximum(100);
    }
    Ny::Params::Value<unsigned int> samples;
};

// Skips its start parameters (a fuzzed creation must never wait), publishes parameters, waits for one
// continue, then reports steps and completes.
class Routine : public NyRoutine::IRoutine {
  public:
    void SetCreateParams(std::shared_ptr<Ny::Params::Group>) override {}
    void Run(IRoutineHost& host) override {
        host.SetTotalSteps(1);
        host.GetParams(params, nullptr);
        host.WaitForContinue([](IRoutineHost& again) {
            again.SetCurrentStep(1, "step");
            again.SetCurrentProgress(100);
        });
    }
    void FreeResults(const Ny::Properties::Structure*) override {}

  private:
    Params params;
};

class Factory : public NyRoutine::IRoutineFactory {
  public:
    std::shared_ptr<NyRoutine::IRoutine> CreateRoutine() override { return std::make_shared<Routine>(); }
};

struct Service {
    Service() {
        registry.Add(NyRoutine::RoutineInfo("Calib", factory, true));
        manager = std::make_unique<NyRoutine::Internal::RoutineManager>(registry, &core, 1);
        routines = std::make_unique<NyRoutine::Internal::RoutinesDir>(router, *manager);
        types = std::make_unique<NyRoutine::Internal::RoutineTypes>(router, registry);
    }
    Factory factory;
    NyRoutine::Internal::RoutineRegistry registry;
    NyCore::Core core;
    NyRest::ResourceRouter router;
    std::unique_ptr<NyRoutine::Internal::RoutineManager> manager;
    std::unique_ptr<NyRoutine::Internal::RoutinesDir> routines;
    std::unique_ptr<NyRoutine::Internal::RoutineTypes> types;
};

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static Service* service = new Service;  // lives for the whole run, as in a host
    static const char* const methods[] = {"GET", "POST", "PUT", "PATCH", "DELETE", "HEAD"};
    if (size == 0) {
        return 0;
    }
    const std::string method = methods[data[0] % 6];
    const std::string rest(reinterpret_cast<const char*>(data + 1), size - 1);
    const size_t newline = rest.find('\n');
    const std::string target = rest.substr(0, newline);
    const std::string body = newline == std::string::npos ? std::string() : rest.substr(newline + 1);
    const NyRest::Response reply = service->router.DispatchRaw(method, target, body);
    if (reply.status < 200 || reply.status > 599) {
        __builtin_trap();
    }
    if (service->manager->ListIds().size() > 1) {
        __builtin_trap();  // the limit of one routine was passed
    }
    return 0;
}
