// `Ny::Locker`: scoped holder of a runtime lock.
//
// The constructor enters the lock (optionally with a time-out in microseconds) and throws
// `Ny::Exception` with the runtime's status when that fails; the destructor exits it. A failed exit is
// logged ("Exception thrown in destructor", caught-failure level) and never thrown.
#pragma once

#include <cstdint>

#include "NyApi/Exception.h"
#include "NyRuntime/Runtime.h"

namespace Ny {

class Locker {
  public:
    explicit Locker(NyRt::Lock* lockIn, std::uint64_t timeoutUs = NyRt::NoTimeout) : lock(lockIn) {
        NY_CHECK_RT(NyRt::LockEnter(lock, timeoutUs));
    }
    ~Locker() {
        if (NyRt::LockExit(lock) != NyRt::Ok) {
            NY_LOG(Logging::Level::CaughtFailure, "Exception thrown in destructor");
        }
    }
    Locker(const Locker&) = delete;
    Locker& operator=(const Locker&) = delete;

  private:
    NyRt::Lock* lock;
};

}  // namespace Ny
