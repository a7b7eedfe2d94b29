// `NyRoutine::IRoutine`: what a plug-in's routine code implements.
//
// A routine object is made by its type's factory for one routine instance and shared (std::shared_ptr)
// between the engine's entry and the instance. The engine calls, in this order of slots:
//   SetCreateParams  right after the factory made the object, only when creation parameters exist;
//   Run              once, as the first job on the routine's own thread, with the routine's host;
//   FreeResults      for a results structure handed over with IRoutineHost::SetResults, when it is
//                    replaced by the next one and when the instance is destroyed.
// RoutineBase<Results> (NyRoutine/RoutineBase.h) supplies SetCreateParams and FreeResults, so a routine
// class derived from it writes only Run. Run and every continue callback run on the routine's thread,
// one at a time, never concurrently with each other. A std::exception escaping Run or a continue callback
// ends the routine in state Failed with the exception's text as its details.
#pragma once

#include <memory>

namespace Ny::Params {
class Group;
}
namespace Ny::Properties {
class Structure;
}

namespace NyRoutine {

class IRoutineHost;

class IRoutine {
  public:
    virtual ~IRoutine() = default;
    virtual void SetCreateParams(std::shared_ptr<Ny::Params::Group> params) = 0;
    virtual void Run(IRoutineHost& host) = 0;
    virtual void FreeResults(const Ny::Properties::Structure* results) = 0;
};

}  // namespace NyRoutine
