// All Boost.Beast and Asio code of the host lives in this one file: it is slow to compile.
#include <utility>  // Boost 1.74's Asio needs it before its own headers under g++ 12 in C++20

#include "HttpServer.h"

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <exception>
#include <limits>
#include <mutex>
#include <optional>
#include <thread>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"

namespace NyHost {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;

namespace {

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

}  // namespace

const std::string* HttpRequest::Header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (EqualsIgnoringCase(key, name)) {
            return &value;
        }
    }
    return nullptr;
}

HttpResponse JsonErrorReply(int status, const std::string& message) {
    HttpResponse response;
    response.status = status;
    response.headers.emplace_back("Content-Type", "application/json");
    response.body =
        nlohmann::json{{"status", 0}, {"message", message}, {"causes", nlohmann::json::array()}}.dump();
    return response;
}

namespace {

// After an error reply the client may still be sending (a refused body): read and discard for this long
// before closing, so that its unread data does not turn our close into a reset that eats the reply.
constexpr auto kLingerDrain = std::chrono::seconds(1);
constexpr auto kErrorWriteTimeout = std::chrono::seconds(5);
// How long Stop() lets closed connections finish their last completions before it cuts them off.
constexpr auto kStopGrace = std::chrono::seconds(2);
// An accept that fails for lack of resources (descriptors) is retried after a pause, not in a hot loop.
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);

const std::string kStreamHeader =
    "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-cache\r\n"
    "Connection: keep-alive\r\n\r\n";
const std::string kContinueLine = "HTTP/1.1 100 Continue\r\n\r\n";

void NameThread(const char* name) {
    pthread_setname_np(pthread_self(), name);
}

// The transport frames the message itself; a handler's copy of these would contradict it.
bool IsTransportHeader(std::string_view name) {
    return EqualsIgnoringCase(name, "Content-Length") || EqualsIgnoringCase(name, "Transfer-Encoding") ||
           EqualsIgnoringCase(name, "Connection");
}

bool HasLineBreak(std::string_view text) {
    return text.find_first_of("\r\n") != std::string_view::npos;
}

// A line break inside `data` would end the field early; each line becomes a "data: " line of its own,
// which stream clients join again with "\n".
std::string EventFrame(const std::string& event, const std::string& data) {
    std::string frame;
    frame.reserve(event.size() + data.size() + 16);
    frame += "event: ";
    frame += event;
    frame += '\n';
    std::size_t start = 0;
    for (;;) {
        const std::size_t end = data.find('\n', start);
        frame += "data: ";
        frame.append(data, start, end == std::string::npos ? std::string::npos : end - start);
        frame += '\n';
        if (end == std::string::npos) {
            break;
        }
        start = end + 1;
    }
    frame += '\n';
    return frame;
}

const beast::error_category& HttpErrors() {
    return http::make_error_code(http::error::bad_method).category();
}

// The threads that run handlers. Submit never blocks: a full queue is refused and the caller answers 503.
// Owned by the server's state; started by its constructor, joined by Stop() (or the destructor).
class WorkerPool {
  public:
    WorkerPool(unsigned threads, std::size_t maxQueuedIn) : maxQueued(maxQueuedIn) {
        for (unsigned i = 0; i < threads; ++i) {
            workers.emplace_back([this] { Loop(); });
        }
    }
    ~WorkerPool() { Stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // False when the queue is full or the pool is stopping. Thread-safe.
    bool Submit(std::function<void()> job) {
        {
            std::lock_guard guard(mutex);
            if (stopping || queue.size() >= maxQueued) {
                return false;
            }
            queue.push_back(std::move(job));
        }
        wake.notify_one();
        return true;
    }

    // Drops the jobs still queued (their connections are being closed anyway) and joins the workers
    // once their jobs in progress have returned. Not from a worker.
    void Stop() {
        std::deque<std::function<void()>> dropped;  // destroyed outside the lock: jobs own connections
        {
            std::lock_guard guard(mutex);
            stopping = true;
            dropped.swap(queue);
        }
        wake.notify_all();
        for (auto& worker : workers) {
            if (worker.joinable()) {
                worker.join();
            }
        }
    }

  private:
    void Loop() {
        NameThread("NyHttp.Worker");
        for (;;) {
            std::function<void()> job;
            {
                std::unique_lock guard(mutex);
                wake.wait(guard, [this] { return stopping || !queue.empty(); });
                if (stopping) {
                    return;
                }
                job = std::move(queue.front());
                queue.pop_front();
            }
            job();  // catches its own exceptions
        }
    }

    std::mutex mutex;  // guards queue and stopping; innermost, nothing runs under it
    std::condition_variable wake;
    std::deque<std::function<void()>> queue;  // guarded by mutex
    bool stopping = false;                    // guarded by mutex
    const std::size_t maxQueued;
    std::vector<std::thread> workers;  // joined by Stop
};

}  // namespace

