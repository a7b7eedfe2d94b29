// Runs the real routine-host on a free loopback port and talks HTTP to it over plain sockets.
//
// When the environment variable NYR_CONTRACT_RECORD_DIR names a folder, every reply a test reads with
// `HttpConnection::ReadReply` (and so every `HostProcess::Request`) is appended, with the request line it
// answers, to "<folder>/exchanges-<pid>.jsonl"; the API contract check validates each against the
// OpenAPI document afterwards.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <functional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace NyTest {

struct HttpReply {
    int status = 0;  // 0: no reply (connection closed or timed out)
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    nlohmann::json Json() const { return body.empty() ? nlohmann::json() : nlohmann::json::parse(body); }
    std::string Header(const std::string& name) const;
};

// One connection to the host, with a receive time-out so that no test waits without bound.
class HttpConnection {
  public:
    // `source`: the loopback address to connect from ("127.0.0.2" looks like another machine); empty:
    // the system's choice.
    HttpConnection(int port, std::chrono::milliseconds timeout = std::chrono::seconds(10),
                   const std::string& source = "");
    ~HttpConnection();
    HttpConnection(const HttpConnection&) = delete;
    HttpConnection& operator=(const HttpConnection&) = delete;

    bool SendRaw(const std::string& bytes);
    HttpReply ReadReply();
    // Reads whatever arrives until `done(received)` holds or the time-out passes; returns all received.
    std::string ReadUntil(const std::function<bool(const std::string&)>& done);

  private:
    struct SentRequest {
        std::string method;
        std::string target;
    };
    // Splits what was sent into requests, so that each reply is recorded with the request it answers
    // (several may be sent before the first reply is read).
    void NoteSent(const std::string& bytes);
    SentRequest TakeAnswered();

    int socket = -1;
    std::string pending;
    std::string unsent;             // sent bytes of a request whose header is not complete yet
    std::size_t bodyLeft = 0;       // bytes of the current request's body still to come
    std::vector<SentRequest> sent;  // requests sent whose reply has not been read
};

// What a host run that was expected to refuse its options left behind.
struct HostExit {
    int status = -1;     // exit status; -1: still running after the time-out (then killed)
    std::string output;  // stdout and stderr together
};

// Runs routine-host with these arguments (after the test's own) and environment additions until it
// exits, at most `timeout`.
HostExit RunHostToExit(const std::vector<std::string>& extraArguments,
                       const std::vector<std::string>& environment = {},
                       std::chrono::milliseconds timeout = std::chrono::seconds(10));

class HostProcess {
  public:
    // `environment`: "NAME=value" entries added to the test's own environment.
    explicit HostProcess(std::vector<std::string> extraArguments = {},
                         std::vector<std::string> environment = {});
    ~HostProcess();  // SIGTERM, then SIGKILL if it does not exit
    HostProcess(const HostProcess&) = delete;
    HostProcess& operator=(const HostProcess&) = delete;

    int Port() const { return port; }
    // "Host: 127.0.0.1:<port>", the header line that names this host.
    std::string HostHeader() const { return "Host: 127.0.0.1:" + std::to_string(port); }
    // What the host has written to stderr so far (its log).
    std::string Log() const;
    // The host's resident memory in KiB, from /proc.
    long ResidentKiB() const;
    HttpReply Request(const std::string& method, const std::string& target, const std::string& body = "",
                      const std::vector<std::string>& headers = {});
    HttpReply Request(const std::string& method, const std::string& target, const nlohmann::json& body) {
        return Request(method, target, body.dump());
    }
    // The "state" member of a routine's document.
    nlohmann::json RoutineState(const std::string& id) {
        return Request("GET", "/routines/" + id).Json()["state"];
    }
    // Headers sent with every Request from now on (set before clients run; not thread-safe).
    void SendAlways(std::string header) { alwaysHeaders.push_back(std::move(header)); }
    // Sends SIGTERM and waits (bounded) for the exit; returns the exit status, or -1 on time-out.
    int Terminate(std::chrono::milliseconds timeout);

  private:
    pid_t pid = -1;
    int port = 0;
    std::string logFile;  // the host's stderr; removed by the destructor
    std::vector<std::string> alwaysHeaders;
};

}  // namespace NyTest
