// Event-stream fan-out latency: N clients watch /events of a running host; each round writes the
// parameters of a waiting routine (an immediate "updated" notification) and measures the time from
// the request to the event's arrival at the last client. Prints p50, p99 and max in milliseconds.
// Usage: sse_latency <port> <routine path> [clients=100] [rounds=200]
#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int Connect(int port) {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    timeval tv{10, 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof tv);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(static_cast<uint16_t>(port));
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
        std::perror("connect");
        std::exit(1);
    }
    return fd;
}

void Send(int fd, const std::string& text) {
    if (send(fd, text.data(), text.size(), MSG_NOSIGNAL) != static_cast<ssize_t>(text.size())) {
        std::perror("send");
        std::exit(1);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        std::fprintf(stderr, "usage: %s <port> <routine path> [clients] [rounds]\n", argv[0]);
        return 2;
    }
    const int port = std::atoi(argv[1]);
    const std::string path = argv[2];
    const int clients = argc > 3 ? std::atoi(argv[3]) : 100;
    const int rounds = argc > 4 ? std::atoi(argv[4]) : 200;

    std::vector<std::atomic<int>> seen(static_cast<size_t>(clients));
    std::vector<std::vector<Clock::time_point>> arrivals(
        static_cast<size_t>(clients), std::vector<Clock::time_point>(static_cast<size_t>(rounds)));
    std::atomic<int> connected{0};
    std::vector<std::thread> readers;
    for (int c = 0; c < clients; ++c) {
        readers.emplace_back([&, c] {
            const int fd = Connect(port);
            Send(fd, "GET /events HTTP/1.1\r\nHost: x\r\n\r\n");
            std::string buffer;
            char chunk[4096];
            bool headers = false;
            while (seen[c] < rounds) {
                const ssize_t n = recv(fd, chunk, sizeof chunk, 0);
                if (n <= 0) {
                    break;
                }
                buffer.append(chunk, static_cast<size_t>(n));
                if (!headers && buffer.find("\r\n\r\n") != std::string::npos) {
                    headers = true;
                    buffer.erase(0, buffer.find("\r\n\r\n") + 4);
                    ++connected;
                }
                for (size_t at; (at = buffer.find("\n\n")) != std::string::npos;) {
                    // Frames open with their id line; the event line follows it.
                    const size_t event = buffer.find("event: updated");
                    if (event != std::string::npos && event < at && seen[c] < rounds) {
                        arrivals[c][seen[c]] = Clock::now();
                        ++seen[c];
                    }
                    buffer.erase(0, at + 2);
                }
            }
            close(fd);
        });
    }
    while (connected < clients) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::vector<double> latencies;
    for (int r = 0; r < rounds; ++r) {
        const std::string body = "{\"parameters\":{\"samples\":" + std::to_string(10 + r % 2) + "}}";
        const int fd = Connect(port);
        const auto start = Clock::now();
        Send(fd, "PATCH " + path + " HTTP/1.1\r\nHost: x\r\nConnection: close\r\nContent-Length: " +
                     std::to_string(body.size()) + "\r\n\r\n" + body);
        char reply[1024];
        while (recv(fd, reply, sizeof reply, 0) > 0) {
        }
        close(fd);
        const auto deadline = Clock::now() + std::chrono::seconds(10);
        auto allSeen = [&] {
            return std::all_of(seen.begin(), seen.end(), [&](const auto& count) { return count.load() > r; });
        };
        while (!allSeen() && Clock::now() < deadline) {
            std::this_thread::yield();
        }
        if (!allSeen()) {
            std::fprintf(stderr, "round %d: not every client got the event\n", r);
            std::_Exit(1);  // the readers are still blocked in recv
        }
        Clock::time_point last = start;
        for (int c = 0; c < clients; ++c) {
            last = std::max(last, arrivals[c][r]);
        }
        latencies.push_back(std::chrono::duration<double, std::milli>(last - start).count());
    }
    for (auto& reader : readers) {
        reader.join();
    }
    std::sort(latencies.begin(), latencies.end());
    const auto at = [&](double q) { return latencies[static_cast<size_t>(q * (latencies.size() - 1))]; };
    std::printf("{\"clients\": %d, \"rounds\": %d, \"p50_ms\": %.3f, \"p99_ms\": %.3f, \"max_ms\": %.3f}\n",
                clients, rounds, at(0.5), at(0.99), latencies.back());
    return 0;
}
