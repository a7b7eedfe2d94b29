// Where the transport runs a request's handler: reads that cannot wait on the I/O thread without a
// hand-off, other requests on the worker pool (started on demand), requests that may wait for a person
// on threads of their own. Real loopback sockets; every wait is bounded and every held request is held
// by a gate, never by a sleep.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include "HttpServer.h"
#include "LogCapture.h"
#include "NyApi/Exception.h"
#include "Sync.h"

namespace {

using namespace std::chrono_literals;
using NyHost::HttpRequest;
using NyHost::HttpResponse;
using NyHost::HttpServer;
using NyHost::HttpServerOptions;

struct Reply {
    int status = 0;
    std::map<std::string, std::string> headers;  // names in lower case
    std::string body;
};

// One blocking connection whose reads give up after 10 s, so that a missing reply fails the test.
class Client {
  public:
    explicit Client(std::uint16_t port) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const timeval limit{10, 0};
        ::setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_port = htons(port);
        ::inet_pton(AF_INET, "127.0.0.1", &address.sin_addr);
        connected = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof address) == 0;
    }
    ~Client() { ::close(fd); }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Send(const std::string& method, const std::string& target) {
        const std::string bytes =
            method + " " + target + " HTTP/1.1\r\nHost: test\r\nContent-Length: 0\r\n\r\n";
        return connected &&
               ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
    }

    // `headOnly`: the reply to a HEAD, whose Content-Length announces a body that is not sent.
    std::optional<Reply> ReadReply(bool headOnly = false) {
        std::size_t end = 0;
        while ((end = received.find("\r\n\r\n")) == std::string::npos) {
            if (!Fill()) {
                return std::nullopt;
            }
        }
        const std::string head = received.substr(0, end + 2);
        received.erase(0, end + 4);
        Reply reply;
        reply.status = std::stoi(head.substr(9, 3));
        for (std::size_t line = head.find("\r\n") + 2; line < head.size();) {
            const std::size_t lineEnd = head.find("\r\n", line);
            const std::size_t colon = head.find(':', line);
            std::string name = head.substr(line, colon - line);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
            reply.headers[name] = head.substr(colon + 2, lineEnd - colon - 2);
            line = lineEnd + 2;
        }
        const std::size_t length = reply.headers.count("content-length") != 0 && !headOnly
                                       ? std::stoul(reply.headers["content-length"])
                                       : 0;
        while (received.size() < length) {
            if (!Fill()) {
                return std::nullopt;
            }
        }
        reply.body = received.substr(0, length);
        received.erase(0, length);
        return reply;
    }

    // Sends and reads the reply; the status, or 0 when none came.
    int Status(const std::string& method, const std::string& target) {
        if (!Send(method, target)) {
            return 0;
        }
        const auto reply = ReadReply(method == "HEAD");
        return reply ? reply->status : 0;
    }

    // True once the server has closed the connection (within the receive time-out).
    bool Closed() {
        for (;;) {
            char chunk[4096];
            const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
            if (count == 0 || (count < 0 && errno == ECONNRESET)) {
                return true;
            }
            if (count < 0) {
                return false;  // timed out
            }
        }
    }

  private:
    bool Fill() {
        char chunk[4096];
        const ssize_t count = ::recv(fd, chunk, sizeof chunk, 0);
        if (count <= 0) {
            return false;
        }
        received.append(chunk, static_cast<std::size_t>(count));
        return true;
    }

    int fd = -1;
    bool connected = false;
    std::string received;
};

std::string ThreadName() {
    char name[16] = {};
    pthread_getname_np(pthread_self(), name, sizeof name);
    return name;
}

// The threads of this process whose name starts with `prefix`.
std::size_t ThreadsNamed(const std::string& prefix) {
    std::size_t count = 0;
    for (const auto& task : std::filesystem::directory_iterator("/proc/self/task")) {
        std::ifstream comm(task.path() / "comm");
        std::string name;
        std::getline(comm, name);
        count += name.rfind(prefix, 0) == 0 ? 1 : 0;
    }
    return count;
}

// Paths: "/read..." cannot wait (GET only), "/wait..." may wait for a person, the rest go to a worker.
// "/read/held", "/wait" and "/work/held" hold until their gate opens; "/read/throw/<what>" throws.
class HttpServerDispatch : public ::testing::TestWithParam<unsigned> {
  protected:
    void TearDown() override {
        readGate.Open();
        waitGate.Open();
        workGate.Open();
        server.reset();
    }

    HttpServerOptions Options() const {
        HttpServerOptions options;
        options.port = 0;
        options.ioThreads = GetParam();
        options.runsInline = [](const HttpRequest& request) {
            return request.method == "GET" && request.target.rfind("/read", 0) == 0;
        };
        options.mayWait = [](const HttpRequest& request) { return request.target.rfind("/wait", 0) == 0; };
        return options;
    }

