// `ServiceManager`: what the host tells the service manager that started it, and what it is handed by it.
//
// What it is for: under a service manager the host says when it is ready (it listens), when it stops,
// and that it is alive (the watchdog), and it may be handed its listening sockets instead of binding
// them (socket activation). Outside a service manager (no NOTIFY_SOCKET, no LISTEN_FDS) every call does
// nothing and asks for nothing, so the host runs the same by hand.
//
// Ownership and lifetime: main owns one for the process's life. The descriptors ListenFds() returns are
// the caller's from then on.
//
// Threads: Ready, Stopping and ListenFds from the main thread; Ping from the transport's I/O thread (the
// watchdog's timer), so that a stuck I/O thread stops the pings as surely as held workers do. Each call
// sends one datagram of its own and shares no state: all are thread-safe.
#pragma once

#include <chrono>
#include <string>
#include <vector>

namespace NyHost {

class ServiceManager {
  public:
    // Tells the service manager that the host is ready (it listens), with a status line for its
    // listing ("STATUS=").
    void Ready(const std::string& status) const;
    // Tells the service manager that the host is shutting down.
    void Stopping() const;
    // How often to ping: half the watchdog time-out the service manager asked for (so that one late ping
    // does not cost the service), or zero when it asked for none (or asked another process).
    std::chrono::milliseconds WatchdogInterval() const;
    // Tells the service manager that the host is alive. Quick; never blocks on the service manager.
    void Ping() const;
    // The listening sockets handed over (descriptors from 3 on), or none. Unsets the variables that
    // named them, so that a process the host starts is not handed them too; a second call returns none.
    std::vector<int> ListenFds() const;
};

}  // namespace NyHost
