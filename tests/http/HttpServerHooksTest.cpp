// What the transport offers the service around it: a report of every answered request, adopted
// listening sockets, the health path, the watchdog's pings and the count of dropped event clients. Over
// real loopback sockets with a small blocking client whose reads give up after a bound.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <latch>
#include <optional>
#include <thread>

#include <gtest/gtest.h>

#include "HttpServer.h"
#include "LogCapture.h"
#include "NyApi/Exception.h"
#include "NyApi/Mutex.h"
#include "Sync.h"

namespace {

using namespace std::chrono_literals;
using NyHost::HttpRequest;
using NyHost::HttpResponse;
using NyHost::HttpServer;
using NyHost::HttpServerOptions;
using NyHost::RequestOutcome;

struct Reply {
    int status = 0;
    std::string head;
    std::string body;
};

// One blocking plain-HTTP connection to 127.0.0.1; every read gives up after 10 s.
class Client {
  public:
    explicit Client(std::uint16_t port, int receiveBuffer = 0) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const timeval limit{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
        if (receiveBuffer > 0) {
            ::setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &receiveBuffer, sizeof receiveBuffer);
        }
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { ::close(fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Connected() const { return connected; }

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    // A reply's head and its Content-Length of body (none for HEAD and 304).
    std::optional<Reply> ReadReply(bool bodyless = false) {
        if (!ReadUntil("\r\n\r\n")) {
            return std::nullopt;
        }
        Reply reply;
        const std::size_t end = received.find("\r\n\r\n") + 4;
        reply.head = received.substr(0, end);
        received.erase(0, end);
        reply.status = std::stoi(reply.head.substr(9, 3));
        std::size_t length = 0;
        if (const std::size_t field = reply.head.find("Content-Length: "); field != std::string::npos) {
            length = std::stoul(reply.head.substr(field + 16));
        }
        if (bodyless || reply.status == 304) {
            length = 0;
        }
        while (received.size() < length) {
            if (Fill() <= 0) {
                return std::nullopt;
            }
        }
        reply.body = received.substr(0, length);
        received.erase(0, length);
        return reply;
    }

    bool ReadUntil(std::string_view marker) {
        while (received.find(marker) == std::string::npos) {
            if (Fill() <= 0) {
                return false;
            }
        }
        return true;
    }

  private:
    ssize_t Fill() {
        char chunk[16384];
        const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
        if (count > 0) {
            received.append(chunk, static_cast<std::size_t>(count));
        }
        return count;
    }

    int fd = -1;
    bool connected = false;
    std::string received;
};

std::string Request(const std::string& method, const std::string& target, const std::string& extra = "") {
    return method + " " + target + " HTTP/1.1\r\nHost: test\r\n" + extra + "\r\n";
}

// Sends one request on a connection of its own and reads its reply.
std::optional<Reply> Exchange(std::uint16_t port, const std::string& request, bool bodyless = false) {
    Client client(port);
    if (!client.Connected() || !client.Send(request)) {
        return std::nullopt;
    }
    return client.ReadReply(bodyless);
}

int StatusOf(std::uint16_t port, const std::string& request) {
    const auto reply = Exchange(port, request);
    return reply ? reply->status : 0;
}

// A loopback TCP socket bound to a free port; listening unless told otherwise.
int LoopbackSocket(bool listening) {
    const int fd = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
    EXPECT_EQ(::bind(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    if (listening) {
        EXPECT_EQ(::listen(fd, 16), 0);
    }
    return fd;
}

std::uint16_t LocalPort(int fd) {
    sockaddr_in address{};
    socklen_t length = sizeof address;
    ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
    return ntohs(address.sin_port);
}

bool IsOpen(int fd) {
    return ::fcntl(fd, F_GETFD) != -1;
}

std::string ThreadName() {
    char name[32] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

struct Outcome {
    std::string method;
    int status;
    std::chrono::steady_clock::duration duration;
};

class HttpServerHooksTest : public ::testing::Test {
  protected:
    HttpServerOptions Options() {
        HttpServerOptions options;
        options.port = 0;
        options.onRequestDone = [this](const RequestOutcome& outcome) {
            Ny::MutexLock guard(outcomesMutex);
            outcomes.push_back({std::string(outcome.method), outcome.status, outcome.duration});
            if (ThreadName() != "NyHttp.Io") {
                ++reportsOffIoThread;
            }
        };
        return options;
    }

    // The handler holds its worker on "/hold" until `release` opens; the filter refuses "/secret".
    void StartServer(HttpServerOptions options) {
        server = std::make_unique<HttpServer>(
            std::move(options),
            [this](const HttpRequest& request) {
                if (request.target == "/hold") {
                    held.count_down();
                    release.Wait(30s);
                }
                return HttpResponse{200, {}, R"({"path":")" + request.target + "\"}"};
            },
            [this](const HttpRequest& request) -> std::optional<HttpResponse> {
                if (request.target == "/stall") {  // stands for a stuck I/O thread
                    stalled.Open();
                    unstall.Wait(30s);
                }
                if (request.target == "/secret" || refuseAll) {
                    return NyHost::JsonErrorReply(401, "No.");
                }
                return std::nullopt;
            });
        server->Start();
        ASSERT_NE(server->Port(), 0);
    }

    std::vector<Outcome> Outcomes() {
        Ny::MutexLock guard(outcomesMutex);
        return outcomes;
    }

    // Waits for the next report and returns it. `alone`: the request was the only one in flight, so
    // nothing else may have been reported (a request reported twice).
    std::optional<Outcome> NextOutcome(bool alone) {
        const std::size_t expected = ++reported;
        if (!NyTest::Eventually([&] { return Outcomes().size() >= expected; })) {
            return std::nullopt;
        }
        const auto all = Outcomes();
        if (alone) {
            EXPECT_EQ(all.size(), expected) << "one request reported more than once";
        }
        return all[expected - 1];
    }

    void ExpectOutcome(const std::string& method, int status, bool alone = true) {
        const auto outcome = NextOutcome(alone);
        ASSERT_TRUE(outcome.has_value()) << method << " " << status << " not reported";
        EXPECT_EQ(outcome->method, method);
        EXPECT_EQ(outcome->status, status);
        EXPECT_GE(outcome->duration, std::chrono::steady_clock::duration::zero());
    }

    NyTest::LogCapture log;  // first: outlives the server, which logs while it stops
    NyTest::Gate release;
    NyTest::Gate stalled;
    NyTest::Gate unstall;
    std::latch held{2};  // both workers of HoldWorkers() are inside the handler
    std::atomic<bool> refuseAll{false};
    Ny::Mutex outcomesMutex;
    std::vector<Outcome> outcomes NY_GUARDED_BY(outcomesMutex);
    std::atomic<int> reportsOffIoThread{0};
    std::size_t reported = 0;
    std::unique_ptr<HttpServer> server;  // last: stopped before the rest goes
};

TEST_F(HttpServerHooksTest, EveryAnsweredRequestIsReportedOnceWhoeverAnswersIt) {
    auto options = Options();
    options.headerLimit = 1024;
    options.bodyLimit = 16;
    options.healthBound = 10s;  // healthy however loaded the machine
    StartServer(options);
    const auto port = server->Port();

    // The handler's reply, with the method as the client sent it (HEAD is served as GET).
    ASSERT_EQ(StatusOf(port, Request("GET", "/a")), 200);
    ExpectOutcome("GET", 200);
    ASSERT_TRUE(Exchange(port, Request("HEAD", "/a"), true));
    ExpectOutcome("HEAD", 200);
    ASSERT_EQ(StatusOf(port, Request("BREW", "/a")), 200);
    ExpectOutcome("BREW", 200);

    // A conditional read answered 304.
    const auto first = Exchange(port, Request("GET", "/etag"));
    ASSERT_TRUE(first);
    ExpectOutcome("GET", 200);
    const std::size_t tag = first->head.find("ETag: ");
    ASSERT_NE(tag, std::string::npos);
    const std::string etag = first->head.substr(tag + 6, first->head.find("\r\n", tag) - tag - 6);
    ASSERT_EQ(StatusOf(port, Request("GET", "/etag", "If-None-Match: " + etag + "\r\n")), 304);
    ExpectOutcome("GET", 304);

    // The filter's refusals, with the body read and with a body announced but never read.
    ASSERT_EQ(StatusOf(port, Request("GET", "/secret")), 401);
    ExpectOutcome("GET", 401);
    ASSERT_EQ(StatusOf(port, Request("POST", "/secret", "Content-Length: 10\r\n")), 401);
    ExpectOutcome("POST", 401);

    // The transport's own refusals: headers too large, body too large, malformed, framing.
    ASSERT_EQ(StatusOf(port, Request("GET", "/a", "X-Big: " + std::string(2000, 'x') + "\r\n")), 431);
    ExpectOutcome("GET", 431);
    ASSERT_EQ(StatusOf(port, Request("PUT", "/a", "Content-Length: 100\r\n")), 413);
    ExpectOutcome("PUT", 413);
    ASSERT_EQ(StatusOf(port, "GET /a HTTP/1.1\r\nHost: test\r\nBad Header\r\n\r\n"), 400);
    ExpectOutcome("GET", 400);
    ASSERT_EQ(StatusOf(port, "GET /a HTTP/1.1\r\n\r\n"), 400);  // no Host
    ExpectOutcome("GET", 400);

    // Health, and an event stream when it opens.
    ASSERT_EQ(StatusOf(port, Request("GET", "/health")), 200);
    ExpectOutcome("GET", 200);
    {
        Client stream(port);
        ASSERT_TRUE(stream.Send(Request("GET", "/events")));
        ASSERT_TRUE(stream.ReadUntil("retry: "));
        ExpectOutcome("GET", 200);
    }

    // Several on one kept-alive connection, one report each.
    Client client(port);
    ASSERT_TRUE(client.Send(Request("GET", "/1") + Request("DELETE", "/2") + Request("GET", "/secret")));
    for (const int status : {200, 200, 401}) {
        const auto reply = client.ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, status);
    }
    ExpectOutcome("GET", 200, false);
    ExpectOutcome("DELETE", 200, false);
    ExpectOutcome("GET", 401, false);

    server->Stop();
    EXPECT_EQ(Outcomes().size(), reported);  // nothing reported late or twice
    EXPECT_EQ(reportsOffIoThread, 0);
}

TEST_F(HttpServerHooksTest, AReportThatThrowsCostsNothingButItsLine) {
    auto options = Options();
    options.onRequestDone = [](const RequestOutcome&) { throw std::runtime_error("metrics broke"); };
    StartServer(options);
    Client client(server->Port());
    ASSERT_TRUE(client.Send(Request("GET", "/a") + Request("GET", "/b")));
    EXPECT_EQ(client.ReadReply()->status, 200);
    EXPECT_EQ(client.ReadReply()->status, 200);
    EXPECT_TRUE(log.WaitFor("Reporting a request failed: metrics broke", 2));
}

TEST_F(HttpServerHooksTest, AdoptedListeningSocketsAreEachServedToldAndClosedAtTheStop) {
    const int firstFd = LoopbackSocket(true);
    const int secondFd = LoopbackSocket(true);
    const std::uint16_t first = LocalPort(firstFd);
    const std::uint16_t second = LocalPort(secondFd);
    auto options = Options();
    options.address = "192.0.2.1";  // ignored: nothing is bound
    options.listenFds = {firstFd, secondFd};
    StartServer(options);
    EXPECT_EQ(server->Port(), first);
    EXPECT_EQ(server->Address(), "127.0.0.1");
    const auto& endpoints = server->Endpoints();
    ASSERT_EQ(endpoints.size(), 2u);
    EXPECT_EQ(endpoints[0].port, first);
    EXPECT_EQ(endpoints[1].port, second);
    EXPECT_EQ(endpoints[1].address, "127.0.0.1");
    for (const std::uint16_t port : {first, second}) {
        const auto reply = Exchange(port, Request("GET", "/adopted"));
        ASSERT_TRUE(reply) << port;
        EXPECT_EQ(reply->body, R"({"path":"/adopted"})");
    }
    server->Stop();
    EXPECT_FALSE(Client(first).Connected());
    EXPECT_FALSE(Client(second).Connected());
}

TEST_F(HttpServerHooksTest, ADescriptorThatIsNotAListeningTcpSocketIsRefusedAndClosed) {
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    ::close(pipeFds[1]);
    for (const int fd : {LoopbackSocket(false), ::socket(AF_INET, SOCK_DGRAM, 0),
                         ::socket(AF_UNIX, SOCK_STREAM, 0), pipeFds[0]}) {
        SCOPED_TRACE(fd);
        const int listening = LoopbackSocket(true);  // handed over with it: closed too, never served
        auto options = Options();
        options.listenFds = {listening, fd};
        HttpServer refused(options, [](const HttpRequest&) { return HttpResponse{}; });
        EXPECT_THROW(refused.Start(), Ny::Exception);
        EXPECT_FALSE(IsOpen(fd));
        EXPECT_FALSE(IsOpen(listening));
    }
    // Never started: the server still owns what it was handed.
    const int unused = LoopbackSocket(true);
    {
        auto options = Options();
        options.listenFds = {unused};
        HttpServer never(options, [](const HttpRequest&) { return HttpResponse{}; });
    }
    EXPECT_FALSE(IsOpen(unused));
}

// Health needs no token (the filter refuses everything here), and answers 503 while every worker is
// held, within its bound, and 200 again once they are free.
TEST_F(HttpServerHooksTest, HealthFollowsTheWorkerPoolAndPassesTheFilter) {
    auto options = Options();
    options.workerThreads = 2;
    options.maxQueuedRequests = 2;
    // Generous, so that a loaded machine still answers within it; only the first check while the workers
    // are held waits it out (the others find the shared probe overdue).
    options.healthBound = 2s;
    StartServer(options);
    const auto port = server->Port();
    refuseAll = true;
    auto healthy = Exchange(port, Request("GET", "/health"));
    ASSERT_TRUE(healthy);
    EXPECT_EQ(healthy->status, 200);
    EXPECT_EQ(healthy->body, R"({"status":"ok"})");
    EXPECT_NE(healthy->head.find("Cache-Control: no-store\r\n"), std::string::npos);
    const auto head = Exchange(port, Request("HEAD", "/health"), true);
    ASSERT_TRUE(head);
    EXPECT_EQ(head->status, 200);
    EXPECT_EQ(StatusOf(port, Request("GET", "/health?verbose=1")), 200);
    EXPECT_EQ(StatusOf(port, Request("POST", "/health")), 401);  // only reads are health's
    EXPECT_EQ(StatusOf(port, Request("GET", "/healthz")), 401);
    refuseAll = false;

    Client first(port);
    Client second(port);
    ASSERT_TRUE(first.Send(Request("GET", "/hold")));
    ASSERT_TRUE(second.Send(Request("GET", "/hold")));
    held.wait();
    // More checks than the queue holds: the probe they share takes one place in it, so requests still fit.
    for (int i = 0; i < 5; ++i) {
        const auto unhealthy = Exchange(port, Request("GET", "/health"));
        ASSERT_TRUE(unhealthy);
        EXPECT_EQ(unhealthy->status, 503);
        EXPECT_EQ(unhealthy->body, R"({"status":"unavailable"})");
    }
    Client queued(port);
    ASSERT_TRUE(queued.Send(Request("GET", "/queued")));

    release.Open();
    EXPECT_EQ(first.ReadReply()->status, 200);
    EXPECT_EQ(second.ReadReply()->status, 200);
    EXPECT_EQ(queued.ReadReply()->status, 200);  // not refused for a full queue
    EXPECT_TRUE(NyTest::Eventually([&] { return StatusOf(port, Request("GET", "/health")) == 200; }));
}

// A full queue is a busy pool, not a held one: a probe asked then waits its turn behind the queued
// requests instead of being refused, so health says 200 once they are served, within its bound. (A
// refused probe also costs the watchdog its ping: a flood of requests could get a busy host killed.)
TEST_F(HttpServerHooksTest, HealthAskedWhileTheQueueIsFullWaitsItsTurn) {
    auto options = Options();
    options.workerThreads = 2;
    options.maxQueuedRequests = 2;  // room for both holds before a worker takes them
    options.healthBound = 20s;      // generous: the check must end by its probe, not by its bound
    StartServer(options);
    const auto port = server->Port();
    Client first(port);
    Client second(port);
    ASSERT_TRUE(first.Send(Request("GET", "/hold")));
    ASSERT_TRUE(second.Send(Request("GET", "/hold")));
    held.wait();
    Client queued(port);
    Client queuedToo(port);
    ASSERT_TRUE(queued.Send(Request("GET", "/queued")));
    ASSERT_TRUE(queuedToo.Send(Request("GET", "/queued")));
    // The queue is full once the server has read them: a further request is refused.
    ASSERT_TRUE(NyTest::Eventually([&] { return StatusOf(port, Request("GET", "/more")) == 503; }));
    Client health(port);
    ASSERT_TRUE(health.Send(Request("GET", "/health")));
    // Answered by the same I/O thread after the health request was read (its probe asked by then).
    EXPECT_EQ(StatusOf(port, Request("GET", "/more")), 503);

    release.Open();
    EXPECT_EQ(first.ReadReply()->status, 200);
    EXPECT_EQ(second.ReadReply()->status, 200);
    EXPECT_EQ(queued.ReadReply()->status, 200);
    EXPECT_EQ(queuedToo.ReadReply()->status, 200);
    const auto reply = health.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
}

// A health check under way at the stop is answered at once (503), while the workers are still held: the
// stop cancels the probe rather than leave the check to its bound.
TEST_F(HttpServerHooksTest, HealthAskedWhileStoppingIsAnswered) {
    auto options = Options();
    options.workerThreads = 2;
    options.healthBound = 5000ms;
    // "/a" is answered on the I/O thread, so that it needs none of the workers held below.
    options.runsInline = [](const HttpRequest& request) { return request.target == "/a"; };
    StartServer(options);
    const auto port = server->Port();
    Client first(port);
    Client second(port);
    ASSERT_TRUE(first.Send(Request("GET", "/hold")));
    ASSERT_TRUE(second.Send(Request("GET", "/hold")));
    held.wait();
    // The health request rides in one segment behind "/a": once "/a" is reported, the server has read
    // both into the connection's buffer and goes on to the health request with its next read. Without
    // that point the stop could find the connection idle, the request still in the kernel, and close
    // it unanswered after its grace, which is right for a request not yet read.
    Client health(port);
    ASSERT_TRUE(health.Send(Request("GET", "/a") + Request("GET", "/health")));
    ExpectOutcome("GET", 200);
    std::thread stopper([this] { server->Stop(); });
    const auto answered = health.ReadReply();
    const auto reply = health.ReadReply();
    release.Open();
    stopper.join();
    ASSERT_TRUE(answered);
    EXPECT_EQ(answered->status, 200);
    // Read before the stop begins or after: 503 either way, never a connection closed unanswered.
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 503);
}

TEST_F(HttpServerHooksTest, WatchdogPingsStopWhileTheWorkersAreHeldAndResumeAfter) {
    auto options = Options();
    options.workerThreads = 2;
    options.healthBound = 200ms;
    options.watchdogInterval = 20ms;
    std::atomic<int> pings{0};
    std::atomic<int> pingsOffIoThread{0};
    options.watchdogPing = [&pings, &pingsOffIoThread] {
        ++pings;
        if (ThreadName() != "NyHttp.Io") {
            ++pingsOffIoThread;
        }
    };
    StartServer(options);
    const auto port = server->Port();
    ASSERT_TRUE(NyTest::Eventually([&] { return pings >= 3; }));

    Client first(port);
    Client second(port);
    ASSERT_TRUE(first.Send(Request("GET", "/hold")));
    ASSERT_TRUE(second.Send(Request("GET", "/hold")));
    held.wait();
    // A probe that ran before the hold may still be pinged for once; then nothing, for as long as the
    // health checks take: the first waits its bound (10 watchdog intervals), the rest find the shared
    // probe waiting longer than that and answer at once.
    const int atHold = pings;
    for (int i = 0; i < 5; ++i) {
        ASSERT_EQ(StatusOf(port, Request("GET", "/health")), 503);
    }
    EXPECT_LE(pings - atHold, 1);

    release.Open();
    const int atRelease = pings;
    EXPECT_TRUE(NyTest::Eventually([&] { return pings >= atRelease + 3; }));
    server->Stop();
    EXPECT_EQ(pingsOffIoThread, 0);
}

// The pings come from the I/O thread's timer: an I/O thread that hangs (here in the filter, which runs
// on it) stops them as surely as held workers do.
TEST_F(HttpServerHooksTest, WatchdogPingsStopWhileTheIoThreadIsStuck) {
    auto options = Options();
    options.ioThreads = 1;
    options.watchdogInterval = 20ms;
    std::atomic<int> pings{0};
    options.watchdogPing = [&pings] { ++pings; };
    StartServer(options);
    ASSERT_TRUE(NyTest::Eventually([&] { return pings >= 3; }));

    Client client(server->Port());
    ASSERT_TRUE(client.Send(Request("GET", "/stall")));
    ASSERT_TRUE(stalled.Wait());
    // The workers are all free; only the I/O thread is not, and pings run on it: none within ten
    // intervals.
    const int atStall = pings;
    EXPECT_FALSE(NyTest::Eventually([&] { return pings > atStall; }, 200ms));

    unstall.Open();
    EXPECT_EQ(client.ReadReply()->status, 200);
    const int atRelease = pings;
    EXPECT_TRUE(NyTest::Eventually([&] { return pings >= atRelease + 3; }));
}

TEST_F(HttpServerHooksTest, OnlyStreamsDroppedForBeingSlowAreCounted) {
    auto options = Options();
    options.eventClientQueueBytes = 16 * 1024;
    StartServer(options);
    {
        Client leaving(server->Port());
        ASSERT_TRUE(leaving.Send(Request("GET", "/events")));
        ASSERT_TRUE(leaving.ReadUntil("retry: "));
    }
    ASSERT_TRUE(NyTest::Eventually([this] { return server->EventClientCount() == 0; }));
    EXPECT_EQ(server->EventClientsDropped(), 0u);

    Client slow(server->Port(), 4096);  // reads nothing after the opening
    ASSERT_TRUE(slow.Send(Request("GET", "/events")));
    ASSERT_TRUE(slow.ReadUntil("retry: "));
    const std::string payload(1000, 'p');
    for (int i = 0; i < 100000 && server->EventClientCount() == 1; ++i) {
        server->PublishEvent("e", payload);
    }
    ASSERT_TRUE(NyTest::Eventually([this] { return server->EventClientCount() == 0; }));
    EXPECT_EQ(server->EventClientsDropped(), 1u);
}

}  // namespace