class Session;
class EventSession;

struct HttpServer::Impl {
    Impl(HttpServerOptions optionsIn, Handler handlerIn, Filter filterIn)
        : options(std::move(optionsIn)),
          handler(std::move(handlerIn)),
          filter(std::move(filterIn)),
          acceptor(net::make_strand(io)),
          acceptRetry(acceptor.get_executor()) {}

    void Accept();  // acceptor strand (or Start, before the I/O threads run)
    // Registers a new connection so that Stop() can close it; false once Stop() has begun.
    bool Track(const std::shared_ptr<Session>& session);
    // Takes the socket out of `stream` into a new event client, unless the cap is reached or Stop() has
    // begun (null then, and `stream` keeps its socket).
    std::shared_ptr<EventSession> AddEventClient(beast::tcp_stream& stream, const std::string& remote);
    HttpResponse CallHandler(const HttpRequest& request) const;
    std::optional<HttpResponse> CallFilter(const HttpRequest& request) const;
    void RunIo();

    const HttpServerOptions options;
    const Handler handler;
    const Filter filter;
    std::atomic<bool> stopping{false};  // set once by Stop(), read on every thread (seq_cst)
    std::uint16_t boundPort = 0;        // written by Start() before any thread starts; read-only after
    std::string boundAddress;           // likewise

    // Serializes Start() and Stop() (guards started, workers and ioThreads). Lock order: stopMutex, then
    // sessionsMutex or ioMutex; never taken on the server's own threads.
    std::mutex stopMutex;
    bool started = false;                 // guarded by stopMutex
    std::unique_ptr<WorkerPool> workers;  // set by Start() before the I/O threads run; read-only after
    std::vector<std::thread> ioThreads;   // guarded by stopMutex; joined by Stop()

    // Guards sessions and eventSessions. Innermost: only Asio's non-blocking post runs under it.
    mutable std::mutex sessionsMutex;
    std::vector<std::weak_ptr<Session>> sessions;            // guarded by sessionsMutex
    std::vector<std::weak_ptr<EventSession>> eventSessions;  // guarded by sessionsMutex

    std::mutex ioMutex;  // guards ioRunning; innermost
    std::condition_variable ioFinished;
    unsigned ioRunning = 0;  // guarded by ioMutex: I/O threads still inside io.run()

    // Declared last so that they are destroyed first: destroying the io_context destroys the handlers it
    // still holds (after a cut-off Stop), and with them the connections they own, while the rest of this
    // state is still alive.
    net::io_context io;
    tcp::acceptor acceptor;
    net::steady_timer acceptRetry;
    // Keeps the I/O threads in io.run() from Start() until Stop() has handed them its last work: a
    // connection waiting for its handler has no operation pending, and without the guard the threads
    // could leave between Stop()'s posts and never close it. Guarded by stopMutex.
    std::optional<net::executor_work_guard<net::io_context::executor_type>> keepRunning;
};

// One event-stream client. Everything but construction runs on its connection's strand. Frames wait in a
// bounded queue and are written one at a time; a client too far behind, or one that takes no data for
// `readTimeout`, is closed: a slow client never holds up the others or the publisher. Owned by the
// completion handlers in flight; the server keeps only a weak reference.
class EventSession : public std::enable_shared_from_this<EventSession> {
  public:
    EventSession(tcp::socket socketIn, HttpServer::Impl& serverIn, std::string remoteIn)
        : socket(std::move(socketIn)),
          executor(socket.get_executor()),
          server(serverIn),
          remote(std::move(remoteIn)),
          timer(executor) {}