    void Start(HttpServerOptions options) {
        server = std::make_unique<HttpServer>(std::move(options),
                                              [this](const HttpRequest& request) { return Handle(request); });
        server->Start();
    }

    HttpResponse Handle(const HttpRequest& request) {
        {
            std::lock_guard guard(threadsMutex);
            threads[request.target] = ThreadName();
        }
        if (request.target == "/read/held") {
            readEntered.Open();
            EXPECT_TRUE(readGate.Wait(30s));
        } else if (request.target == "/wait") {
            waitEntered.Open();
            EXPECT_TRUE(waitGate.Wait(30s));
        } else if (request.target == "/work/held") {
            workEntered.Open();
            EXPECT_TRUE(workGate.Wait(30s));
        } else if (request.target == "/read/busy") {
            // Would have to wait on the I/O thread: asks for a worker, where it answers.
            if (request.onIoThread) {
                ++retriesAsked;
                HttpResponse retry;
                retry.retryOnWorker = true;
                retry.body = "{\"dropped\":true}";
                return retry;
            }
        } else if (request.target == "/read/throw/std") {
            throw std::runtime_error("read failed");
        } else if (request.target == "/read/throw/ny") {
            throw NY_EXCEPTION(Ny::Status::NotFound, "gone");
        } else if (request.target == "/read/throw/other") {
            throw 42;
        }
        HttpResponse response;
        response.body = "{\"ok\":true}";
        return response;
    }

    std::string ThreadOf(const std::string& target) {
        std::lock_guard guard(threadsMutex);
        return threads[target];
    }

    NyTest::LogCapture log;  // outlives the server, which logs while it stops
    NyTest::Gate readEntered, readGate, waitEntered, waitGate, workEntered, workGate;
    std::mutex threadsMutex;
    std::map<std::string, std::string> threads;  // the thread that ran each target's handler
    std::unique_ptr<HttpServer> server;
    std::atomic<int> retriesAsked{0};
};

TEST_P(HttpServerDispatch, ReadRunsOnTheIoThreadAndCompletesWhileWaitingAndWorkerRequestsAreHeld) {
    auto options = Options();
    options.workerThreads = 1;
    Start(options);
    Client waiting(server->Port());
    ASSERT_TRUE(waiting.Send("POST", "/wait"));
    ASSERT_TRUE(waitEntered.Wait());
    Client working(server->Port());
    ASSERT_TRUE(working.Send("POST", "/work/held"));
    ASSERT_TRUE(workEntered.Wait());

    // Both gates are still closed: the read must not need the worker or the waiting thread.
    Client reading(server->Port());
    EXPECT_EQ(reading.Status("GET", "/read"), 200);
    EXPECT_EQ(reading.Status("HEAD", "/read"), 200);  // a HEAD is the GET it asks about
    EXPECT_FALSE(waitGate.IsOpen());
    EXPECT_FALSE(workGate.IsOpen());
    EXPECT_EQ(ThreadOf("/read"), "NyHttp.Io");
    EXPECT_EQ(ThreadOf("/wait"), "NyHttp.Waiting");
    EXPECT_EQ(ThreadOf("/work/held"), "NyHttp.Worker");

    waitGate.Open();
    workGate.Open();
    auto waited = waiting.ReadReply();
    const auto worked = working.ReadReply();
    ASSERT_TRUE(waited && worked);
    EXPECT_EQ(waited->status, 200);
    EXPECT_EQ(worked->status, 200);
}

TEST_P(HttpServerDispatch, AReadThatWouldWaitOnTheIoThreadRunsAgainOnAWorkerAndIsAnsweredOnce) {
    Start(Options());
    Client client(server->Port());
    ASSERT_TRUE(client.Send("GET", "/read/busy"));
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->body, "{\"ok\":true}");  // the worker's reply, not the dropped one
    EXPECT_EQ(retriesAsked.load(), 1);
    EXPECT_EQ(ThreadOf("/read/busy"), "NyHttp.Worker");
    // One reply only: the next request on the connection gets its own.
    EXPECT_EQ(client.Status("GET", "/read"), 200);
    EXPECT_EQ(ThreadOf("/read"), "NyHttp.Io");
}

