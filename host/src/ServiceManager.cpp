#include "ServiceManager.h"

#include <systemd/sd-daemon.h>

#include <algorithm>
#include <cstdint>

#include "NyApi/Logging.h"

namespace NyHost {

namespace {

// Failing to reach the service manager must not stop the host: it serves on, and the manager acts on
// the missing message (a start time-out, a watchdog restart). Logged, since an operator wants to know.
void Notify(const std::string& message) {
    const int result = sd_notify(0, message.c_str());
    if (result < 0) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Telling the service manager \"%1$s\" failed (error %2$d).",
               message.c_str(), -result);
    }
}

}  // namespace

void ServiceManager::Ready(const std::string& status) const {
    // A status line must stay one line: the message is line-based.
    std::string line = status;
    for (char& c : line) {
        if (c == '\n' || c == '\r') {
            c = ' ';
        }
    }
    Notify("READY=1\nSTATUS=" + line);
}

void ServiceManager::Stopping() const {
    Notify("STOPPING=1\nSTATUS=Shutting down");
}

std::chrono::milliseconds ServiceManager::WatchdogInterval() const {
    std::uint64_t usec = 0;
    // Positive only when WATCHDOG_USEC is set and WATCHDOG_PID, if set, names this process.
    if (sd_watchdog_enabled(0, &usec) <= 0 || usec == 0) {
        return std::chrono::milliseconds::zero();
    }
    // At least a millisecond: a time-out below 2 ms would otherwise round to "no watchdog".
    return std::max(std::chrono::milliseconds(1), std::chrono::milliseconds(usec / 2000));
}

void ServiceManager::Ping() const {
    // Not through Notify: a failure every few seconds would flood the log; the manager sees the silence.
    sd_notify(0, "WATCHDOG=1");
}

std::vector<int> ServiceManager::ListenFds() const {
    const int count = sd_listen_fds(1);
    if (count < 0) {
        NY_LOG(Ny::Logging::Level::CaughtFailure,
               "The listening sockets handed over cannot be read (error %d).", -count);
        return {};
    }
    std::vector<int> fds;
    for (int i = 0; i < count; ++i) {
        fds.push_back(SD_LISTEN_FDS_START + i);
    }
    return fds;
}

}  // namespace NyHost
