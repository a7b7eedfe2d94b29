// `NyHost::LogBudget`: lets at most `perSecond` log lines a second through (a burst of as many), so
// that a client sending refused requests as fast as it can cannot fill the operator's disk. The first
// line let through after some were held back says how many were.
//
// One budget per kind of line that a client can cause without authenticating (transport refusals,
// dropped clients, audit lines of refused requests). Lines about what authenticated clients did are
// never held back. Thread-safe; cheap enough to ask before every such line.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <optional>

#include "NyApi/Mutex.h"

namespace NyHost {

class LogBudget {
  public:
    explicit LogBudget(unsigned perSecondIn) : perSecond(perSecondIn), tokens(perSecondIn) {}

    // Null: drop the line. Otherwise the number of lines dropped since the last one let through.
    std::optional<std::size_t> Take() {
        Ny::MutexLock guard(mutex);
        const auto now = std::chrono::steady_clock::now();
        const double seconds = std::chrono::duration<double>(now - refilled).count();
        refilled = now;
        tokens = std::min<double>(perSecond, tokens + seconds * perSecond);
        if (tokens < 1.0) {
            ++dropped;
            return std::nullopt;
        }
        tokens -= 1.0;
        const std::size_t held = dropped;
        dropped = 0;
        return held;
    }

  private:
    const unsigned perSecond;
    Ny::Mutex mutex;  // guards the bucket; innermost, nothing else runs under it
    double tokens NY_GUARDED_BY(mutex);
    std::chrono::steady_clock::time_point refilled NY_GUARDED_BY(mutex) = std::chrono::steady_clock::now();
    std::size_t dropped NY_GUARDED_BY(mutex) = 0;
};

}  // namespace NyHost