TEST_P(HttpServerDispatch, StopDrainsInlineAndWaitingRequestsInProgress) {
    Start(Options());
    Client waiting(server->Port());
    ASSERT_TRUE(waiting.Send("POST", "/wait"));
    ASSERT_TRUE(waitEntered.Wait());
    Client reading(server->Port());
    ASSERT_TRUE(reading.Send("GET", "/read/held"));
    ASSERT_TRUE(readEntered.Wait());

    auto stopped = std::async(std::launch::async, [this] { server->Stop(); });
    // Stop waits for both handlers: it cannot have returned while either gate is closed.
    EXPECT_EQ(stopped.wait_for(0s), std::future_status::timeout);
    readGate.Open();
    auto read = reading.ReadReply();
    EXPECT_EQ(stopped.wait_for(0s), std::future_status::timeout);
    waitGate.Open();
    auto waited = waiting.ReadReply();
    ASSERT_EQ(stopped.wait_for(NyTest::Generous), std::future_status::ready);

    ASSERT_TRUE(read && waited);
    EXPECT_EQ(read->status, 200);
    EXPECT_EQ(waited->status, 200);
    // Drained: both connections are closed once their replies are out.
    EXPECT_TRUE(reading.Closed());
    EXPECT_TRUE(waiting.Closed());
}

TEST_P(HttpServerDispatch, HandlerThatThrowsOnTheIoThreadBecomesJson500AndServingGoesOn) {
    Start(Options());
    Client client(server->Port());
    for (const std::string what : {"std", "ny", "other"}) {
        ASSERT_TRUE(client.Send("GET", "/read/throw/" + what));
        auto reply = client.ReadReply();
        ASSERT_TRUE(reply) << what;
        EXPECT_EQ(reply->status, 500) << what;
        EXPECT_EQ(reply->headers["content-type"], "application/json") << what;
        EXPECT_NE(reply->body.find("\"message\""), std::string::npos) << reply->body;
        EXPECT_EQ(ThreadOf("/read/throw/" + what), "NyHttp.Io");
        // The same connection and the same I/O thread go on serving.
        EXPECT_EQ(client.Status("GET", "/read"), 200) << what;
    }
    Client other(server->Port());
    EXPECT_EQ(other.Status("GET", "/read"), 200);
}

TEST_P(HttpServerDispatch, FullWorkerQueueAndWaitingLimitAnswer503WhileReadsGoOn) {
    auto options = Options();
    options.workerThreads = 1;
    options.maxQueuedRequests = 1;
    options.maxWaitingRequests = 1;
    Start(options);
    Client working(server->Port());
    ASSERT_TRUE(working.Send("POST", "/work/held"));
    ASSERT_TRUE(workEntered.Wait());
    Client queued(server->Port());
    ASSERT_TRUE(queued.Send("POST", "/work"));
    Client waiting(server->Port());
    ASSERT_TRUE(waiting.Send("POST", "/wait"));
    ASSERT_TRUE(waitEntered.Wait());

    // The queued request may still be on its way to the queue: a refusal is certain only once it is in.
    ASSERT_TRUE(NyTest::Eventually([this] {
        Client beyond(server->Port());
        return beyond.Status("POST", "/work") == 503;
    }));
    Client secondWaiting(server->Port());
    ASSERT_TRUE(secondWaiting.Send("POST", "/wait"));
    auto refused = secondWaiting.ReadReply();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 503);
    EXPECT_EQ(refused->headers["retry-after"], "1");
    Client reading(server->Port());
    EXPECT_EQ(reading.Status("GET", "/read"), 200);

    workGate.Open();
    waitGate.Open();
    for (Client* client : {&working, &queued, &waiting}) {
        const auto reply = client->ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 200);
    }
}

TEST_P(HttpServerDispatch, WorkersStartOnDemandEndWhenIdleAndStartAgain) {
    auto options = Options();
    options.workerThreads = 2;
    options.workerIdleTimeout = 1ms;  // every worker retires as soon as it has nothing to do
    Start(options);
    // An idle server keeps no worker.
    EXPECT_EQ(ThreadsNamed("NyHttp.Worker"), 0u);
    Client reading(server->Port());
    EXPECT_EQ(reading.Status("GET", "/read"), 200);
    EXPECT_EQ(ThreadsNamed("NyHttp.Worker"), 0u);

    // Requests arrive while workers retire: each is served, by a worker that runs or one started anew.
    std::vector<std::future<int>> replies;
    for (int i = 0; i < 8; ++i) {
        replies.push_back(std::async(std::launch::async, [this] {
            Client client(server->Port());
            int last = 0;
            for (int n = 0; n < 10 && (last = client.Status("POST", "/work")) == 200; ++n) {
            }
            return last;
        }));
    }
    for (auto& reply : replies) {
        EXPECT_EQ(reply.get(), 200);
    }
    EXPECT_TRUE(NyTest::Eventually([] { return ThreadsNamed("NyHttp.Worker") == 0; }));
    Client again(server->Port());
    EXPECT_EQ(again.Status("POST", "/work"), 200);
}

INSTANTIATE_TEST_SUITE_P(IoThreads, HttpServerDispatch, ::testing::Values(1u, 2u),
                         [](const auto& info) { return std::to_string(info.param) + "IoThreads"; });

}  // namespace
