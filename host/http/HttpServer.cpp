// All Boost.Beast and Asio code of the host lives in this one file: it is slow to compile.
#include <utility>  // Boost 1.74's Asio needs it before its own headers under g++ 12 in C++20

#include "HttpServer.h"

#include <algorithm>
#include <atomic>
#include <cctype>
#include <condition_variable>
#include <deque>
#include <mutex>
#include <thread>

#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <nlohmann/json.hpp>

#include "NyApi/Logging.h"

namespace NyHost {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;

const std::string* HttpRequest::Header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (key.size() == name.size() && std::equal(key.begin(), key.end(), name.begin(), [](char a, char b) {
                return std::tolower(static_cast<unsigned char>(a)) ==
                       std::tolower(static_cast<unsigned char>(b));
            })) {
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

std::string ErrorJson(const std::string& message) {
    return JsonErrorReply(500, message).body;
}

// A bounded pool of threads that runs request handlers. Submit never blocks.
class WorkerPool {
  public:
    WorkerPool(unsigned threads, size_t maxQueuedIn) : maxQueued(maxQueuedIn) {
        for (unsigned i = 0; i < threads; ++i) {
            workers.emplace_back([this] { Loop(); });
        }
    }
    ~WorkerPool() { Stop(); }

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

    // Drops queued jobs and joins the workers after their jobs in progress.
    void Stop() {
        std::deque<std::function<void()>> dropped;
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
            job();
        }
    }

    std::mutex mutex;  // guards queue and stopping
    std::condition_variable wake;
    std::deque<std::function<void()>> queue;
    bool stopping = false;
    size_t maxQueued;
    std::vector<std::thread> workers;  // joined by Stop
};

}  // namespace

class EventSession;
class Session;

struct HttpServer::Impl : std::enable_shared_from_this<HttpServer::Impl> {
    Impl(HttpServerOptions optionsIn, Handler handlerIn, Filter filterIn)
        : options(std::move(optionsIn)),
          handler(std::move(handlerIn)),
          filter(std::move(filterIn)),
          acceptor(net::make_strand(io)) {}

    void Accept();
    void Track(const std::shared_ptr<Session>& session);
    bool AddEventClient(const std::shared_ptr<EventSession>& session);

    HttpServerOptions options;
    Handler handler;
    Filter filter;
    net::io_context io;
    tcp::acceptor acceptor;
    std::unique_ptr<WorkerPool> workers;
    std::vector<std::thread> ioThreads;  // joined by Stop
    std::atomic<bool> stopping{false};
    std::uint16_t boundPort = 0;
    std::string boundAddress;

    std::mutex sessionsMutex;                                // guards sessions and eventSessions
    std::vector<std::weak_ptr<Session>> sessions;            // guarded by sessionsMutex
    std::vector<std::weak_ptr<EventSession>> eventSessions;  // guarded by sessionsMutex
};

// One event-stream client. Lives on its connection's strand; frames are queued there and written one at a
// time. A client whose queue grows beyond the limit is closed: a slow client never holds up the others.
class EventSession : public std::enable_shared_from_this<EventSession> {
  public:
    EventSession(beast::tcp_stream streamIn, std::shared_ptr<HttpServer::Impl> serverIn)
        : stream(std::move(streamIn)), server(std::move(serverIn)), keepAlive(stream.get_executor()) {}

    void Start() {
        stream.expires_never();
        static const std::string header =
            "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-cache\r\n"
            "Connection: keep-alive\r\nX-Accel-Buffering: no\r\n\r\n";
        Enqueue(header);
        WatchForClose();
        ScheduleKeepAlive();
    }

    void Enqueue(const std::string& frame) {
        if (closed) {
            return;
        }
        if (queuedBytes + frame.size() > server->options.eventClientQueueBytes) {
            NY_LOG(Ny::Logging::Level::Notice, "Event client %s dropped: %zu bytes behind.", remote.c_str(),
                   queuedBytes);
            Close();
            return;
        }
        queuedBytes += frame.size();
        queue.push_back(frame);
        lastActivity = std::chrono::steady_clock::now();
        if (queue.size() == 1) {
            WriteNext();
        }
    }

    void Close() {
        if (closed) {
            return;
        }
        closed = true;
        keepAlive.cancel();
        beast::error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
        stream.socket().close(ignored);
    }

