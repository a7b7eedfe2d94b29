// `NyHost::HttpServer`: the host's HTTP/1.1 transport with server-sent event streams.
//
// What it is for: it carries requests between clients and one handler function (the host's REST
// dispatch) and pushes events to stream clients. It adds nothing but transport; what a request means is
// the handler's business. No HTTP library type appears here, so that only HttpServer.cpp pays for it.
//
// Threads. One io_context served by `ioThreads` (1 or 2) threads does all socket I/O, timers, the
// checks of a request's framing and the filter; those threads never block for longer than a lock held
// briefly. A request for which `runsInline` says so (a read that runs no code that can block) is handled
// right there on the I/O thread, with no hand-off: that is most of the traffic, and a hand-off to another
// thread and back costs more than such a handler. Such a handler sees `HttpRequest::onIoThread`; when it
// finds it would have to wait (a routine's lock held by plug-in code), it answers with
// `HttpResponse::retryOnWorker` and the transport runs the request again on a worker, dropping that reply.
// Every other request runs on a pool of at most `workerThreads` threads, so that a handler that blocks never
// holds an I/O thread; workers start when requests need them and end after `workerIdleTimeout` without work,
// so that an idle server keeps none. Requests waiting for a worker sit in a queue of at most
// `maxQueuedRequests`; beyond it the server answers 503 at once. A request for which `mayWait` says so (one
// that may wait for another request, e.g. its continue, or for routine code) runs on a thread of its own
// instead, at most `maxWaitingRequests` at once (beyond, 503), so that it never takes the worker the
// releasing request needs.
//
// Limits, enforced before the filter sees a request's header (a body is read only once the filter has
// let its header on, and within its limit): at most `maxConnections` connections (beyond,
// closed at once); per connection a read buffer capped at `headerLimit` plus a few KiB, so that a
// chunk-size line, its extensions or a trailer that never ends is refused (400) rather than buffered;
// headers (431); body (413, refused from the header, never read into memory); a read time-out for the
// whole request (slow or idle clients closed). Framing as HTTP/1.1 requires: a Transfer-Encoding other
// than exactly one "chunked", or beside a Content-Length, is refused and the connection closed (never
// read as a next request); exactly one Host; a path (percent-decoded) and header values that are valid
// UTF-8. "Expect: 100-continue" is answered once the header passes these checks and the filter, or
// with the final error at once. HEAD is handled as GET and answered without the body. An absolute-form target
// reaches the handler in origin form. After an error reply the connection closes lingering (shut the sending
// side, drain briefly, close) so that the client reads the reply rather than a reset. Every error reply
// of the transport is JSON (`JsonErrorReply`) and every reply carries "X-Content-Type-Options: nosniff".
// Accept failures for lack of descriptors pause accepting (100 ms doubling to 1 s, logged once per
// episode) while open connections go on being served; Start() raises the soft open-file limit.
//
// TLS: with `tlsCertFile` and `tlsKeyFile` the port speaks HTTPS only (TLS 1.2 and later, no
// renegotiation), the handshake under the read time-out; a client speaking plain HTTP is closed.
//
// Event streams: GET on `eventsPath` (after the filter) opens a stream. It starts with "retry: <ms>"
// (`eventRetry`), then carries every published event as "id: <id>\nevent: <type>\ndata: <data>\n\n".
// Ids are "<run>-<n>": <run> 8 hex digits picked at random at construction, <n> counting from 1 (see
// EventJournal). The last `eventReplayCount` events (at most `eventReplayBytes`) are kept: a client that
// opens the stream with "Last-Event-ID: <id>" (or, when it cannot set headers, the query "lastEventId")
// is first sent every kept event after that id, then the live ones, none lost or doubled in between
// (the replay and the joining happen under the lock publication takes). An id too old, from another
// run, malformed or ahead of the latest starts the stream instead with one event "reset" that carries the
// latest id and a reason: the client re-reads what it shows. Replayed frames are shared, not copied.
// Each client has a queue of at most `eventClientQueueBytes`, counting each frame's bytes and a fixed
// overhead per queued frame (the replay included); a client further behind, or one that has not taken a
// frame for `readTimeout`, is dropped (its connection closed) and never waited for. Idle streams get a
// comment line every `eventKeepAlive`. At most `maxEventClients` streams at once; beyond, 503. The stream
// gets no entity tag and ignores If-None-Match.
//
// Conditional reads: every 200 reply to GET or HEAD with a body gets a strong ETag (a hash of the body),
// unless the handler set one; a request whose If-None-Match (a list, weak tags, or "*") matches it is
// answered 304 with the ETag and no body, on a connection that stays usable (see ConditionalRead.h).
//
// Health and watchdog: GET or HEAD on `healthPath` is answered by the transport itself, before the filter
// (it reveals nothing but "up" or "not up"): 200 when a probe posted to the I/O threads and one handed to
// the worker pool both ran within `healthBound`, else 503. The watchdog (`watchdogInterval`) ticks on an
// I/O-thread timer and probes the worker pool the same way; `watchdogPing` is called only when the last
// probe ran. So the pings stop when the workers are all held *and* when the I/O thread is stuck (its timer
// no longer fires): a service manager that waits for them catches either. One probe job at a time waits
// in the pool's queue, shared by every health request and the watchdog, so that asking while the workers
// are held takes no room that requests need.
//
// Ownership and lifetime: the owner constructs it, calls Start() once, and calls Stop() or destroys it.
// The server owns every thread it starts and joins them in Stop() (a worker that ended idle is joined by
// the next request that starts one, or by Stop()). The handler, the filter, `runsInline` and `mayWait`
// are called until Stop() returns and must stay valid that long.
#pragma once

