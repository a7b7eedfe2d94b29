#include "HostProcess.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <thread>

extern char** environ;

namespace NyTest {

std::string HttpReply::Header(const std::string& name) const {
    for (const auto& [key, value] : headers) {
        if (strcasecmp(key.c_str(), name.c_str()) == 0) {
            return value;
        }
    }
    return {};
}

HttpConnection::HttpConnection(int port, std::chrono::milliseconds timeout) {
    socket = ::socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{static_cast<time_t>(timeout.count() / 1000),
               static_cast<suseconds_t>((timeout.count() % 1000) * 1000)};
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(socket, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        throw std::runtime_error("cannot connect to the host");
    }
}

HttpConnection::~HttpConnection() {
    ::close(socket);
}

bool HttpConnection::SendRaw(const std::string& bytes) {
    size_t sent = 0;
    while (sent < bytes.size()) {
        const ssize_t n = ::send(socket, bytes.data() + sent, bytes.size() - sent, MSG_NOSIGNAL);
        if (n <= 0) {
            return false;
        }
        sent += static_cast<size_t>(n);
    }
    return true;
}

std::string HttpConnection::ReadUntil(const std::function<bool(const std::string&)>& done) {
    char buffer[8192];
    while (!done(pending)) {
        const ssize_t n = ::recv(socket, buffer, sizeof buffer, 0);
        if (n <= 0) {
            break;
        }
        pending.append(buffer, static_cast<size_t>(n));
    }
    return pending;
}

HttpReply HttpConnection::ReadReply() {
    HttpReply reply;
    ReadUntil([](const std::string& data) { return data.find("\r\n\r\n") != std::string::npos; });
    const size_t headerEnd = pending.find("\r\n\r\n");
    if (headerEnd == std::string::npos) {
        return reply;
    }
    const std::string head = pending.substr(0, headerEnd);
    size_t lineEnd = head.find("\r\n");
    reply.status = std::stoi(head.substr(9, 3));
    size_t length = 0;
    while (lineEnd != std::string::npos && lineEnd < head.size()) {
        const size_t next = head.find("\r\n", lineEnd + 2);
        const std::string line =
            head.substr(lineEnd + 2, next == std::string::npos ? std::string::npos : next - lineEnd - 2);
        const size_t colon = line.find(':');
        if (colon != std::string::npos) {
            std::string value = line.substr(colon + 1);
            value.erase(0, value.find_first_not_of(' '));
            reply.headers.emplace_back(line.substr(0, colon), value);
            if (strcasecmp(line.substr(0, colon).c_str(), "Content-Length") == 0) {
                length = std::stoul(value);
            }
        }
        lineEnd = next;
    }
    ReadUntil([&](const std::string& data) { return data.size() >= headerEnd + 4 + length; });
    reply.body = pending.substr(headerEnd + 4, length);
    pending.erase(0, std::min(pending.size(), headerEnd + 4 + length));
    return reply;
}

HostProcess::HostProcess(std::vector<std::string> extraArguments) {
    int output[2];
    if (pipe(output) != 0) {
        throw std::runtime_error("pipe failed");
    }
    std::vector<std::string> arguments = {NYR_HOST, "--listen",  "127.0.0.1:0", "--plugins", NYR_PLUGIN_DIR,
                                          "--web",  NYR_WEB_DIR, "--log-level", "error"};
    arguments.insert(arguments.end(), extraArguments.begin(), extraArguments.end());
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, output[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, output[0]);
    if (posix_spawn(&pid, NYR_HOST, &actions, nullptr, argv.data(), environ) != 0) {
        throw std::runtime_error("cannot start routine-host");
    }
    posix_spawn_file_actions_destroy(&actions);
    ::close(output[1]);
    // The host prints one line when it is ready: "listening on http://127.0.0.1:<port>".
    std::string line;
    char c;
    timeval tv{30, 0};
    fd_set ready;
    while (line.find('\n') == std::string::npos) {
        FD_ZERO(&ready);
        FD_SET(output[0], &ready);
        if (select(output[0] + 1, &ready, nullptr, nullptr, &tv) <= 0 || ::read(output[0], &c, 1) != 1) {
            break;
        }
        line.push_back(c);
    }
    ::close(output[0]);
    const size_t colon = line.rfind(':');
    if (line.rfind("listening on http://", 0) != 0 || colon == std::string::npos) {
        throw std::runtime_error("routine-host did not start: " + line);
    }
    port = std::stoi(line.substr(colon + 1));
}

HostProcess::~HostProcess() {
    if (pid > 0 && Terminate(std::chrono::seconds(10)) == -1) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
}

long HostProcess::ResidentKiB() const {
    FILE* status = std::fopen(("/proc/" + std::to_string(pid) + "/status").c_str(), "r");
    long kib = -1;
    char line[256];
    while (status != nullptr && std::fgets(line, sizeof line, status) != nullptr) {
        if (std::sscanf(line, "VmRSS: %ld kB", &kib) == 1) {
            break;
        }
    }
    if (status != nullptr) {
        std::fclose(status);
    }
    return kib;
}

int HostProcess::Terminate(std::chrono::milliseconds timeout) {
    if (pid <= 0) {
        return -1;
    }
    kill(pid, SIGTERM);
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    int status = 0;
    while (std::chrono::steady_clock::now() < deadline) {
        if (waitpid(pid, &status, WNOHANG) == pid) {
            pid = -1;
            return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return -1;
}

HttpReply HostProcess::Request(const std::string& method, const std::string& target, const std::string& body,
                               const std::vector<std::string>& headers) {
    HttpConnection connection(port);
    std::string request = method + " " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n";
    for (const auto& header : headers) {
        request += header + "\r\n";
    }
    if (!body.empty() || method == "POST" || method == "PUT" || method == "PATCH") {
        request +=
            "Content-Type: application/json\r\nContent-Length: " + std::to_string(body.size()) + "\r\n";
    }
    request += "\r\n" + body;
    connection.SendRaw(request);
    return connection.ReadReply();
}

}  // namespace NyTest