    net::any_io_executor Executor() { return stream.get_executor(); }
    std::string remote;

  private:
    void WriteNext() {
        net::async_write(stream, net::buffer(queue.front()),
                         [self = shared_from_this()](beast::error_code ec, std::size_t) {
                             if (ec) {
                                 self->Close();
                                 return;
                             }
                             self->queuedBytes -= self->queue.front().size();
                             self->queue.pop_front();
                             if (!self->queue.empty() && !self->closed) {
                                 self->WriteNext();
                             }
                         });
    }

    // The client never sends anything after its request: a completed read means it went away.
    void WatchForClose() {
        stream.async_read_some(net::buffer(discard),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (ec) {
                                       self->Close();
                                       return;
                                   }
                                   self->WatchForClose();
                               });
    }

    void ScheduleKeepAlive() {
        keepAlive.expires_after(server->options.eventKeepAlive);
        keepAlive.async_wait([self = shared_from_this()](beast::error_code ec) {
            if (ec || self->closed) {
                return;
            }
            if (std::chrono::steady_clock::now() - self->lastActivity >=
                self->server->options.eventKeepAlive) {
                self->Enqueue(": keep-alive\n\n");
            }
            self->ScheduleKeepAlive();
        });
    }

    beast::tcp_stream stream;
    std::shared_ptr<HttpServer::Impl> server;
    net::steady_timer keepAlive;
    std::deque<std::string> queue;
    std::size_t queuedBytes = 0;
    bool closed = false;
    std::chrono::steady_clock::time_point lastActivity = std::chrono::steady_clock::now();
    char discard[256];
};

// One HTTP connection: reads a request, filters it, hands it to a worker (or opens an event stream),
// writes the reply, and reads the next one while the client keeps the connection alive.
class Session : public std::enable_shared_from_this<Session> {
  public:
    Session(tcp::socket socket, std::shared_ptr<HttpServer::Impl> serverIn)
        : stream(std::move(socket)), server(std::move(serverIn)) {}

    void Start() {
        beast::error_code ec;
        stream.socket().set_option(tcp::no_delay(true), ec);
        const auto endpoint = stream.socket().remote_endpoint(ec);
        remote =
            ec ? std::string("?") : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
        net::dispatch(stream.get_executor(), [self = shared_from_this()] { self->Read(); });
    }

    void Close() {
        net::post(stream.get_executor(), [self = shared_from_this()] {
            self->closing = true;
            beast::error_code ignored;
            self->stream.socket().shutdown(tcp::socket::shutdown_both, ignored);
            self->stream.socket().close(ignored);
        });
    }

  private:
    void Read() {
        if (closing) {
            return;
        }
        parser.emplace();
        parser->header_limit(static_cast<std::uint32_t>(server->options.headerLimit));
        parser->body_limit(server->options.bodyLimit);
        stream.expires_after(server->options.readTimeout);
        http::async_read(
            stream, buffer, *parser,
            [self = shared_from_this()](beast::error_code ec, std::size_t) { self->OnRead(ec); });
    }

    void OnRead(beast::error_code ec) {
        if (ec == http::error::end_of_stream || ec == beast::error::timeout ||
            ec == net::error::operation_aborted || ec == net::error::connection_reset ||
            ec == net::error::eof) {
            Shutdown();
            return;
        }
        if (ec == http::error::body_limit) {
            ReplyAndLinger(413, "The request body is larger than " +
                                    std::to_string(server->options.bodyLimit) + " bytes.");
            return;
        }
        if (ec == http::error::header_limit) {
            ReplyAndLinger(431, "The request headers are larger than " +
                                    std::to_string(server->options.headerLimit) + " bytes.");
            return;
        }
        if (ec == http::error::partial_message) {
            Shutdown();
            return;
        }
        if (ec) {
            if (ec.category() == http::make_error_code(http::error::bad_method).category()) {
                ReplyAndLinger(400, "Malformed HTTP request: " + ec.message() + ".");
            } else {
                Shutdown();
            }
            return;
        }
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

        if (server->filter) {
            if (auto refusal = server->filter(request)) {
                Write(std::move(*refusal));
                return;
            }
        }
        const std::string path = request.target.substr(0, request.target.find('?'));
        if (request.method == "GET" && path == server->options.eventsPath) {
            OpenEventStream();
            return;
        }
        auto self = shared_from_this();
        auto shared = std::make_shared<HttpRequest>(std::move(request));
        const bool queued = server->workers->Submit([self, shared] {
            HttpResponse response;
            try {
                response = self->server->handler(*shared);
            } catch (const std::exception& e) {
                response.status = 500;
                response.headers = {{"Content-Type", "application/json"}};
                response.body = ErrorJson(e.what());
            } catch (...) {
                response.status = 500;
                response.headers = {{"Content-Type", "application/json"}};
                response.body = ErrorJson("The request failed with an unknown error.");
            }
            net::post(self->stream.get_executor(),
                      [self, response = std::move(response)]() mutable { self->Write(std::move(response)); });
        });
        if (!queued) {
            HttpResponse busy;
            busy.status = 503;
            busy.headers = {{"Content-Type", "application/json"}, {"Retry-After", "1"}};
            busy.body = ErrorJson("The server is busy; try again.");
            Write(std::move(busy));
        }
    }

