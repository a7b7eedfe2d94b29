// The real routine-host under a service manager, played by this test: the notification socket it
// reports to (readiness, watchdog, stopping) and the listening sockets it is handed. Every wait is a
// poll with a generous bound.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HostProcess.h"
#include "Sync.h"

extern char** environ;

namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using NyTest::HostProcess;
using NyTest::HttpConnection;

// The watchdog time-out the test asks for; the host pings at half of it.
constexpr int kWatchdogUsec = 400000;
constexpr auto kPingInterval = std::chrono::microseconds(kWatchdogUsec / 2);

// The service manager's end of the notification socket: a datagram socket on a temporary path.
class NotifySocket {
  public:
    NotifySocket() {
        char pattern[] = "/tmp/nyr-notify-XXXXXX";
        dir = ::mkdtemp(pattern);
        path = dir + "/notify";
        fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        std::snprintf(address.sun_path, sizeof address.sun_path, "%s", path.c_str());
        bound = ::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~NotifySocket() {
        ::close(fd);
        ::unlink(path.c_str());
        ::rmdir(dir.c_str());
    }
    NotifySocket(const NotifySocket&) = delete;
    NotifySocket& operator=(const NotifySocket&) = delete;

    bool Bound() const { return bound; }
    std::string Variable() const { return "NOTIFY_SOCKET=" + path; }

    // The next message, or nothing within `timeout`.
    std::optional<std::string> Next(std::chrono::milliseconds timeout) {
        pollfd ready{fd, POLLIN, 0};
        if (::poll(&ready, 1, static_cast<int>(timeout.count())) != 1) {
            return std::nullopt;
        }
        char message[4096];
        const ssize_t length = ::recv(fd, message, sizeof message, 0);
        return length < 0 ? std::nullopt : std::optional<std::string>(std::string(message, length));
    }

    // Waits for a message holding `line` (e.g. "READY=1"), at most `timeout`; the messages before it
    // are counted in `skipped` by whether they are pings.
    bool WaitFor(const std::string& line, std::chrono::milliseconds timeout = 10s,
                 int* pingsSkipped = nullptr) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return false;
            }
            const auto message = Next(left);
            if (!message) {
                return false;
            }
            if (HasLine(*message, line)) {
                return true;
            }
            if (pingsSkipped != nullptr && HasLine(*message, "WATCHDOG=1")) {
                ++*pingsSkipped;
            }
        }
    }

    // The pings that arrive within `window` (counting every message that carries one).
    int PingsWithin(std::chrono::milliseconds window) {
        int pings = 0;
        const auto deadline = std::chrono::steady_clock::now() + window;
        for (;;) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                deadline - std::chrono::steady_clock::now());
            if (left.count() <= 0) {
                return pings;
            }
            const auto message = Next(left);
            if (!message) {
                return pings;
            }
            pings += HasLine(*message, "WATCHDOG=1") ? 1 : 0;
        }
    }

    static bool HasLine(const std::string& message, const std::string& line) {
        std::istringstream lines(message);
        for (std::string each; std::getline(lines, each);) {
            if (each == line) {
                return true;
            }
        }
        return false;
    }

  private:
    std::string dir;
    std::string path;
    int fd = -1;
    bool bound = false;
};

bool Accepts(int port) {
    try {
        HttpConnection connection(port, 2s);
        return true;
    } catch (const std::exception&) {
        return false;
    }
}

// Holds the one worker: the abort of a "HoldsAbort" routine runs its completion callback on the request's
// thread, and that callback waits until the gate file exists.
class Gate {
  public:
    Gate() {
        char pattern[] = "/tmp/nyr-gate-XXXXXX";
        dir = ::mkdtemp(pattern);
        path = dir + "/open";
    }
    ~Gate() {
        ::unlink(path.c_str());
        ::unlink((path + ".running").c_str());
        ::unlink((path + ".changing").c_str());
        ::rmdir(dir.c_str());
    }
    Gate(const Gate&) = delete;
    Gate& operator=(const Gate&) = delete;
    std::string Variable() const { return "NYR_TEST_GATE=" + path; }
    void Open() const { std::ofstream(path) << "open\n"; }
    // The routine's code runs and its abort will hold (see HoldingPlugin.cpp).
    bool Running() const { return ::access((path + ".running").c_str(), F_OK) == 0; }
    // A "HoldsChange" routine's change callback waits at the gate (see HoldingPlugin.cpp).
    bool Changing() const { return ::access((path + ".changing").c_str(), F_OK) == 0; }

  private:
    std::string dir;
    std::string path;
};