    const net::any_io_executor& Executor() const { return executor; }

    void Start() {
        Enqueue(std::make_shared<const std::string>(kStreamHeader));
        WatchForClose();
        Tick();
    }

    void Enqueue(std::shared_ptr<const std::string> frame) {
        if (closed) {
            return;
        }
        if (queuedBytes + frame->size() > server.options.eventClientQueueBytes) {
            NY_LOG(Ny::Logging::Level::Notice, "Event client %1$s dropped: more than %2$zu bytes behind.",
                   remote.c_str(), server.options.eventClientQueueBytes);
            Close();
            return;
        }
        queuedBytes += frame->size();
        queue.push_back(std::move(frame));
        lastEnqueue = Clock::now();
        if (queue.size() == 1) {
            WriteNext();
        }
    }

    void Close() {
        if (closed) {
            return;
        }
        closed = true;
        timer.cancel();
        beast::error_code ignored;
        socket.shutdown(tcp::socket::shutdown_both, ignored);
        socket.close(ignored);
    }

  private:
    void WriteNext() {
        writeStarted = Clock::now();
        net::async_write(socket, net::buffer(*queue.front()),
                         [self = shared_from_this()](beast::error_code ec, std::size_t) {
                             if (ec) {
                                 self->Close();
                                 return;
                             }
                             self->queuedBytes -= self->queue.front()->size();
                             self->queue.pop_front();
                             if (!self->closed && !self->queue.empty()) {
                                 self->WriteNext();
                             }
                         });
    }

    // A stream client sends nothing after its request: a completed read means it went away.
    void WatchForClose() {
        socket.async_read_some(
            net::buffer(discard), [self = shared_from_this()](beast::error_code ec, std::size_t) {
                if (ec) {
                    if (!self->closed) {
                        NY_LOG(Ny::Logging::Level::Progress, "Event client %s left.", self->remote.c_str());
                    }
                    self->Close();
                    return;
                }
                self->WatchForClose();
            });
    }

    // Keep-alive comments on idle streams, and the check for a client that stopped reading altogether
    // (its write never completes, and with no new events its queue would never overflow).
    void Tick() {
        timer.expires_after(std::min(server.options.eventKeepAlive, server.options.readTimeout));
        timer.async_wait([self = shared_from_this()](beast::error_code ec) {
            if (ec || self->closed) {
                return;
            }
            const auto now = Clock::now();
            if (!self->queue.empty() && now - self->writeStarted >= self->server.options.readTimeout) {
                NY_LOG(Ny::Logging::Level::Notice,
                       "Event client %1$s dropped: it took no data for %2$lld ms.", self->remote.c_str(),
                       static_cast<long long>(self->server.options.readTimeout.count()));
                self->Close();
                return;
            }
            if (now - self->lastEnqueue >= self->server.options.eventKeepAlive) {
                static const auto keepAlive = std::make_shared<const std::string>(": keep-alive\n\n");
                self->Enqueue(keepAlive);
            }
            self->Tick();
        });
    }

    tcp::socket socket;
    const net::any_io_executor executor;  // the connection's strand
    HttpServer::Impl& server;             // outlives every session (see Impl's member order)
    const std::string remote;
    net::steady_timer timer;
    std::deque<std::shared_ptr<const std::string>> queue;  // frames shared between clients
    std::size_t queuedBytes = 0;
    bool closed = false;
    Clock::time_point lastEnqueue = Clock::now();
    Clock::time_point writeStarted = Clock::now();
    char discard[256];
};