    void OpenEventStream() {
        auto events = std::make_shared<EventSession>(std::move(stream), server);
        events->remote = remote;
        if (!server->AddEventClient(events)) {
            // Refused: answer on the stream the session now owns, then close it.
            static const std::string busy =
                "HTTP/1.1 503 Service Unavailable\r\nContent-Type: application/json\r\nConnection: close\r\n"
                "Content-Length: ";
            auto text = std::make_shared<std::string>(ErrorJson("Too many event-stream clients."));
            auto reply =
                std::make_shared<std::string>(busy + std::to_string(text->size()) + "\r\n\r\n" + *text);
            net::post(events->Executor(), [events, reply] {
                events->Enqueue(*reply);
                auto closer =
                    std::make_shared<net::steady_timer>(events->Executor(), std::chrono::milliseconds(200));
                closer->async_wait([events, closer](beast::error_code) { events->Close(); });
            });
            return;
        }
        NY_LOG(Ny::Logging::Level::Progress, "Event client %s connected.", remote.c_str());
        net::post(events->Executor(), [events] { events->Start(); });
    }

    void Write(HttpResponse response) {
        if (closing) {
            return;
        }
        auto message = std::make_shared<http::response<http::string_body>>();
        message->version(11);
        message->result(static_cast<unsigned>(response.status));
        bool hasType = false;
        for (const auto& [name, value] : response.headers) {
            message->insert(name, value);
            hasType = hasType || beast::iequals(name, "Content-Type");
        }
        if (!hasType && !response.body.empty()) {
            message->set(http::field::content_type, "application/json");
        }
        message->body() = std::move(response.body);
        message->keep_alive(keepAlive && !server->stopping);
        message->prepare_payload();
        stream.expires_after(server->options.readTimeout);
        http::async_write(stream, *message,
                          [self = shared_from_this(), message](beast::error_code ec, std::size_t) {
                              if (ec || !message->keep_alive()) {
                                  self->Shutdown();
                                  return;
                              }
                              self->Read();
                          });
    }

    // A transport error reply: after it the client may still be sending, so shut our side, drain what
    // arrives for a moment and only then close, so that the client reads the reply instead of a reset.
    void ReplyAndLinger(int status, const std::string& text) {
        auto message = std::make_shared<http::response<http::string_body>>();
        message->version(11);
        message->result(static_cast<unsigned>(status));
        message->set(http::field::content_type, "application/json");
        message->body() = ErrorJson(text);
        message->keep_alive(false);
        message->prepare_payload();
        stream.expires_after(std::chrono::seconds(5));
        http::async_write(stream, *message,
                          [self = shared_from_this(), message](beast::error_code ec, std::size_t) {
                              if (ec) {
                                  self->Shutdown();
                                  return;
                              }
                              beast::error_code ignored;
                              self->stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
                              self->stream.expires_after(std::chrono::seconds(1));
                              self->Drain();
                          });
    }

    void Drain() {
        stream.async_read_some(net::buffer(discard),
                               [self = shared_from_this()](beast::error_code ec, std::size_t) {
                                   if (ec) {
                                       beast::error_code ignored;
                                       self->stream.socket().close(ignored);
                                       return;
                                   }
                                   self->Drain();
                               });
    }

    void Shutdown() {
        beast::error_code ignored;
        stream.socket().shutdown(tcp::socket::shutdown_send, ignored);
        stream.socket().close(ignored);
    }

