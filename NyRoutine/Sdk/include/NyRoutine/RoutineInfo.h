// `NyRoutine::RoutineInfo`: the record of one routine type, built by plug-in code.
//
// A type has a unique name (the key clients create routines by, and the prefix of every routine id),
// a display name and a description for people, the factory that makes its routine objects, its
// creation parameters and the skip-start-params flag: when false, creating a routine of the type
// waits until the routine's first continue (the user confirms its start parameters).
//
// A copyable value: copies share the creation parameter group and point to the same factory. A record
// given its factory as a std::shared_ptr (SetFactory, or RoutinePlugin::AddRoutineInfo and
// AddRoutineType, which do that) shares the factory's ownership too: the factory lives as long as any
// copy of the record. A record given a factory by reference only points to it; whoever made the factory
// keeps it alive. Not thread-safe; the engine keeps its own copies.
//
//     plugin->AddRoutineType<Calibration>(NyRoutine::RoutineInfo("Calibration", false)
//                                             .SetDisplayName("Sensor calibration")
//                                             .SetDescription("Measures offset and gain."));
#pragma once

#include <functional>
#include <memory>
#include <string>

#include "NyRoutine/IRoutineFactory.h"

namespace Ny::Params {
class Group;
}

namespace NyRoutine {

class RoutineInfo {
  public:
    using CreationParamsFx = std::function<std::unique_ptr<Ny::Params::Group>()>;

    // An empty record: no factory, no creation parameter group; only ever assigned to.
    RoutineInfo();
    // Display name and description empty; a new, empty creation parameter group.
    RoutineInfo(const std::string& typeName, IRoutineFactory& factory, bool skipStartParams);
    // The same without a factory yet, for RoutinePlugin::AddRoutineType and AddRoutineInfo, which add
    // one; until then Factory() throws NoFactory (-992).
    RoutineInfo(const std::string& typeName, bool skipStartParams);
    // Only a bool says whether the start parameters are skipped: a factory's address, which would
    // convert to `true` without a word, does not compile.
    template <typename NotBool>
    RoutineInfo(const std::string&, NotBool) = delete;
    RoutineInfo(const RoutineInfo& other);
    RoutineInfo& operator=(const RoutineInfo& other);
    ~RoutineInfo();

    const char* TypeName() const { return typeName.c_str(); }
    const char* DisplayName() const { return displayName.c_str(); }
    const char* Description() const { return description.c_str(); }
    bool SkipStartParams() const { return skipStartParams; }
    // Throws Ny::Exception NoFactory (-992) when the record has no factory.
    IRoutineFactory& Factory() const;
    // A new group from the creation-params factory, or null when none is set.
    std::unique_ptr<Ny::Params::Group> CreationParams() const;
    // The shared creation parameter group. Precondition: the record has one (see HasCreationParams).
    const Ny::Params::Group& CreationParamsReadOnly() const;
    bool HasCreationParams() const { return creationParams != nullptr; }

    RoutineInfo& SetTypeName(const char* name);
    RoutineInfo& SetDisplayName(const char* name);
    RoutineInfo& SetDescription(const char* text);
    // Points to `factoryIn`, which the caller keeps alive as long as the record is registered.
    RoutineInfo& SetFactory(IRoutineFactory& factoryIn);
    // Points to `factoryIn` and shares its ownership (every copy of the record keeps it alive).
    // Throws Ny::Exception NoFactory (-992) when it is null.
    RoutineInfo& SetFactory(std::shared_ptr<IRoutineFactory> factoryIn);
    RoutineInfo& SetSkipStartParams(bool skip);
    // Stores `fx`, calls it once and makes its group the shared creation parameter group (null leaves
    // none). An empty `fx` throws std::bad_function_call after being stored.
    RoutineInfo& SetCreationParamsFactory(CreationParamsFx fx);

  private:
    std::string typeName;
    std::string displayName;
    std::string description;
    IRoutineFactory* factory = nullptr;
    std::shared_ptr<IRoutineFactory> factoryOwner;  // null, or the owner of *factory
    std::shared_ptr<Ny::Params::Group> creationParams;
    CreationParamsFx creationParamsFactory;
    bool skipStartParams = false;
};

}  // namespace NyRoutine