// One HTTP connection. Everything but construction, Close() and the hand-over of a worker's reply runs
// on the connection's strand. Reads a request, filters it, hands it to a worker (or turns the connection
// into an event stream), writes the reply and reads the next one while the client keeps it alive. Owned
// by the completion handlers and worker jobs in flight; the server keeps only a weak reference.
class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(tcp::socket socket, HttpServer::Impl& serverIn)
        : executor(socket.get_executor()), stream(std::move(socket)), server(serverIn) {}

    void Start() {
        net::dispatch(executor, [self = shared_from_this()] { self->Begin(); });
    }

    // Any thread.
    void Close() {
        net::post(executor, [self = shared_from_this()] {
            self->closing = true;
            beast::error_code ignored;
            self->stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
            self->stream.close();
        });
    }

  private:
    void Begin() {
        beast::error_code ec;
        stream.socket().set_option(tcp::no_delay(true), ec);
        const auto endpoint = stream.socket().remote_endpoint(ec);
        remote =
            ec ? std::string("?") : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
        Read();
    }

    void Read() {
        if (closing) {
            return;
        }
        parser.emplace();
        parser->header_limit(static_cast<std::uint32_t>(
            std::min<std::size_t>(server.options.headerLimit, std::numeric_limits<std::uint32_t>::max())));
        parser->body_limit(server.options.bodyLimit);
        // One deadline for the whole request, so that a client trickling bytes cannot hold the
        // connection longer than an idle one.
        stream.expires_after(server.options.readTimeout);
        http::async_read_header(stream, buffer, *parser,
                                [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                    if (ec) {
                                        self->OnReadError(ec);
                                        return;
                                    }
                                    self->OnHeader();
                                });
    }

    // The limits are checked with the header (a too-large Content-Length fails there), so a client that
    // asks for "100-continue" is only told to go on once its body is acceptable.
    void OnHeader() {
        if (!parser->is_done() && beast::iequals(parser->get()[http::field::expect], "100-continue")) {
            net::async_write(stream, net::buffer(kContinueLine),
                             [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                 if (ec) {
                                     self->CloseSocket();
                                     return;
                                 }
                                 self->ReadBody();
                             });
            return;
        }
        ReadBody();
    }

    void ReadBody() {
        if (parser->is_done()) {
            OnRequest();
            return;
        }
        http::async_read(stream, buffer, *parser,
                         [self = shared_from_this()](beast::error_code ec, std::size_t) {
                             if (ec) {
                                 self->OnReadError(ec);
                                 return;
                             }
                             self->OnRequest();
                         });
    }

    void OnReadError(beast::error_code ec) {
        if (ec == http::error::body_limit) {
            Refuse(413,
                   "The request body is larger than " + std::to_string(server.options.bodyLimit) + " bytes.");
        } else if (ec == http::error::header_limit) {
            Refuse(431, "The request headers are larger than " + std::to_string(server.options.headerLimit) +
                            " bytes.");
        } else if (ec.category() == HttpErrors() && ec != http::error::end_of_stream &&
                   ec != http::error::partial_message) {
            Refuse(400, "Malformed HTTP request: " + ec.message() + ".");
        } else {
            // The client went away, the connection was closed, or it was idle or too slow. Only a
            // request cut off by the time-out is worth a line; idle keep-alive connections end this way.
            if (ec == beast::error::timeout && parser->got_some()) {
                NY_LOG(Ny::Logging::Level::Notice, "Client %s dropped: its request did not arrive in time.",
                       remote.c_str());
            }
            CloseSocket();
        }
    }

    void OnRequest() {
        http::request<http::string_body> message = parser->release();
        keepAlive = message.keep_alive();
        HttpRequest request;
        request.method = std::string(message.method_string());
        request.target = std::string(message.target());
        for (const auto& field : message) {
            request.headers.emplace_back(std::string(field.name_string()), std::string(field.value()));
        }
        request.body = std::move(message.body());
        request.remote = remote;

        if (auto refusal = server.CallFilter(request)) {
            Write(std::move(*refusal));
            return;
        }
        const std::string path = request.target.substr(0, request.target.find('?'));
        if (request.method == "GET" && path == server.options.eventsPath) {
            OpenEventStream();
            return;
        }
        auto self = shared_from_this();
        auto shared =
            std::make_shared<HttpRequest>(std::move(request));  // std::function needs a copyable job
        const bool queued = server.workers->Submit([self, shared] {
            HttpResponse response = self->server.CallHandler(*shared);
            net::post(self->executor,
                      [self, response = std::move(response)]() mutable { self->Write(std::move(response)); });
        });
        if (!queued) {
            NY_LOG(Ny::Logging::Level::Notice,
                   "Request of %1$s refused: %2$zu requests already wait for a worker.", remote.c_str(),
                   server.options.maxQueuedRequests);
            HttpResponse busy = JsonErrorReply(503, "The server is busy; try again.");
            busy.headers.emplace_back("Retry-After", "1");
            Write(std::move(busy));
        }
    }

    void OpenEventStream() {
        auto events = server.AddEventClient(stream, remote);
        if (!events) {
            NY_LOG(Ny::Logging::Level::Notice, "Event client %1$s refused: %2$zu streams are open.",
                   remote.c_str(), server.options.maxEventClients);
            Refuse(503, "Too many event-stream clients.");
            return;
        }
        closing = true;  // the socket belongs to the stream now
        NY_LOG(Ny::Logging::Level::Progress, "Event client %s connected.", remote.c_str());
        // Still on the strand: frames published from now on are queued behind the stream's header.
        events->Start();
    }

    void Write(HttpResponse response) {
        if (closing) {
            return;
        }
        if (response.status < 200 || response.status > 999) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "The handler replied with the invalid status %d.",
                   response.status);
            response = JsonErrorReply(500, "The server made an invalid reply.");
        }
        auto message = std::make_shared<http::response<http::string_body>>();
        message->version(11);
        message->result(static_cast<unsigned>(response.status));
        bool hasType = false;
        for (const auto& [name, value] : response.headers) {
            // A line break would let a value inject headers of its own.
            if (name.empty() || IsTransportHeader(name) || HasLineBreak(name) || HasLineBreak(value)) {
                continue;
            }
            message->insert(name, value);
            hasType = hasType || EqualsIgnoringCase(name, "Content-Type");
        }
        const bool noBody = response.status == 204 || response.status == 304;
        if (!noBody) {
            if (!hasType && !response.body.empty()) {
                message->set(http::field::content_type, "application/json");
            }
            message->body() = std::move(response.body);
        }
        message->keep_alive(keepAlive && !server.stopping);
        message->prepare_payload();
        stream.expires_after(server.options.readTimeout);
        http::async_write(stream, *message,
                          [self = shared_from_this(), message](beast::error_code ec, std::size_t) {
                              if (ec || !message->keep_alive()) {
                                  self->CloseSocket();
                                  return;
                              }
                              self->Read();
                          });
    }

    // An error of the transport itself: reply, then close lingering (see kLingerDrain).
    void Refuse(int status, const std::string& text) {
        if (status != 503) {
            NY_LOG(Ny::Logging::Level::Notice, "Client %1$s refused with %2$d: %3$s", remote.c_str(), status,
                   text.c_str());
        }
        auto message = std::make_shared<http::response<http::string_body>>();
        message->version(11);
        message->result(static_cast<unsigned>(status));
        message->set(http::field::content_type, "application/json");
        message->body() = JsonErrorReply(status, text).body;
        message->keep_alive(false);
        message->prepare_payload();
        stream.expires_after(kErrorWriteTimeout);
        http::async_write(stream, *message,
                          [self = shared_from_this(), message](beast::error_code ec, std::size_t) {
                              if (ec) {
                                  self->CloseSocket();
                                  return;
                              }
                              beast::error_code ignored;
                              self->stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                              self->stream.expires_after(kLingerDrain);
                              self->Drain();
                          });
    }

    void Drain() {
        stream.async_read_some(net::buffer(discard),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (ec) {
                                       self->stream.close();
                                       return;
                                   }
                                   self->Drain();
                               });
    }

    void CloseSocket() {
        beast::error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream.close();
    }

    const net::any_io_executor executor;  // the connection's strand; read by workers to hand back replies
    beast::tcp_stream stream;
    HttpServer::Impl& server;  // outlives every session (see Impl's member order)
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::string_body>> parser;
    std::string remote;
    bool keepAlive = true;
    bool closing = false;  // set by Close() or the hand-over to an event stream: no further I/O
    char discard[4096];
};