TEST(ServiceManager, ReadyOnceListeningWatchdogWhileWorkersAnswerStoppingOnTerm) {
    NotifySocket notify;
    ASSERT_TRUE(notify.Bound());
    Gate gate;
    HostProcess host({"--plugins", NYR_HOLDING_PLUGIN_DIR, "--workers", "1", "--log-level", "info"},
                     {notify.Variable(), "WATCHDOG_USEC=" + std::to_string(kWatchdogUsec), gate.Variable()});
    // Ready is told once the port accepts: whoever the manager starts after it can connect at once.
    ASSERT_TRUE(notify.WaitFor("READY=1")) << host.Log();
    EXPECT_TRUE(Accepts(host.Port()));
    int pings = 0;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(notify.WaitFor("WATCHDOG=1")) << "ping " << i << "\n" << host.Log();
    }

    // The one worker held by an abort whose completion waits: health says so, and the pings stop.
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "HoldsAbort"}}).status, 201) << host.Log();
    ASSERT_TRUE(NyTest::Eventually(
        [&] { return host.Request("GET", "/routines/HoldsAbort-0").Json().value("currentStep", 0) == 1; }));
    HttpConnection abort(host.Port(), 60s);
    ASSERT_TRUE(abort.SendRaw("POST /routines/HoldsAbort-0/commands/abort HTTP/1.1\r\n" + host.HostHeader() +
                              "\r\nContent-Length: 0\r\n\r\n"));
    ASSERT_TRUE(NyTest::Eventually([&] { return host.Request("GET", "/health").status == 503; }, 20s))
        << "the abort did not hold the only worker\n"
        << host.Log();
    EXPECT_EQ(host.Request("GET", "/health").Json(), json({{"status", "unavailable"}}));
    // A ping whose probe ran before the hold may still be on its way; then silence for ten intervals.
    notify.PingsWithin(std::chrono::duration_cast<std::chrono::milliseconds>(kPingInterval));
    EXPECT_EQ(notify.PingsWithin(std::chrono::duration_cast<std::chrono::milliseconds>(kPingInterval * 10)),
              0);

    gate.Open();
    EXPECT_EQ(abort.ReadReply().status, 200);
    EXPECT_TRUE(notify.WaitFor("WATCHDOG=1", 10s));
    EXPECT_TRUE(notify.WaitFor("WATCHDOG=1", 10s));
    EXPECT_TRUE(NyTest::Eventually([&] { return host.Request("GET", "/health").status == 200; }));

    EXPECT_EQ(host.Terminate(30s), 0);
    EXPECT_TRUE(notify.WaitFor("STOPPING=1", 5s, &pings));
}

// The host started as a service manager starts it for a socket unit: the listening sockets on fd 3
// onwards, LISTEN_FDS=<their count> and LISTEN_PID naming the host itself.
// Plug-in code holding a routine's lock (a slow change callback) must hold neither the network threads,
// where reads run, nor the watchdog: reads of that routine wait on a worker, everything else goes on.
TEST(ServiceManager, ReadsWaitingForPluginCodeHoldNeitherTheNetworkNorTheWatchdog) {
    NotifySocket notify;
    ASSERT_TRUE(notify.Bound());
    Gate gate;
    HostProcess host({"--plugins", NYR_HOLDING_PLUGIN_DIR, "--log-level", "info"},
                     {notify.Variable(), "WATCHDOG_USEC=" + std::to_string(kWatchdogUsec), gate.Variable()});
    ASSERT_TRUE(notify.WaitFor("READY=1")) << host.Log();
    ASSERT_EQ(
        host.Request("POST", "/routines", json{{"type", "HoldsChange"}}.dump(), {"Prefer: respond-async"})
            .status,
        202)
        << host.Log();
    const std::string routine = "/routines/HoldsChange-0";
    ASSERT_TRUE(NyTest::Eventually([&] { return host.Request("GET", routine).status == 200; }, 20s));
    HttpConnection change(host.Port(), 60s);
    ASSERT_TRUE(change.SendRaw("PATCH " + routine + " HTTP/1.1\r\n" + host.HostHeader() +
                               "\r\nContent-Type: application/json\r\nContent-Length: 28\r\n\r\n"
                               "{\"parameters\":{\"samples\":5}}"));
    ASSERT_TRUE(NyTest::Eventually([&] { return gate.Changing(); }, 20s)) << host.Log();

    // More reads of the held routine than there are network threads: each would have held one.
    std::vector<std::unique_ptr<HttpConnection>> readers;
    for (int i = 0; i < 4; ++i) {
        readers.push_back(std::make_unique<HttpConnection>(host.Port(), 60s));
        ASSERT_TRUE(
            readers.back()->SendRaw("GET " + routine + " HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n"));
    }
    // While the gate is closed: other reads, health and the watchdog all answer.
    HttpConnection other(host.Port(), 10s);
    ASSERT_TRUE(other.SendRaw("GET /health HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n"));
    EXPECT_EQ(other.ReadReply().status, 200) << host.Log();
    ASSERT_TRUE(other.SendRaw("GET /routineTypes HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n"));
    EXPECT_EQ(other.ReadReply().status, 200) << host.Log();
    EXPECT_TRUE(notify.WaitFor("WATCHDOG=1")) << host.Log();

    gate.Open();
    EXPECT_EQ(change.ReadReply().status, 204) << host.Log();
    for (auto& reader : readers) {
        const auto reply = reader->ReadReply();
        EXPECT_EQ(reply.status, 200) << host.Log();
        EXPECT_EQ(json::parse(reply.body, nullptr, false)
                      .value("parameters", json::object())
                      .value("samples", json()),
                  json(5))
            << reply.body;
    }
    // A read that moved to a worker is no failure, and a client repeating it must not fill the log.
    EXPECT_EQ(host.Log().find("failed"), std::string::npos) << host.Log();
}

