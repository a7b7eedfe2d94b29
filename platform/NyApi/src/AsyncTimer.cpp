#include "NyApi/AsyncTimer.h"

#include <chrono>
#include <exception>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"

namespace Ny {

AsyncTimer::AsyncTimer(Callback callbackIn) : callback(std::move(callbackIn)) {}

AsyncTimer::~AsyncTimer() {
    Stop();
}

void AsyncTimer::Start(std::uint64_t periodUs, bool oneShot) {
    Stop();
    MutexLock guard(mutex);
    const std::uint64_t mine = ++generation;
    worker = std::thread([this, periodUs, oneShot, mine] { Loop(periodUs, oneShot, mine); });
}

void AsyncTimer::Stop() {
    std::thread finished;
    {
        MutexLock guard(mutex);
        ++generation;
        finished = std::move(worker);
    }
    wake.NotifyAll();
    if (!finished.joinable()) {
        return;
    }
    if (finished.get_id() == std::this_thread::get_id()) {
        // Stop from inside the callback: the loop sees the new generation and ends after it returns.
        finished.detach();
        return;
    }
    finished.join();
}

void AsyncTimer::Loop(std::uint64_t periodUs, bool oneShot, std::uint64_t mine) {
    const auto period = std::chrono::microseconds(periodUs);
    auto next = std::chrono::steady_clock::now() + period;
    for (;;) {
        {
            MutexLock guard(mutex);
            while (generation == mine) {
                if (!wake.WaitUntil(mutex, next)) {
                    break;
                }
            }
            if (generation != mine) {
                return;
            }
        }
        try {
            callback(*this);
        } catch (const std::exception& e) {
            NY_LOG(Logging::Level::CaughtFailure, "AsyncTimer callback exception: %s", e.what());
            Exception::LogException(e, 0);
        } catch (...) {
            NY_LOG(Logging::Level::CaughtFailure, "AsyncTimer callback exception of unknown type");
        }
        if (oneShot) {
            return;
        }
        // Keep the rate: a late tick does not shift the later ones, but never queue a burst.
        next += period;
        const auto now = std::chrono::steady_clock::now();
        if (next < now) {
            next = now + period;
        }
    }
}

}  // namespace Ny