void HttpServer::Impl::Accept() {
    acceptor.async_accept(net::make_strand(io), [this](beast::error_code ec, tcp::socket socket) {
        if (stopping) {
            return;
        }
        if (ec) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "Accepting a connection failed: %s",
                   ec.message().c_str());
            acceptRetry.expires_after(kAcceptRetry);
            acceptRetry.async_wait([this](beast::error_code waitError) {
                if (!waitError && !stopping) {
                    Accept();
                }
            });
            return;
        }
        auto session = std::make_shared<Session>(std::move(socket), *this);
        if (Track(session)) {
            session->Start();
        }
        Accept();
    });
}

bool HttpServer::Impl::Track(const std::shared_ptr<Session>& session) {
    std::lock_guard guard(sessionsMutex);
    // Checked under the lock that Stop() takes to close the sessions: a session is either seen by Stop()
    // or never started.
    if (stopping) {
        return false;
    }
    std::erase_if(sessions, [](const auto& weak) { return weak.expired(); });
    sessions.push_back(session);
    return true;
}

std::shared_ptr<EventSession> HttpServer::Impl::AddEventClient(beast::tcp_stream& stream,
                                                               const std::string& remote) {
    std::lock_guard guard(sessionsMutex);
    std::erase_if(eventSessions, [](const auto& weak) { return weak.expired(); });
    if (stopping || eventSessions.size() >= options.maxEventClients) {
        return nullptr;
    }
    auto events = std::make_shared<EventSession>(stream.release_socket(), *this, remote);
    eventSessions.push_back(events);
    return events;
}