class ActivatedHost {
  public:
    // `listening`: bound and listening; handed to the host as fd 3, 4, ... in this order and closed here.
    ActivatedHost(std::vector<int> listening, std::vector<std::string> extraArguments) {
        int output[2];
        if (::pipe2(output, O_CLOEXEC) != 0) {
            throw std::runtime_error("pipe failed");
        }
        char logPattern[] = "/tmp/nyr-activated-XXXXXX";
        const int log = ::mkstemp(logPattern);
        logFile = logPattern;
        std::vector<std::string> arguments = {
            NYR_HOST,    "--plugins", NYR_PLUGIN_DIR, "--web",
            NYR_WEB_DIR, "--listen",  "127.0.0.1:1"};  // ignored: the socket is handed over
        arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
        std::vector<std::string> variables;
        for (char** entry = environ; *entry != nullptr; ++entry) {
            if (std::strncmp(*entry, "LISTEN_", 7) != 0 && std::strncmp(*entry, "NOTIFY_SOCKET=", 14) != 0) {
                variables.emplace_back(*entry);
            }
        }
        variables.emplace_back("LISTEN_FDS=" + std::to_string(listening.size()));
        // Filled in the child, which alone knows its pid: only async-signal-safe work after fork.
        variables.emplace_back("LISTEN_PID=" + std::string(20, '\0'));
        std::vector<char*> argv;
        for (auto& argument : arguments) {
            argv.push_back(argument.data());
        }
        argv.push_back(nullptr);
        std::vector<char*> envp;
        for (auto& variable : variables) {
            envp.push_back(variable.data());
        }
        envp.push_back(nullptr);
        char* pidText = variables.back().data() + std::strlen("LISTEN_PID=");

        pid = ::fork();
        if (pid == 0) {
            long self = ::getpid();
            char digits[20];
            int count = 0;
            do {
                digits[count++] = static_cast<char>('0' + self % 10);
                self /= 10;
            } while (self > 0);
            for (int i = 0; i < count; ++i) {
                pidText[i] = digits[count - 1 - i];
            }
            pidText[count] = '\0';
            ::dup2(output[1], STDOUT_FILENO);
            ::dup2(log, STDERR_FILENO);
            // Moved out of the way first, so that placing one cannot overwrite another that sits on its
            // target; the copies close on exec, and dup2's targets do not.
            for (int& fd : listening) {
                fd = ::fcntl(fd, F_DUPFD_CLOEXEC, kSpareFdBase);
            }
            for (std::size_t i = 0; i < listening.size(); ++i) {
                ::dup2(listening[i], 3 + static_cast<int>(i));
            }
            ::execve(NYR_HOST, argv.data(), envp.data());
            ::_exit(127);
        }
        ::close(output[1]);
        ::close(log);
        for (const int fd : listening) {
            ::close(fd);
        }
        // "listening on ..." once serving; nothing (end of file) when it refused to start.
        std::string line;
        pollfd ready{output[0], POLLIN, 0};
        char c = 0;
        while (line.find('\n') == std::string::npos && ::poll(&ready, 1, 30000) == 1 &&
               ::read(output[0], &c, 1) == 1) {
            line.push_back(c);
        }
        ::close(output[0]);
        firstLine = line;
    }
    ~ActivatedHost() {
        if (pid > 0) {
            ::kill(pid, SIGKILL);
            ::waitpid(pid, nullptr, 0);
        }
        ::unlink(logFile.c_str());
    }
    ActivatedHost(const ActivatedHost&) = delete;
    ActivatedHost& operator=(const ActivatedHost&) = delete;

    // The exit status once it exits, within `timeout`; -1 if it runs on.
    int ExitStatus(std::chrono::milliseconds timeout) {
        const auto deadline = std::chrono::steady_clock::now() + timeout;
        int status = 0;
        while (std::chrono::steady_clock::now() < deadline) {
            if (::waitpid(pid, &status, WNOHANG) == pid) {
                pid = -1;
                return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
            }
            std::this_thread::sleep_for(5ms);
        }
        return -1;
    }
    int Terminate() {
        ::kill(pid, SIGTERM);
        return ExitStatus(30s);
    }
    std::string Log() const {
        std::ifstream file(logFile);
        return std::string(std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>());
    }

