// Fuzzes the HTTP transport's own connection read path: each input is written, in up to three pieces,
// to a fresh loopback connection of a live server (a trivial filter and handler behind it), the sending
// side is shut, and whatever the server answers is read until it closes. The server must never crash,
// hang a connection past its time-out, or stop answering: every input ends with a health request on a
// second connection that must be answered.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "HttpServer.h"

namespace {

using NyHost::HttpRequest;

[[noreturn]] void Fail(const char* what) {
    std::fprintf(stderr, "http_fuzzer: %s (%s)\n", what, std::strerror(errno));
    std::abort();
}
using NyHost::HttpResponse;

// Generous: an input the server would hold longer is a hang worth reporting, not a slow run.
constexpr int kReceiveTimeoutSeconds = 5;

NyHost::HttpServer& Server() {
    static auto* server = [] {
        NyHost::HttpServerOptions options;
        options.port = 0;
        options.workerThreads = 2;
        options.bodyLimit = 64 * 1024;
        options.readTimeout = std::chrono::milliseconds(2000);
        options.maxWaitingRequests = 2;
        options.mayWait = [](const HttpRequest& request) { return request.target == "/wait"; };
        auto* created = new NyHost::HttpServer(
            options,
            [](const HttpRequest& request) {
                // Quotes the client's bytes back, as a careless handler would.
                return HttpResponse{200, {{"X-Echo", request.target}}, request.method + " " + request.body};
            },
            [](const HttpRequest& request) -> std::optional<HttpResponse> {
                if (request.Header("X-Refuse") != nullptr) {
                    return NyHost::JsonErrorReply(401, "Refused: " + request.target);
                }
                return std::nullopt;
            });
        created->Start();
        // A journal with something in it, so that a stream opened with an event id has frames to
        // replay or a reset to send.
        for (int i = 0; i < 3; ++i) {
            created->PublishEvent("updated", R"({"type":"updated","path":"/routines/Fuzz-0"})");
        }
        return created;  // lives for the process: the fuzzer never returns from its loop
    }();
    return *server;
}

int Connect(std::uint16_t port) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    const timeval limit{kReceiveTimeoutSeconds, 0};
    ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    // libFuzzer's own timer signal interrupts system calls: an interrupted connect goes on in the
    // background, so wait for it to finish rather than fail.
    if (::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        if (errno != EINTR) {
            Fail("the server stopped accepting");
        }
        pollfd ready{fd, POLLOUT, 0};
        int error = 0;
        socklen_t length = sizeof error;
        while (::poll(&ready, 1, kReceiveTimeoutSeconds * 1000) < 0 && errno == EINTR) {
        }
        if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &length) != 0 || error != 0) {
            Fail("the server stopped accepting");
        }
    }
    return fd;
}

void SendAll(int fd, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno == EINTR) {
            continue;
        }
        if (sent <= 0) {
            return;  // the server closed early: a refusal
        }
        bytes.remove_prefix(static_cast<std::size_t>(sent));
    }
}

// Reads until the server closes; false when it kept the connection open past the time-out.
bool ReadUntilClosed(int fd, std::string* received) {
    char chunk[16384];
    for (;;) {
        const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
        if (count < 0 && errno == EINTR) {
            continue;  // a receive time-out is EAGAIN, not this
        }
        if (count == 0 || (count < 0 && errno == ECONNRESET)) {
            return true;
        }
        if (count < 0) {
            return false;
        }
        if (received != nullptr) {
            received->append(chunk, static_cast<std::size_t>(count));
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    NyHost::HttpServer& server = Server();
    std::string_view input(reinterpret_cast<const char*>(data), size);
    // The first byte picks where the input is cut, so that the parser also meets split lines.
    std::size_t cut = 0;
    if (!input.empty()) {
        cut = static_cast<unsigned char>(input.front());
        input.remove_prefix(1);
    }
    const int fd = Connect(server.Port());
    const std::size_t first = std::min(input.size(), cut * 7 % (input.size() + 1));
    SendAll(fd, input.substr(0, first));
    SendAll(fd, input.substr(first));
    ::shutdown(fd, SHUT_WR);
    if (!ReadUntilClosed(fd, nullptr)) {
        Fail("a connection the server neither answered nor closed");
    }
    ::close(fd);

    const int health = Connect(server.Port());
    SendAll(health, "GET /health HTTP/1.1\r\nHost: fuzz\r\nConnection: close\r\n\r\n");
    std::string reply;
    if (!ReadUntilClosed(health, &reply) || reply.rfind("HTTP/1.1 200 OK\r\n", 0) != 0) {
        std::fprintf(stderr, "http_fuzzer: health reply: %s\n", reply.c_str());
        Fail("the server stopped answering");
    }
    ::close(health);
    return 0;
}