HttpResponse HttpServer::Impl::CallHandler(const HttpRequest& request) const {
    try {
        return handler(request);
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%1$s %2$s failed: %3$s", request.method.c_str(),
               request.target.c_str(), e.what());
        return JsonErrorReply(500, e.what());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "%1$s %2$s failed with an unknown error.",
               request.method.c_str(), request.target.c_str());
        return JsonErrorReply(500, "The request failed with an unknown error.");
    }
}

std::optional<HttpResponse> HttpServer::Impl::CallFilter(const HttpRequest& request) const {
    if (!filter) {
        return std::nullopt;
    }
    try {
        return filter(request);
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Checking %1$s %2$s failed: %3$s", request.method.c_str(),
               request.target.c_str(), e.what());
        return JsonErrorReply(500, e.what());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Checking %1$s %2$s failed with an unknown error.",
               request.method.c_str(), request.target.c_str());
        return JsonErrorReply(500, "The request failed with an unknown error.");
    }
}

void HttpServer::Impl::RunIo() {
    NameThread("NyHttp.Io");
    // Nothing of ours throws on these threads; should a library call do so, one connection is lost and
    // the thread goes on serving the others.
    for (;;) {
        try {
            io.run();
            break;
        } catch (const std::exception& e) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "HTTP I/O failed: %s", e.what());
        }
    }
    {
        std::lock_guard guard(ioMutex);
        --ioRunning;
    }
    ioFinished.notify_all();
}

HttpServer::HttpServer(HttpServerOptions options, Handler handler, Filter filter)
    : impl(std::make_unique<Impl>(std::move(options), std::move(handler), std::move(filter))) {}

HttpServer::~HttpServer() {
    Stop();
}

