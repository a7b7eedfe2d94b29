// `NyCore::Core`: the host's core object as the routine engine sees it.
//
// It knows the system's run state (1 means the system is running, and routines must not be created
// then) and announces a factory restore through `FactoryRestoreEvent()`. The host owns the core and
// sets the run state; it announces a factory restore with `AnnounceFactoryRestore()`, which raises the
// event synchronously on the calling thread. Thread-safe.
#pragma once

#include <atomic>

#include "NyApi/Event.h"

namespace NyCore {

class Core {
  public:
    static constexpr int Running = 1;

    Core() = default;
    Core(const Core&) = delete;
    Core& operator=(const Core&) = delete;

    int GetRunState() const { return runState.load(std::memory_order_acquire); }
    void SetRunState(int state) { runState.store(state, std::memory_order_release); }

    Ny::Event<>& FactoryRestoreEvent() { return factoryRestoreEvent; }
    void AnnounceFactoryRestore();

  private:
    std::atomic<int> runState{0};  // written by the host, read by request threads
    Ny::Event<> factoryRestoreEvent;
};

}  // namespace NyCore
