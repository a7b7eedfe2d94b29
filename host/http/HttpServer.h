// `NyHost::HttpServer`: the host's HTTP/1.1 transport with server-sent event streams.
//
// All I/O runs on one io_context served by 1-2 threads that never block; requests are handed to a
// separate bounded pool of worker threads, so a handler that blocks for a long time (a creating request
// waiting for another request's continue) never holds an I/O thread and other connections keep being
// served. Beyond `maxQueuedRequests` waiting requests the server answers 503 at once rather than queue
// without bound. The pool is sized for blocked creations plus ordinary traffic (16 by default): with a
// routine limit of one, at most one creation blocks at a time.
//
// Per connection: a strand, TCP_NODELAY, keep-alive, a body limit (413, refused from the header without
// reading the body), a header limit (431), read time-outs, JSON error replies and a lingering close after
// a transport error. GET on `eventsPath` opens an event stream: a bounded queue per client, a keep-alive
// comment on idle streams, a slow client is dropped and never waited for, and a cap on clients (503).
//
// Lifetime: construct, Start(), then Stop() (or destroy). Stop() stops accepting, closes every
// connection and stream, waits for handlers in progress and joins every thread; a handler that never
// returns would block it, so the host releases blocked requests first. PublishEvent is thread-safe and
// never blocks. The handler and the filter run on worker and I/O threads respectively and must be
// thread-safe.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

namespace NyHost {

struct HttpRequest {
    std::string method;
    std::string target;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string remote;

    // Case-insensitive; null when absent.
    const std::string* Header(std::string_view name) const;
};

struct HttpResponse {
    int status = 200;
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
};

// The host's own error replies (transport, static files, refusals) in the same JSON shape as the
// router's: {"status": 0, "message": <text>, "causes": []}.
HttpResponse JsonErrorReply(int status, const std::string& message);

struct HttpServerOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;  // 0 picks a free port
    unsigned ioThreads = 1;
    unsigned workerThreads = 16;
    std::size_t maxQueuedRequests = 256;
    std::size_t bodyLimit = 1 << 20;
    std::size_t headerLimit = 16 * 1024;
    std::chrono::milliseconds readTimeout{30000};
    std::string eventsPath = "/events";
    std::size_t maxEventClients = 64;
    std::size_t eventClientQueueBytes = 1 << 20;
    std::chrono::milliseconds eventKeepAlive{15000};
};

class HttpServer {
  public:
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    // Runs first for every request, the event stream included; a reply refuses the request.
    using Filter = std::function<std::optional<HttpResponse>(const HttpRequest&)>;

    HttpServer(HttpServerOptions options, Handler handler, Filter filter = {});
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds and starts the threads. Throws std::system_error when the address cannot be bound.
    void Start();
    std::uint16_t Port() const;
    std::string Address() const;
    // Queues "event: <event>\ndata: <data>\n\n" for every stream client.
    void PublishEvent(const std::string& event, const std::string& data);
    size_t EventClientCount() const;
    void Stop();

    struct Impl;  // the transport's state, defined with the Beast code

  private:
    std::shared_ptr<Impl> impl;
};

}  // namespace NyHost