    beast::tcp_stream stream;
    std::shared_ptr<HttpServer::Impl> server;
    beast::flat_buffer buffer;
    std::optional<http::request_parser<http::string_body>> parser;
    std::string remote;
    bool keepAlive = true;
    bool closing = false;
    char discard[4096];
};

void HttpServer::Impl::Accept() {
    acceptor.async_accept(net::make_strand(io),
                          [self = shared_from_this()](beast::error_code ec, tcp::socket socket) {
                              if (self->stopping) {
                                  return;
                              }
                              if (!ec) {
                                  auto session = std::make_shared<Session>(std::move(socket), self);
                                  self->Track(session);
                                  session->Start();
                              }
                              self->Accept();
                          });
}

void HttpServer::Impl::Track(const std::shared_ptr<Session>& session) {
    std::lock_guard guard(sessionsMutex);
    sessions.erase(
        std::remove_if(sessions.begin(), sessions.end(), [](const auto& weak) { return weak.expired(); }),
        sessions.end());
    sessions.push_back(session);
}

bool HttpServer::Impl::AddEventClient(const std::shared_ptr<EventSession>& session) {
    std::lock_guard guard(sessionsMutex);
    eventSessions.erase(std::remove_if(eventSessions.begin(), eventSessions.end(),
                                       [](const auto& weak) { return weak.expired(); }),
                        eventSessions.end());
    if (stopping || eventSessions.size() >= options.maxEventClients) {
        return false;
    }
    eventSessions.push_back(session);
    return true;
}

HttpServer::HttpServer(HttpServerOptions options, Handler handler, Filter filter)
    : impl(std::make_shared<Impl>(std::move(options), std::move(handler), std::move(filter))) {}

HttpServer::~HttpServer() {
    Stop();
}

void HttpServer::Start() {
    const auto address = net::ip::make_address(impl->options.address);
    tcp::endpoint endpoint(address, impl->options.port);
    impl->acceptor.open(endpoint.protocol());
    impl->acceptor.set_option(net::socket_base::reuse_address(true));
    impl->acceptor.bind(endpoint);
    impl->acceptor.listen(net::socket_base::max_listen_connections);
    const auto bound = impl->acceptor.local_endpoint();
    impl->boundPort = bound.port();
    impl->boundAddress = bound.address().to_string();
    impl->workers = std::make_unique<WorkerPool>(std::max(1u, impl->options.workerThreads),
                                                 impl->options.maxQueuedRequests);
    impl->Accept();
    for (unsigned i = 0; i < std::max(1u, std::min(impl->options.ioThreads, 2u)); ++i) {
        impl->ioThreads.emplace_back([impl = impl] { impl->io.run(); });
    }
    NY_LOG(Ny::Logging::Level::Notice, "Serving HTTP on %s:%u.", impl->boundAddress.c_str(),
           static_cast<unsigned>(impl->boundPort));
}

std::uint16_t HttpServer::Port() const {
    return impl->boundPort;
}

std::string HttpServer::Address() const {
    return impl->boundAddress;
}

void HttpServer::PublishEvent(const std::string& event, const std::string& data) {
    auto frame = std::make_shared<const std::string>("event: " + event + "\ndata: " + data + "\n\n");
    std::lock_guard guard(impl->sessionsMutex);
    for (const auto& weak : impl->eventSessions) {
        if (auto session = weak.lock()) {
            net::post(session->Executor(), [session, frame] { session->Enqueue(*frame); });
        }
    }
}

size_t HttpServer::EventClientCount() const {
    std::lock_guard guard(impl->sessionsMutex);
    return static_cast<size_t>(std::count_if(impl->eventSessions.begin(), impl->eventSessions.end(),
                                             [](const auto& weak) { return !weak.expired(); }));
}

void HttpServer::Stop() {
    if (!impl || impl->stopping.exchange(true)) {
        return;
    }
    net::post(impl->acceptor.get_executor(), [impl = impl] {
        beast::error_code ignored;
        impl->acceptor.close(ignored);
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
        impl->workers->Stop();  // waits for handlers in progress
    }
    impl->io.stop();
    for (auto& thread : impl->ioThreads) {
        if (thread.joinable()) {
            thread.join();
        }
    }
    impl->ioThreads.clear();
}

}  // namespace NyHost