#include <chrono>
#include <cstddef>
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
    std::string target;  // as sent: path and query
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    std::string remote;  // "address:port" of the client
    // True while the handler runs on an I/O thread (see `runsInline`): it must not wait, and may ask for
    // a worker with `HttpResponse::retryOnWorker` instead.
    bool onIoThread = false;

    // The first header of that name, compared case-insensitively; null when absent.
    const std::string* Header(std::string_view name) const;
    // Every header of that name as one list, their values joined with ", " as a list header may be
    // split over several lines (Prefer, If-None-Match); empty when absent.
    std::string HeaderList(std::string_view name) const;
};

// Header names and schemes compare this way.
bool EqualsIgnoringCase(std::string_view a, std::string_view b);

struct HttpResponse {
    int status = 200;
    // Content-Type defaults to application/json when a body is given. Content-Length, Transfer-Encoding
    // and Connection belong to the transport and are ignored here.
    std::vector<std::pair<std::string, std::string>> headers;
    std::string body;
    // From a handler on an I/O thread only: run the request again on a worker and drop this reply (the
    // request must be one that can run twice, a read). Ignored on other threads.
    bool retryOnWorker = false;
};

// An error reply in the one JSON shape clients see for every error:
// {"status": 0, "message": <message>, "causes": []} with Content-Type application/json.
HttpResponse JsonErrorReply(int status, const std::string& message);

// What one answered request was: reported once per request that got a reply (from the handler, the
// filter, the transport's own error replies, 304, health), on an I/O thread, after the reply was written
// or writing it failed. An event stream is reported when it opens (status 200).
struct RequestOutcome {
    std::string_view method;  // as the client sent it: any token; bucket it before using it as a label
    std::string_view target;  // as sent (path and query); empty when refused before its header was whole
    int status;
    std::chrono::steady_clock::duration duration;  // from the request's header read to its reply written
    // The reply is the handler's. False for every reply the handler never saw: the filter's, health's,
    // and the transport's own (busy, shutting down, malformed or too large).
    bool handled;
};

// An address and port the server accepts connections on.
struct BoundEndpoint {
    std::string address;  // as the socket tells it, e.g. "127.0.0.1" or "::1"
    std::uint16_t port = 0;
};

