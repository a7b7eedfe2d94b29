// The host's own operator resources, served through the same router as the routine engine:
//   "/system"                          GET {"runState": n, "routineLimit": n}; PUT/PATCH {"runState": n}
//   sets the core's run state
//   "/system/commands/factoryRestore"  POST: the core announces a factory restore
//   "/plugins"                         GET the loaded plug-in libraries: file name, load time, SHA-256 of
//                                      the content loaded, and the routine types of each
// Owned by the host service; registered for their lifetime. Request threads only.
#pragma once

#include <chrono>
#include <cstdint>
#include <limits>
#include <memory>
#include <string>

#include <nlohmann/json.hpp>

#include "NyCore/Core.h"
#include "NyPlugin/PluginManager.h"
#include "NyRest/CommandResourceBase.h"
#include "NyRest/DocumentResourceBase.h"
#include "NyRest/ResourceRouter.h"

namespace NyHost {

class SystemResource final : public NyRest::DocumentResourceBase {
  public:
    // `routineLimit`: how many routines may exist at once, so that a client can tell before it creates.
    SystemResource(NyCore::Core& core, unsigned routineLimit) : core(core), routineLimit(routineLimit) {}
    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;
    // Throws -997 unless the body is an object with an integer "runState" within the run states.
    void UpdateDocument(const NyRest::RequestInfo& request, const nlohmann::json& body) override;

    // Run states are codes the core compares (1: running); the core stores an int, and no code is
    // negative, so the domain is 0 to the largest int.
    static constexpr int kMinRunState = 0;
    static constexpr int kMaxRunState = std::numeric_limits<int>::max();
    // The run state `value` names; throws -997 for anything but an integer in that domain.
    static int RunStateFrom(const nlohmann::json& value);

  private:
    NyCore::Core& core;
    const unsigned routineLimit;
};

class FactoryRestoreCommand final : public NyRest::CommandResourceBase {
  public:
    explicit FactoryRestoreCommand(NyCore::Core& core) : core(core) {}
    nlohmann::json Call(const NyRest::RequestInfo& request, const nlohmann::json& arguments) override;

  private:
    NyCore::Core& core;
};

class PluginsResource final : public NyRest::DocumentResourceBase {
  public:
    explicit PluginsResource(NyPlugin::PluginManager& plugins) : plugins(plugins) {}
    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;

    // "2026-11-23T21:04:53.897Z": ISO 8601 in UTC with milliseconds.
    static std::string Iso8601(std::chrono::system_clock::time_point time);

  private:
    NyPlugin::PluginManager& plugins;
};

// A fixed document of a given size, served through the same router and transport as routine documents,
// so that a benchmark can tell the cost of the engine from the cost of serving.
class FixedReplyResource final : public NyRest::DocumentResourceBase {
  public:
    explicit FixedReplyResource(unsigned bytes);
    nlohmann::json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override;

  private:
    nlohmann::json reply;
};

// Registers the resources on construction and withdraws them on destruction.
class OperatorResources {
  public:
    OperatorResources(NyRest::ResourceRouter& router, NyCore::Core& core, NyPlugin::PluginManager& plugins,
                      unsigned fixedReplyBytes, unsigned routineLimit);
    ~OperatorResources();
    OperatorResources(const OperatorResources&) = delete;
    OperatorResources& operator=(const OperatorResources&) = delete;

  private:
    NyRest::ResourceRouter& router;
    SystemResource system;
    FactoryRestoreCommand factoryRestore;
    PluginsResource pluginList;
    std::unique_ptr<FixedReplyResource> fixedReply;
};

}  // namespace NyHost