    std::string firstLine;

  private:
    static constexpr int kSpareFdBase = 100;  // above anything the handed-over sockets are moved to
    pid_t pid = -1;
    std::string logFile;
};

// A listening TCP socket on `address` and a free port.
int ListeningSocket(const char* address, int& port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in bound{};
    bound.sin_family = AF_INET;
    ::inet_pton(AF_INET, address, &bound.sin_addr);
    if (::bind(fd, reinterpret_cast<const sockaddr*>(&bound), sizeof bound) != 0 || ::listen(fd, 16) != 0) {
        ::close(fd);
        return -1;
    }
    socklen_t length = sizeof bound;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&bound), &length);
    port = ntohs(bound.sin_port);
    return fd;
}

TEST(ServiceManager, ServesTheSocketItIsHandedAndHoldsAWildcardOneToTheExposureRule) {
    {
        int port = 0;
        const int fd = ListeningSocket("127.0.0.1", port);
        ASSERT_GE(fd, 0);
        ActivatedHost host({fd}, {"--log-level", "info"});
        ASSERT_EQ(host.firstLine, "listening on http://127.0.0.1:" + std::to_string(port) + "\n")
            << host.Log();
        HttpConnection connection(port);
        ASSERT_TRUE(connection.SendRaw(
            "GET /routineTypes HTTP/1.1\r\nHost: 127.0.0.1:" + std::to_string(port) + "\r\n\r\n"));
        const auto reply = connection.ReadReply();
        EXPECT_EQ(reply.status, 200);
        EXPECT_TRUE(reply.Json().contains("routineTypes"));
        EXPECT_NE(host.Log().find("handed over by the service manager; --listen is ignored."),
                  std::string::npos);
        EXPECT_EQ(host.Terminate(), 0);
    }
    {
        // Two sockets (two ListenStream= lines): each is served, and a request naming either port, by
        // any of the host's names, is this host's.
        int firstPort = 0;
        int secondPort = 0;
        const int firstFd = ListeningSocket("127.0.0.1", firstPort);
        const int secondFd = ListeningSocket("127.0.0.1", secondPort);
        ASSERT_GE(firstFd, 0);
        ASSERT_GE(secondFd, 0);
        ActivatedHost host({firstFd, secondFd}, {});
        ASSERT_EQ(host.firstLine, "listening on http://127.0.0.1:" + std::to_string(firstPort) + "\n")
            << host.Log();
        for (const int port : {firstPort, secondPort}) {
            for (const std::string name : {"127.0.0.1", "localhost"}) {
                HttpConnection connection(port);
                ASSERT_TRUE(connection.SendRaw("GET /routineTypes HTTP/1.1\r\nHost: " + name + ":" +
                                               std::to_string(port) + "\r\n\r\n"));
                const auto reply = connection.ReadReply();
                EXPECT_EQ(reply.status, 200) << name << ":" << port;
            }
        }
        // A port that is none of ours (a free one is never 1) still names another server.
        HttpConnection connection(secondPort);
        ASSERT_TRUE(connection.SendRaw("GET /routineTypes HTTP/1.1\r\nHost: 127.0.0.1:1\r\n\r\n"));
        EXPECT_EQ(connection.ReadReply().status, 421);
        EXPECT_EQ(host.Terminate(), 0);
    }
    {
        // Every address: reachable from other machines, so refused without TLS and a token, although the
        // options name loopback. The host never serves on it.
        int port = 0;
        const int fd = ListeningSocket("0.0.0.0", port);
        ASSERT_GE(fd, 0);
        ActivatedHost host({fd}, {"--token", "0123456789abcdef0123"});
        EXPECT_EQ(host.firstLine, "");
        // A refused setting: the unit does not restart it on every connection the socket takes.
        EXPECT_EQ(host.ExitStatus(30s), 2);
        const std::string log = host.Log();
        EXPECT_NE(log.find("cannot start: The socket handed over on 0.0.0.0 needs TLS"), std::string::npos)
            << log;
        EXPECT_NE(log.find("missing: TLS "), std::string::npos) << log;
    }
    {
        // A datagram socket on loopback passes the exposure rule but cannot be served: refused as well.
        const int fd = ::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
        sockaddr_in bound{};
        bound.sin_family = AF_INET;
        bound.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        ASSERT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&bound), sizeof bound), 0);
        ActivatedHost host({fd}, {});
        EXPECT_EQ(host.firstLine, "");
        EXPECT_EQ(host.ExitStatus(30s), 2);
        EXPECT_NE(host.Log().find("not a listening TCP socket"), std::string::npos) << host.Log();
    }
}

}  // namespace
