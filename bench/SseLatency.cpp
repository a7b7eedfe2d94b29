// Event-stream fan-out latency: N clients watch /events of a running host; each round writes the
// parameters of a waiting routine (an immediate "updated" notification) and measures the time from
// the request to the event's arrival at the last client. Prints p50, p99 and max in milliseconds as
// one JSON line.
//
// One thread reads every stream through epoll, so that a thousand clients cost the host's two cores
// no more than the reading itself (a thread per client, spinning while it waits, would compete with
// the host being measured). The soft open-file limit is raised to the hard one for the many sockets.
// Usage: sse_latency <port> <routine path> [clients=100] [rounds=200]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

// A client that sees no event within this long fails the run (the host dropped it or lost a frame).
constexpr std::chrono::seconds kRoundTimeout{10};
// Between rounds the streams must be quiet for kSettleRounds waits of kSettleMs each.
constexpr int kSettleMs = 10;
constexpr int kSettleRounds = 2;

[[noreturn]] void Fail(const char* what) {
    std::perror(what);
    std::exit(1);
}

int Connect(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    if (fd < 0) {
        Fail("socket");
    }
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        Fail("connect");
    }
    return fd;
}

void Send(int fd, const std::string& text) {
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        Fail("send");
    }
}

struct Client {
    int fd = -1;
    bool headers = false;
    int seen = 0;  // "updated" events received
    std::string buffer;
};

// Reads what the socket holds and counts whole "updated" frames. Returns false when the stream ended.
bool ReadFrames(Client& client) {
    char chunk[4096];
    for (;;) {
        const ssize_t n = recv(client.fd, chunk, sizeof chunk, MSG_DONTWAIT);
        if (n == 0) {
            return false;
        }
        if (n < 0) {
            return errno == EAGAIN || errno == EWOULDBLOCK;
        }
        client.buffer.append(chunk, static_cast<size_t>(n));
    }
}

void CountFrames(Client& client) {
    if (!client.headers) {
        const size_t end = client.buffer.find("\r\n\r\n");
        if (end == std::string::npos) {
            return;
        }
        if (client.buffer.rfind("HTTP/1.1 200", 0) != 0) {
            std::fprintf(stderr, "the event stream was refused: %s\n",
                         client.buffer.substr(0, client.buffer.find('\r')).c_str());
            std::exit(1);
        }
        client.headers = true;
        client.buffer.erase(0, end + 4);
    }
    size_t from = 0;
    for (size_t at; (at = client.buffer.find("\n\n", from)) != std::string::npos; from = at + 2) {
        const size_t event = client.buffer.find("event: updated", from);
        if (event != std::string::npos && event < at) {
            ++client.seen;
        }
    }
    client.buffer.erase(0, from);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <port> <routine path> [clients] [rounds]\n", argv[0]);
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const std::string path = argv[2];
    const int clientCount = argc > 3 ? std::atoi(argv[3]) : 100;
    const int rounds = argc > 4 ? std::atoi(argv[4]) : 200;
    // The host refuses a request that does not name it.
    const std::string host = "127.0.0.1:" + std::to_string(port);

    rlimit files{};
    if (getrlimit(RLIMIT_NOFILE, &files) == 0 && files.rlim_cur < files.rlim_max) {
        files.rlim_cur = files.rlim_max;
        setrlimit(RLIMIT_NOFILE, &files);
    }

    const int poller = epoll_create1(0);
    if (poller < 0) {
        Fail("epoll_create1");
    }
    std::vector<Client> clients(static_cast<size_t>(clientCount));
    for (size_t c = 0; c < clients.size(); ++c) {
        clients[c].fd = Connect(port);
        Send(clients[c].fd, "GET /events HTTP/1.1\r\nHost: " + host + "\r\n\r\n");
        epoll_event interest{};
        interest.events = EPOLLIN;
        interest.data.u64 = c;
        if (epoll_ctl(poller, EPOLL_CTL_ADD, clients[c].fd, &interest) != 0) {
            Fail("epoll_ctl");
        }
    }
    std::vector<epoll_event> ready(clients.size());
    // Waits until `done` holds for every client, reading as frames arrive; the time the last one needed
    // for it to hold, or exits when the bound passes.
    auto pump = [&](auto done, const char* what) {
        const auto deadline = Clock::now() + kRoundTimeout;
        size_t missing = static_cast<size_t>(
            std::count_if(clients.begin(), clients.end(), [&](const Client& c) { return !done(c); }));
        Clock::time_point last = Clock::now();
        while (missing > 0) {
            const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
            if (left.count() <= 0) {
                std::fprintf(stderr, "%s: %zu of %zu clients missing\n", what, missing, clients.size());
                std::exit(1);
            }
            const int n = epoll_wait(poller, ready.data(), static_cast<int>(ready.size()),
                                     static_cast<int>(left.count()));
            const auto now = Clock::now();
            for (int i = 0; i < n; ++i) {
                Client& client = clients[ready[static_cast<size_t>(i)].data.u64];
                const bool before = done(client);
                if (!ReadFrames(client)) {
                    std::fprintf(stderr, "%s: the host closed a stream\n", what);
                    std::exit(1);
                }
                CountFrames(client);
                if (!before && done(client)) {
                    --missing;
                    last = now;
                }
            }
        }
        return last;
    };
    pump([](const Client& c) { return c.headers; }, "connecting");

    // One write may raise more than one "updated" (and the step timer may add one): a round counts the
    // first event each client receives after its request, and the next round starts once the streams
    // have been quiet for a moment, so that a late event of one round cannot end the next.
    auto settle = [&] {
        for (int quiet = 0; quiet < kSettleRounds;) {
            const int n = epoll_wait(poller, ready.data(), static_cast<int>(ready.size()), kSettleMs);
            quiet = n == 0 ? quiet + 1 : 0;
            for (int i = 0; i < n; ++i) {
                Client& client = clients[ready[static_cast<size_t>(i)].data.u64];
                if (!ReadFrames(client)) {
                    std::fprintf(stderr, "settling: the host closed a stream\n");
                    std::exit(1);
                }
                CountFrames(client);
            }
        }
    };
    std::vector<double> latencies;
    std::vector<int> before(clients.size());
    for (int r = 0; r < rounds; ++r) {
        settle();
        for (size_t c = 0; c < clients.size(); ++c) {
            before[c] = clients[c].seen;
        }
        const std::string body = "{\"parameters\":{\"samples\":" + std::to_string(10 + r % 2) + "}}";
        const int fd = Connect(port);
        const auto start = Clock::now();
        Send(fd, "PATCH " + path + " HTTP/1.1\r\nHost: " + host +
                     "\r\nConnection: close\r\nContent-Length: " + std::to_string(body.size()) + "\r\n\r\n" +
                     body);
        const Client* first = clients.data();
        const auto last =
            pump([&](const Client& c) { return c.seen > before[static_cast<size_t>(&c - first)]; }, "round");
        char reply[1024];
        while (recv(fd, reply, sizeof reply, 0) > 0) {
        }
        close(fd);
        latencies.push_back(std::chrono::duration<double, std::milli>(last - start).count());
    }
    for (const Client& client : clients) {
        close(client.fd);
    }
    close(poller);
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double q) { return latencies[static_cast<size_t>(q * (latencies.size() - 1))]; };
    std::printf("{\"clients\": %d, \"rounds\": %d, \"p50_ms\": %.3f, \"p99_ms\": %.3f, \"max_ms\": %.3f}\n",
                clientCount, rounds, at(0.5), at(0.99), latencies.back());
    return 0;
}
