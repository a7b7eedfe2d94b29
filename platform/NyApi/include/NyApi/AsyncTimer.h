// `Ny::AsyncTimer`: calls its callback once per period on a thread of its own until stopped.
//
// `Start(period, oneShot)`: period in microseconds; with `oneShot` false the callback runs every
// period, with true once. `Stop()` returns only when no callback is running and none will start, so the
// owner may be destroyed right after (called from inside the callback it returns at once, and the
// timer stops after that callback; the timer must then outlive that callback). The timer owns its thread:
// started by `Start`, joined by `Stop` or the destructor. Start and Stop are thread-safe with respect to each
// other.
#pragma once

#include <cstdint>
#include <functional>
#include <thread>

#include "NyApi/Mutex.h"

namespace Ny {

class AsyncTimer {
  public:
    using Callback = std::function<void(AsyncTimer&)>;

    explicit AsyncTimer(Callback callback);
    ~AsyncTimer();
    AsyncTimer(const AsyncTimer&) = delete;
    AsyncTimer& operator=(const AsyncTimer&) = delete;

    // Starts (or restarts with a new period). The first callback comes one period after the start.
    void Start(std::uint64_t periodUs, bool oneShot);
    void Stop();

  private:
    void Loop(std::uint64_t periodUs, bool oneShot, std::uint64_t generation);

    Callback callback;
    Mutex mutex;   // guards generation and worker; a leaf, never held while the callback runs
    CondVar wake;  // stop requested
    std::uint64_t generation NY_GUARDED_BY(mutex) = 0;  // bumped by every Start and Stop
    std::thread worker NY_GUARDED_BY(mutex);
};

}  // namespace Ny