void HttpServer::Start() {
    std::lock_guard startGuard(impl->stopMutex);
    if (impl->started || impl->stopping) {
        throw NY_EXCEPTION(-1000, "The HTTP server can be started only once.");
    }
    const HttpServerOptions& options = impl->options;
    try {
        const tcp::endpoint endpoint(net::ip::make_address(options.address), options.port);
        impl->acceptor.open(endpoint.protocol());
        impl->acceptor.set_option(net::socket_base::reuse_address(true));
        impl->acceptor.bind(endpoint);
        impl->acceptor.listen(net::socket_base::max_listen_connections);
        const auto bound = impl->acceptor.local_endpoint();
        impl->boundPort = bound.port();
        impl->boundAddress = bound.address().to_string();
    } catch (const std::exception& e) {
        beast::error_code ignored;
        impl->acceptor.close(ignored);
        std::throw_with_nested(NY_EXCEPTION(0, "Listening on %1$s:%2$u failed: %3$s", options.address.c_str(),
                                            static_cast<unsigned>(options.port), e.what()));
    }
    impl->started = true;
    impl->keepRunning.emplace(impl->io.get_executor());
    impl->workers =
        std::make_unique<WorkerPool>(std::max(1u, options.workerThreads), options.maxQueuedRequests);
    impl->Accept();
    const unsigned ioThreads = std::clamp(options.ioThreads, 1u, 2u);
    {
        std::lock_guard guard(impl->ioMutex);
        impl->ioRunning = ioThreads;
    }
    for (unsigned i = 0; i < ioThreads; ++i) {
        impl->ioThreads.emplace_back([state = impl.get()] { state->RunIo(); });
    }
    NY_LOG(Ny::Logging::Level::Notice, "Serving HTTP on %1$s:%2$u.", impl->boundAddress.c_str(),
           static_cast<unsigned>(impl->boundPort));
}

std::uint16_t HttpServer::Port() const {
    return impl->boundPort;
}

std::string HttpServer::Address() const {
    return impl->boundAddress;
}

void HttpServer::PublishEvent(const std::string& event, const std::string& data) {
    if (impl->stopping) {
        return;
    }
    const auto frame = std::make_shared<const std::string>(EventFrame(event, data));
    std::lock_guard guard(impl->sessionsMutex);
    for (const auto& weak : impl->eventSessions) {
        if (auto session = weak.lock()) {
            net::post(session->Executor(), [session, frame] { session->Enqueue(frame); });
        }
    }
}

std::size_t HttpServer::EventClientCount() const {
    std::lock_guard guard(impl->sessionsMutex);
    return static_cast<std::size_t>(std::count_if(impl->eventSessions.begin(), impl->eventSessions.end(),
                                                  [](const auto& weak) { return !weak.expired(); }));
}

void HttpServer::Stop() {
    std::lock_guard stopGuard(impl->stopMutex);
    if (impl->stopping.exchange(true)) {
        return;
    }
    net::post(impl->acceptor.get_executor(), [state = impl.get()] {
        beast::error_code ignored;
        state->acceptor.close(ignored);
        state->acceptRetry.cancel();
    });
    {
        std::lock_guard guard(impl->sessionsMutex);
        for (const auto& weak : impl->sessions) {
            if (auto session = weak.lock()) {
                session->Close();
            }
        }
        for (const auto& weak : impl->eventSessions) {
            if (auto session = weak.lock()) {
                net::post(session->Executor(), [session] { session->Close(); });
            }
        }
    }
    if (impl->workers) {
        impl->workers->Stop();  // waits for handlers in progress; their replies find the connection closed
    }
    // With the acceptor and every connection closed and no worker left to hand back a reply, nothing
    // starts new work, so the I/O threads leave io.run() by themselves once the last completions have
    // run. Waiting for that (rather than stopping the io_context at once) lets every close above
    // actually happen now, not at destruction.
    impl->keepRunning.reset();
    {
        std::unique_lock guard(impl->ioMutex);
        if (!impl->ioFinished.wait_for(guard, kStopGrace, [this] { return impl->ioRunning == 0; })) {
            NY_LOG(Ny::Logging::Level::Notice, "HTTP connections still busy after %lld ms are cut off.",
                   static_cast<long long>(
                       std::chrono::duration_cast<std::chrono::milliseconds>(kStopGrace).count()));
        }
    }
    impl->io.stop();
    for (auto& thread : impl->ioThreads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    impl->ioThreads.clear();
    if (impl->started) {
        NY_LOG(Ny::Logging::Level::Notice, "Stopped serving HTTP on %1$s:%2$u.", impl->boundAddress.c_str(),
               static_cast<unsigned>(impl->boundPort));
    }
}

}  // namespace NyHost
