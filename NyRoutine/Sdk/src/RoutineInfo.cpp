#include "NyRoutine/RoutineInfo.h"

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyValues/Params/Group.h"

namespace NyRoutine {

RoutineInfo::RoutineInfo() = default;

RoutineInfo::RoutineInfo(const std::string& typeNameIn, IRoutineFactory& factoryIn, bool skipStartParamsIn)
    : typeName(typeNameIn),
      factory(&factoryIn),
      creationParams(std::make_shared<Ny::Params::Group>()),
      skipStartParams(skipStartParamsIn) {}

RoutineInfo::RoutineInfo(const std::string& typeNameIn, bool skipStartParamsIn)
    : typeName(typeNameIn),
      creationParams(std::make_shared<Ny::Params::Group>()),
      skipStartParams(skipStartParamsIn) {}

RoutineInfo::RoutineInfo(const RoutineInfo& other) = default;

RoutineInfo& RoutineInfo::operator=(const RoutineInfo& other) = default;

RoutineInfo::~RoutineInfo() = default;

IRoutineFactory& RoutineInfo::Factory() const {
    if (factory == nullptr) {
        throw NY_EXCEPTION(Ny::Status::NoFactory);
    }
    return *factory;
}

std::unique_ptr<Ny::Params::Group> RoutineInfo::CreationParams() const {
    return creationParamsFactory ? creationParamsFactory() : nullptr;
}

const Ny::Params::Group& RoutineInfo::CreationParamsReadOnly() const {
    return *creationParams;
}

RoutineInfo& RoutineInfo::SetTypeName(const char* name) {
    typeName = name;
    return *this;
}

RoutineInfo& RoutineInfo::SetDisplayName(const char* name) {
    displayName = name;
    return *this;
}

RoutineInfo& RoutineInfo::SetDescription(const char* text) {
    description = text;
    return *this;
}

RoutineInfo& RoutineInfo::SetFactory(IRoutineFactory& factoryIn) {
    factory = &factoryIn;
    factoryOwner.reset();  // whatever it owned is no longer the factory
    return *this;
}

RoutineInfo& RoutineInfo::SetFactory(std::shared_ptr<IRoutineFactory> factoryIn) {
    if (!factoryIn) {
        throw NY_EXCEPTION(Ny::Status::NoFactory, "Routine type %s was given no factory.", typeName.c_str());
    }
    factory = factoryIn.get();
    factoryOwner = std::move(factoryIn);
    return *this;
}

RoutineInfo& RoutineInfo::SetSkipStartParams(bool skip) {
    skipStartParams = skip;
    return *this;
}

RoutineInfo& RoutineInfo::SetCreationParamsFactory(CreationParamsFx fx) {
    NY_LOG(Ny::Logging::Level::Progress, "Setting creation params factory for routine type %s.",
           typeName.c_str());
    creationParamsFactory = fx;
    // Other copies of the record keep the group they had.
    creationParams = std::shared_ptr<Ny::Params::Group>(fx());
    return *this;
}

}  // namespace NyRoutine