struct HttpServerOptions {
    std::string address = "127.0.0.1";
    std::uint16_t port = 8080;  // 0 picks a free port; Port() tells which
    // Threads, chosen for a service where one request may block for as long as a person takes to answer:
    // - I/O threads parse, filter, copy bytes and run the inline reads, which never block for long. Two
    //   use both cores of a small device for reads and for event fan-out, and keep connections served
    //   while one of them waits a moment for a routine's lock. More than 2 are not used.
    // - Workers bound how many handlers run at once (memory, lock contention). Blocked creations are few
    //   (the routine limit keeps them to one or two), so 16 leave plenty for updates and the continue
    //   that releases them. They cost nothing until requests need them.
    // - The queue bounds the waiting: 256 requests of a few milliseconds each are well under a second
    //   of backlog; a client beyond that is better told 503 to retry than kept waiting unseen.
    unsigned ioThreads = 2;
    unsigned workerThreads = 16;
    std::size_t maxQueuedRequests = 256;
    // A worker that found no work for this long ends; the next request that needs one starts it again.
    // Long enough that a burst reuses its workers, short enough that an idle server soon holds none.
    std::chrono::milliseconds workerIdleTimeout{10000};
    std::size_t bodyLimit = 1 << 20;      // bytes; 413 beyond
    std::size_t headerLimit = 16 * 1024;  // bytes of request line and headers; 431 beyond
    // A request must arrive whole within this time, and a keep-alive connection may stay idle this
    // long; an event client that takes no frame for this long is dropped.
    std::chrono::milliseconds readTimeout{30000};
    // Connections open at once, event streams included; a connection beyond is closed at once.
    std::size_t maxConnections = 512;
    // Both set: serve HTTPS only (TLS 1.2 and later) with this PEM certificate chain and key; Start()
    // throws Ny::Exception 0 when they cannot be loaded.
    std::string tlsCertFile;
    std::string tlsKeyFile;
    // Requests for which this returns true may block for as long as a person takes (a creation that
    // waits for its continue). They run on threads of their own, at most `maxWaitingRequests` at once
    // (beyond, 503 with Retry-After), and never take a worker that the request releasing them needs.
    // Called on an I/O thread after the filter: must be quick. Empty: every request goes to a worker.
    std::function<bool(const HttpRequest&)> mayWait;
    std::size_t maxWaitingRequests = 8;
    // Requests for which this returns true run on the I/O thread that read them, with no hand-off: only
    // requests whose handler never blocks for longer than a lock held briefly (reads). Asked after the
    // filter and before `mayWait`, on an I/O thread: must be quick. An exception counts as false. Empty:
    // no request runs inline.
    std::function<bool(const HttpRequest&)> runsInline;
    std::string eventsPath = "/events";
    std::size_t maxEventClients = 64;
    std::size_t eventClientQueueBytes = 1 << 20;
    std::chrono::milliseconds eventKeepAlive{15000};
    // The reconnection delay each stream advises its client ("retry:" at its start).
    std::chrono::milliseconds eventRetry{3000};
    // The events kept for clients that reconnect with Last-Event-ID: the last `eventReplayCount`, and
    // within them at most `eventReplayBytes` of frames. A replay is queued like live frames and may take
    // half of a client's queue, so that live frames still fit behind it (with the defaults a whole
    // journal does); a client that missed more is sent a reset instead.
    std::size_t eventReplayCount = 1024;
    std::size_t eventReplayBytes = 256 * 1024;
    // Adopted listening sockets (socket activation): non-empty means bind nothing and accept on these
    // (already bound and listening, TCP, IPv4 or IPv6; `address` and `port` are ignored). The server owns
    // them and closes them, even when Start() fails or is never called. Port()/Address() tell the first's,
    // Endpoints() every one.
    std::vector<int> listenFds;
    // Called on an I/O thread for every answered request (see RequestOutcome): must be quick; an
    // exception it throws is logged and dropped. Empty: nothing reported.
    std::function<void(const RequestOutcome&)> onRequestDone;
    // GET/HEAD on this path is answered by the transport, before the filter: 200 {"status":"ok"} when
    // the I/O threads and the worker pool both took a probe within `healthBound`, else 503
    // {"status":"unavailable"}. Empty: no health path.
    std::string healthPath = "/health";
    std::chrono::milliseconds healthBound{1000};
    // > 0: every `watchdogInterval` an I/O-thread timer probes the worker pool; when the probe asked
    // at the tick before has run, `watchdogPing` is called on the I/O thread. No probe answered, no ping.
    // `watchdogPing` must be quick; an exception it throws is logged and dropped.
    std::chrono::milliseconds watchdogInterval{0};
    std::function<void()> watchdogPing;
};

class HttpServer {
  public:
    // Runs on an I/O thread (for a request `runsInline` chose), a worker or a waiting thread; may block
    // only on the last two (Stop() waits for it). An exception becomes a 500 JSON reply.
    using Handler = std::function<HttpResponse(const HttpRequest&)>;
    // Runs first, on an I/O thread, for every request, the event stream included: it must be quick and
    // must not block. It sees the request's header only (`body` is empty), before any of the body is
    // read, so that a client it refuses cannot make the server hold a body. A reply refuses the request
    // (authentication, origin checks) before the handler or the stream sees it, and closes the
    // connection when a body was announced; an exception becomes a 500 JSON reply.
    using Filter = std::function<std::optional<HttpResponse>(const HttpRequest&)>;

    // Nothing is bound or started yet. Throws nothing of its own.
    HttpServer(HttpServerOptions options, Handler handler, Filter filter = {});
    // Stop(). Must not run on one of the server's own threads.
    ~HttpServer();
    HttpServer(const HttpServer&) = delete;
    HttpServer& operator=(const HttpServer&) = delete;

    // Binds, listens (or adopts `listenFds`) and starts the I/O and worker threads. Call once, before
    // anything else but the constructor. Throws Ny::Exception 0 (with the system error nested) when the
    // address is invalid or cannot be bound, or an adopted descriptor is not a listening TCP socket;
    // nothing is started then. Throws Ny::Exception -1000 when called a second time.
    void Start();
    // The bound port and address (the real port when 0 was asked). Valid after Start(); thread-safe.
    std::uint16_t Port() const;
    std::string Address() const;
    // Every listening socket's address and port, in the order of `listenFds` (the one bound otherwise).
    // Valid after Start(); thread-safe (fixed from then on).
    const std::vector<BoundEndpoint>& Endpoints() const;

    // Numbers "id: <id>\nevent: <event>\ndata: <data>\n\n", keeps it for clients that reconnect, and
    // queues it for every stream client (a `data` of several lines becomes one "data: " line each).
    // `event` must be one line. Never waits for a client: the frame is handed to each client's strand,
    // which drops a client whose queue is full. Does nothing once Stop() has begun. Thread-safe; must
    // not race with destruction.
    void PublishEvent(const std::string& event, const std::string& data);
    // The event streams currently open. Thread-safe.
    std::size_t EventClientCount() const;
    // The event streams dropped for being too slow (too far behind, or taking no data for
    // `readTimeout`), since Start(). Thread-safe.
    std::uint64_t EventClientsDropped() const;

    // Drains and stops: stops accepting (new connections are refused), closes idle connections, closes
    // event streams once they have written the frames published before (a client that does not take
    // them is closed after a second), answers every request received whole but not yet started, or
    // arriving on an open connection, 503 "The service is shutting down.", waits for handlers in progress
    // and writes their replies, all with "Connection: close", and joins every thread. Connections still busy
    // a short grace period after the last handler returned are cut. A handler that never returns blocks
    // Stop() forever: the owner releases blocked requests first. Idempotent; safe before Start(). Must not be
    // called from the handler, the filter or any other code running on the server's threads. Thread-safe.
    void Stop();

    struct Impl;  // the transport's state, defined with the Beast code

  private:
    std::unique_ptr<Impl> impl;
};

}  // namespace NyHost
