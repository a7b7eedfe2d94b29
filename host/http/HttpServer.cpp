// All Boost.Beast and Asio code of the host lives in this one file: it is slow to compile.
#include <utility>  // Boost 1.74's Asio needs it before its own headers under g++ 12 in C++20

#include "ConditionalRead.h"
#include "EventJournal.h"
#include "HttpServer.h"
#include "LogBudget.h"

#include <pthread.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cctype>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <deque>
#include <exception>
#include <limits>
#include <list>
#include <optional>
#include <thread>

#include <boost/asio/dispatch.hpp>
#include <boost/asio/executor_work_guard.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/write.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <nlohmann/json.hpp>

#include "NyApi/Exception.h"
#include "NyApi/Logging.h"
#include "NyApi/Mutex.h"
#include "NyApi/Status.h"

namespace NyHost {

namespace beast = boost::beast;
namespace http = beast::http;
namespace net = boost::asio;
using tcp = net::ip::tcp;
using Clock = std::chrono::steady_clock;
// A connection is served over one of these; the session code is the same for both.
using PlainStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

bool EqualsIgnoringCase(std::string_view a, std::string_view b) {
    return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
               return std::tolower(static_cast<unsigned char>(x)) ==
                      std::tolower(static_cast<unsigned char>(y));
           });
}

const std::string* HttpRequest::Header(std::string_view name) const {
    for (const auto& [key, value] : headers) {
        if (EqualsIgnoringCase(key, name)) {
            return &value;
        }
    }
    return nullptr;
}

std::string HttpRequest::HeaderList(std::string_view name) const {
    std::string list;
    for (const auto& [key, value] : headers) {
        if (EqualsIgnoringCase(key, name)) {
            list += list.empty() ? value : ", " + value;
        }
    }
    return list;
}

HttpResponse JsonErrorReply(int status, const std::string& message) {
    HttpResponse response;
    response.status = status;
    response.headers.emplace_back("Content-Type", "application/json");
    // A message may quote what a client sent (a handler's exception text): invalid UTF-8 is replaced,
    // never thrown on a network thread.
    response.body =
        nlohmann::json{{"status", 0}, {"message", message}, {"causes", nlohmann::json::array()}}.dump(
            -1, ' ', false, nlohmann::json::error_handler_t::replace);
    return response;
}

namespace {

// After an error reply the client may still be sending (a refused body): read and discard for this long
// before closing, so that its unread data does not turn our close into a reset that eats the reply.
constexpr auto kLingerDrain = std::chrono::seconds(1);
constexpr auto kErrorWriteTimeout = std::chrono::seconds(5);
// How long Stop() lets closed connections finish their last completions before it cuts them off.
constexpr auto kStopGrace = std::chrono::seconds(2);
// How long Stop() keeps an idle connection open for a request already on its way, and how long at most
// it waits for one that is still arriving (well inside kStopGrace).
constexpr auto kStopRead = std::chrono::milliseconds(200);
constexpr auto kStopReadLimit = std::chrono::milliseconds(1000);
// How long Stop() lets an event stream write the frames published before it (well inside kStopGrace).
constexpr auto kStopFlushLimit = std::chrono::milliseconds(1000);
// An accept that fails for lack of resources (descriptors) is retried after a pause that doubles up to a
// second, not in a hot loop: the pending connection keeps the listening socket readable.
constexpr auto kAcceptRetry = std::chrono::milliseconds(100);
constexpr auto kAcceptRetryMax = std::chrono::milliseconds(1000);
// What one connection may hold of bytes not yet parsed, beyond the header limit: a chunk-size line with
// its extensions, or a trailer, must fit in this; a longer one is refused rather than buffered.
constexpr std::size_t kChunkLineLimit = 4096;
// What an event client's queue costs beyond the frame's bytes: the queue slot, the shared reference and
// the hand-over to its strand. Counted so that a flood of tiny frames is bounded like a few large ones.
constexpr std::size_t kQueuedFrameOverhead = 128;

// The start of every stream: its HTTP header and the reconnection delay the client is advised.
std::string StreamOpening(std::chrono::milliseconds retry) {
    return "HTTP/1.1 200 OK\r\nContent-Type: text/event-stream\r\nCache-Control: no-cache\r\n"
           "X-Content-Type-Options: nosniff\r\nConnection: keep-alive\r\n\r\nretry: " +
           std::to_string(std::max<long long>(0, retry.count())) + "\n\n";
}

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

// RFC 3629: no overlong forms, no surrogates, nothing beyond U+10FFFF.
bool IsValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto byte = static_cast<unsigned char>(text[i]);
        if (byte < 0x80) {
            ++i;
            continue;
        }
        std::size_t length = 0;
        unsigned char low = 0x80;
        unsigned char high = 0xBF;
        if (byte >= 0xC2 && byte <= 0xDF) {
            length = 2;
        } else if (byte >= 0xE0 && byte <= 0xEF) {
            length = 3;
            low = byte == 0xE0 ? 0xA0 : 0x80;
            high = byte == 0xED ? 0x9F : 0xBF;
        } else if (byte >= 0xF0 && byte <= 0xF4) {
            length = 4;
            low = byte == 0xF0 ? 0x90 : 0x80;
            high = byte == 0xF4 ? 0x8F : 0xBF;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<unsigned char>(text[i + k]);
            if (next < (k == 1 ? low : 0x80) || next > (k == 1 ? high : 0xBF)) {
                return false;
            }
        }
        i += length;
    }
    return true;
}

int HexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    if (c >= 'a' && c <= 'f') {
        return c - 'a' + 10;
    }
    if (c >= 'A' && c <= 'F') {
        return c - 'A' + 10;
    }
    return -1;
}

// Decodes every well-formed "%XX"; anything else is kept as it is (the handler judges it).
std::string PercentDecoded(std::string_view text) {
    std::string decoded;
    decoded.reserve(text.size());
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] == '%' && i + 2 < text.size() && HexDigit(text[i + 1]) >= 0 &&
            HexDigit(text[i + 2]) >= 0) {
            decoded += static_cast<char>(HexDigit(text[i + 1]) * 16 + HexDigit(text[i + 2]));
            i += 2;
        } else {
            decoded += text[i];
        }
    }
    return decoded;
}

// "http://host:port/path?q" becomes "/path?q"; an origin-form target is returned as it is.
std::string OriginForm(std::string_view target) {
    const std::size_t scheme = target.find("://");
    if (target.empty() || target.front() == '/' || scheme == std::string_view::npos ||
        !(EqualsIgnoringCase(target.substr(0, scheme), "http") ||
          EqualsIgnoringCase(target.substr(0, scheme), "https"))) {
        return std::string(target);
    }
    const std::string_view rest = target.substr(scheme + 3);
    const std::size_t path = rest.find_first_of("/?");
    if (path == std::string_view::npos) {
        return "/";
    }
    return (rest[path] == '?' ? "/" : "") + std::string(rest.substr(path));
}

// The authority of an absolute-form target ("http://user@host:port/path" gives "host:port"), or empty.
std::string_view Authority(std::string_view target) {
    const std::size_t scheme = target.find("://");
    if (target.empty() || target.front() == '/' || scheme == std::string_view::npos) {
        return {};
    }
    std::string_view authority = target.substr(scheme + 3);
    authority = authority.substr(0, authority.find_first_of("/?#"));
    const std::size_t user = authority.rfind('@');
    return user == std::string_view::npos ? authority : authority.substr(user + 1);
}

std::string_view View(beast::string_view text) {
    return {text.data(), text.size()};
}

std::string_view Trimmed(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) {
        text.remove_suffix(1);
    }
    return text;
}

// The id a stream client says it saw last: the Last-Event-ID header, or for clients that cannot set
// headers the query parameter "lastEventId" (the header wins: a client reconnecting by itself sends the
// header, newer than the query of the address it was first given). Empty counts as absent.
std::optional<std::string> LastEventId(const HttpRequest& request) {
    if (const std::string* header = request.Header("Last-Event-ID")) {
        const std::string_view id = Trimmed(*header);
        if (!id.empty()) {
            return std::string(id);
        }
    }
    const std::size_t query = request.target.find('?');
    if (query == std::string::npos) {
        return std::nullopt;
    }
    std::string_view rest = std::string_view(request.target).substr(query + 1);
    while (!rest.empty()) {
        const std::size_t end = rest.find('&');
        const std::string_view pair = rest.substr(0, end);
        rest = end == std::string_view::npos ? std::string_view() : rest.substr(end + 1);
        constexpr std::string_view kKey = "lastEventId=";
        if (pair.substr(0, kKey.size()) == kKey && pair.size() > kKey.size()) {
            return PercentDecoded(pair.substr(kKey.size()));
        }
    }
    return std::nullopt;
}
// Raises the soft limit on open descriptors to the hard one, so that connections are refused by the
// connection cap long before accept runs out of descriptors.
void RaiseDescriptorLimit() {
    rlimit limit{};
    if (::getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur >= limit.rlim_max) {
        return;
    }
    const rlim_t previous = limit.rlim_cur;
    limit.rlim_cur = limit.rlim_max;
    if (::setrlimit(RLIMIT_NOFILE, &limit) == 0) {
        NY_LOG(Ny::Logging::Level::Notice, "Open-file limit raised from %1$llu to %2$llu.",
               static_cast<unsigned long long>(previous), static_cast<unsigned long long>(limit.rlim_max));
    }
}

// TLS 1.2 and later only, no renegotiation (a client could make the server repeat handshakes at will).
// Throws Ny::Exception InvalidValue when the certificate or key cannot be used: a setting that starting
// again cannot mend, unlike a port in use.
net::ssl::context MakeTlsContext(const HttpServerOptions& options) {
    if (options.tlsCertFile.empty() || options.tlsKeyFile.empty()) {
        throw NY_EXCEPTION(Ny::Status::InvalidValue, "HTTPS needs both a certificate file and a key file.");
    }
    net::ssl::context context(net::ssl::context::tls_server);
    context.set_options(net::ssl::context::default_workarounds | net::ssl::context::no_sslv2 |
                        net::ssl::context::no_sslv3 | net::ssl::context::no_tlsv1 |
                        net::ssl::context::no_tlsv1_1 | net::ssl::context::single_dh_use);
    SSL_CTX_set_min_proto_version(context.native_handle(), TLS1_2_VERSION);
    SSL_CTX_set_options(context.native_handle(), SSL_OP_NO_RENEGOTIATION);
    try {
        context.use_certificate_chain_file(options.tlsCertFile);
        context.use_private_key_file(options.tlsKeyFile, net::ssl::context::pem);
    } catch (const std::exception& e) {
        std::throw_with_nested(NY_EXCEPTION(
            Ny::Status::InvalidValue, "The TLS certificate %1$s or key %2$s cannot be used: %3$s",
            options.tlsCertFile.c_str(), options.tlsKeyFile.c_str(), e.what()));
    }
    return context;
}

HttpResponse ShuttingDownReply() {
    return JsonErrorReply(503, "The service is shutting down.");
}

// The tail of a log line let through after others were held back (see LogBudget).
std::string HeldBack(std::size_t held) {
    return held == 0 ? std::string() : " (" + std::to_string(held) + " similar lines held back)";
}

const beast::error_category& HttpErrors() {
    return http::make_error_code(http::error::bad_method).category();
}

// A request handed to a thread: `run` calls the handler and hands the reply back; `cancel` answers a
// request that will never run (the server is stopping) so that its client still gets a reply.
struct Job {
    std::function<void()> run;
    std::function<void()> cancel;
    // A health or watchdog probe: queued beyond the cap and not counted against it. There is at most one
    // (see PoolProbe), and refusing it for a full queue would call a pool that is busy serving held.
    bool probe = false;
};

// The threads that run handlers. Submit never blocks: a full queue is refused and the caller answers 503.
// Workers start on demand: a job that finds no idle worker starts one (up to `maxThreads`), and a worker
// idle for `idleTimeout` ends, so that an idle server holds no worker and no timer wakes it. A worker
// that ended is joined by the next Submit or by Stop(). Owned by the server's state; Stop() (or the
// destructor) joins every worker.
class WorkerPool {
  public:
    WorkerPool(unsigned maxThreadsIn, std::size_t maxQueuedIn, std::chrono::milliseconds idleTimeoutIn)
        : maxThreads(maxThreadsIn), maxQueued(maxQueuedIn), idleTimeout(idleTimeoutIn) {}
    ~WorkerPool() { Stop(); }
    WorkerPool(const WorkerPool&) = delete;
    WorkerPool& operator=(const WorkerPool&) = delete;

    // False when the queue is full (of requests; a probe is always taken) or the pool is stopping.
    // Thread-safe.
    bool Submit(Job job) NY_EXCLUDES(mutex) {
        std::list<std::thread> ended;
        {
            Ny::MutexLock guard(mutex);
            if (stopping || (!job.probe && requestsQueued >= maxQueued)) {
                return false;
            }
            requestsQueued += job.probe ? 0 : 1;
            queue.push_back(std::move(job));
            ended.swap(finished);
            // An idle worker counts as taken by each job queued before this one: a new one starts when
            // the waiting ones cannot take every queued job.
            if (queue.size() > idle && running.size() < maxThreads) {
                auto slot = running.emplace(running.end());
                // The worker takes the lock before it looks at its slot, so it sees the slot filled.
                *slot = std::thread([this, slot] { Loop(slot); });
            }
        }
        wake.NotifyOne();
        for (auto& thread : ended) {  // retired: they only return now
            thread.join();
        }
        return true;
    }

    // Cancels the jobs still queued and joins the workers once their jobs in progress have returned.
    // Not from a worker.
    void Stop() NY_EXCLUDES(mutex) {
        std::deque<Job> dropped;
        {
            Ny::MutexLock guard(mutex);
            stopping = true;
            dropped.swap(queue);
            requestsQueued = 0;
        }
        wake.NotifyAll();
        for (auto& job : dropped) {  // outside the lock: a cancel hands a reply to a connection
            job.cancel();
        }
        dropped.clear();
        std::list<std::thread> threads;
        {
            // Nothing starts or retires once `stopping` is set: the lists are final.
            Ny::MutexLock guard(mutex);
            threads.splice(threads.end(), running);
            threads.splice(threads.end(), finished);
        }
        for (auto& thread : threads) {
            if (thread.joinable()) {
                thread.join();
            }
        }
    }

  private:
    using Slot = std::list<std::thread>::iterator;

    void Loop(Slot slot) NY_EXCLUDES(mutex) {
        NameThread("NyHttp.Worker");
        Ny::MutexLock guard(mutex);
        for (;;) {
            while (!stopping && queue.empty()) {
                ++idle;
                const bool woken = wake.WaitFor(mutex, idleTimeout);
                --idle;
                if (!woken && !stopping && queue.empty()) {
                    // Retires under the lock, so that Submit never counts on a worker that is leaving.
                    finished.splice(finished.end(), running, slot);
                    return;
                }
            }
            if (stopping) {
                return;
            }
            Job job = std::move(queue.front());
            queue.pop_front();
            requestsQueued -= job.probe ? 0 : 1;
            guard.Unlock();
            job.run();  // catches its own exceptions
            job = {};   // what the job holds goes before the lock is taken again
            guard.Lock();
        }
    }

    Ny::Mutex mutex;  // innermost: only thread creation runs under it
    Ny::CondVar wake;
    std::deque<Job> queue NY_GUARDED_BY(mutex);
    std::size_t requestsQueued NY_GUARDED_BY(mutex) = 0;  // the jobs of `queue` that are no probe
    bool stopping NY_GUARDED_BY(mutex) = false;
    std::size_t idle NY_GUARDED_BY(mutex) = 0;             // workers waiting for a job
    std::list<std::thread> running NY_GUARDED_BY(mutex);   // workers started and not retired
    std::list<std::thread> finished NY_GUARDED_BY(mutex);  // retired, not yet joined
    const unsigned maxThreads;
    const std::size_t maxQueued;
    const std::chrono::milliseconds idleTimeout;
};

// Whether the worker pool takes a job within a bound, for health checks and the watchdog. One probe job
// at a time waits in the pool's queue, shared by everyone asking meanwhile: asking while the workers are
// held then adds nothing to the queue that requests need, however often a monitor asks. The probe is
// queued even when requests fill the queue: it then runs once those ahead of it are served, so a busy
// pool answers and only a held one does not. Owned by the
// server's state, which keeps it alive while the pool runs its jobs (the pool is stopped first).
class PoolProbe {
  public:
    // Called once with true from a worker when the probe ran, or with false: at once when the pool refuses
    // the probe or the one waiting has waited longer than `bound` already (the pool does not answer), or
    // from the pool's Stop(). Must be quick and must not throw; may run on any thread.
    using Answer = std::function<void(bool ran)>;

    void Ask(WorkerPool& pool, Clock::duration bound, Answer answer) NY_EXCLUDES(mutex) {
        bool submit = false;
        Answer refused;  // answered at once, outside the lock
        {
            Ny::MutexLock guard(mutex);
            const auto now = Clock::now();
            if (outstanding && now - askedAt > bound) {
                refused = std::move(answer);
            } else {
                waiting.push_back(std::move(answer));
                if (!outstanding) {
                    outstanding = true;
                    askedAt = now;
                    submit = true;
                }
            }
        }
        if (refused) {
            refused(false);
            return;
        }
        if (submit && !pool.Submit(Job{[this] { Finish(true); }, [this] { Finish(false); }, true})) {
            Finish(false);
        }
    }

  private:
    void Finish(bool ran) NY_EXCLUDES(mutex) {
        std::vector<Answer> answers;
        {
            Ny::MutexLock guard(mutex);
            outstanding = false;
            answers.swap(waiting);
        }
        for (auto& answer : answers) {  // outside the lock: an answer hands work to a connection
            answer(ran);
        }
    }

    Ny::Mutex mutex;                                // innermost: nothing runs under it
    bool outstanding NY_GUARDED_BY(mutex) = false;  // a probe job is in the pool's queue or running
    Clock::time_point askedAt NY_GUARDED_BY(mutex);
    std::vector<Answer> waiting NY_GUARDED_BY(mutex);  // answered together when the probe job runs
};

// Threads of their own for requests that may wait for a person (see `mayWait`): started on demand, at most
// `maxThreads` at once, so that a held request never takes a worker that the request releasing it needs.
// A finished thread is joined by the next Start() or by Stop().
class WaitingThreads {
  public:
    explicit WaitingThreads(std::size_t maxThreadsIn) : maxThreads(maxThreadsIn) {}
    ~WaitingThreads() { Stop(); }
    WaitingThreads(const WaitingThreads&) = delete;
    WaitingThreads& operator=(const WaitingThreads&) = delete;

    // False when `maxThreads` run already or Stop() has begun. Thread-safe.
    bool Start(std::function<void()> job) NY_EXCLUDES(mutex) {
        std::list<std::thread> joinable;
        bool started = false;
        {
            Ny::MutexLock guard(mutex);
            joinable.splice(joinable.end(), finished);
            if (!stopping && active < maxThreads) {
                ++active;
                auto slot = running.emplace(running.end());
                // The thread takes the lock to retire, so it cannot see its slot before it is filled.
                *slot = std::thread([this, slot, job = std::move(job)] {
                    NameThread("NyHttp.Waiting");
                    job();  // catches its own exceptions
                    Ny::MutexLock retire(mutex);
                    finished.splice(finished.end(), running, slot);
                    --active;
                    done.NotifyAll();
                });
                started = true;
            }
        }
        for (auto& thread : joinable) {  // retired: they only return now
            thread.join();
        }
        return started;
    }

    // Refuses new jobs, waits for the running ones to return and joins every thread. Thread-safe.
    void Stop() NY_EXCLUDES(mutex) {
        std::list<std::thread> joinable;
        {
            Ny::MutexLock guard(mutex);
            stopping = true;
            while (active > 0) {
                done.Wait(mutex);
            }
            joinable.swap(finished);
        }
        for (auto& thread : joinable) {
            thread.join();
        }
    }

  private:
    Ny::Mutex mutex;  // innermost: only thread creation runs under it
    Ny::CondVar done;
    std::list<std::thread> running NY_GUARDED_BY(mutex);
    std::list<std::thread> finished NY_GUARDED_BY(mutex);
    std::size_t active NY_GUARDED_BY(mutex) = 0;
    bool stopping NY_GUARDED_BY(mutex) = false;
    const std::size_t maxThreads;
};

}  // namespace

// What the server's state knows of a connection and of an event client, whatever stream carries them.
class Connection : public std::enable_shared_from_this<Connection> {
  public:
    virtual ~Connection() = default;
    virtual void Start() = 0;
    // For Stop(), from any thread (see Session::Close).
    virtual void Close() = 0;
};

// A client's frames count against its cap from the moment they are handed over, not only once its
// strand has queued them: a publisher faster than the I/O thread would otherwise pile up hand-overs
// (each holding its frame) for clients that are far behind.
class EventClient : public std::enable_shared_from_this<EventClient> {
  public:
    virtual ~EventClient() = default;
    virtual const net::any_io_executor& Executor() const = 0;
    // On the client's strand.
    virtual void Start() = 0;
    // A frame whose cost (FrameCost) Reserve() has granted.
    virtual void Enqueue(std::shared_ptr<const std::string> frame) = 0;
    // Logs and closes a client that was refused a frame.
    virtual void DropBehind() = 0;
    virtual void Close() = 0;
    // For Stop(): closes once the frames queued so far are written, within kStopFlushLimit.
    virtual void Finish() = 0;

    static std::size_t FrameCost(const std::string& frame) { return frame.size() + kQueuedFrameOverhead; }
    // False, reserving nothing, when the frames held would pass `cap`. Any thread.
    bool Reserve(std::size_t cost, std::size_t cap) {
        if (heldBytes.fetch_add(cost) + cost > cap) {
            heldBytes.fetch_sub(cost);
            return false;
        }
        return true;
    }
    void Release(std::size_t cost) { heldBytes.fetch_sub(cost); }
    // Counts frames however far past the cap: a stream's opening, which it must send whatever it costs.
    void Hold(std::size_t cost) { heldBytes.fetch_add(cost); }
    // True the first time only, so that one drop is handed over per client.
    bool MarkBehind() { return !behind.exchange(true); }

  private:
    std::atomic<std::size_t> heldBytes{0};  // frames handed over and not yet written, with their overhead
    std::atomic<bool> behind{false};
};

// One listening socket and its pause after a failed accept. Both on the server's acceptor strand.
struct Listener {
    explicit Listener(const net::strand<net::io_context::executor_type>& strand)
        : acceptor(strand), retry(strand) {}
    tcp::acceptor acceptor;
    net::steady_timer retry;
};

struct HttpServer::Impl {
    Impl(HttpServerOptions optionsIn, Handler handlerIn, Filter filterIn)
        : options(std::move(optionsIn)),
          handler(std::move(handlerIn)),
          filter(std::move(filterIn)),
          waiting(options.maxWaitingRequests),
          acceptStrand(net::make_strand(io)),
          watchdogTimer(net::make_strand(io)) {}
    // Descriptors handed over but never adopted (Start() not called) are still ours to close.
    ~Impl() {
        if (!fdsAdopted) {
            for (const int fd : options.listenFds) {
                ::close(fd);
            }
        }
    }
    Impl(const Impl&) = delete;
    Impl& operator=(const Impl&) = delete;

    // Binds the address, or adopts the descriptors handed over. Start() only, before the I/O threads run.
    void Listen();
    void Adopt(int fd);
    void Accept(Listener& listener);                                                // acceptor strand
    void OnAccepted(Listener& listener, beast::error_code ec, tcp::socket socket);  // acceptor strand
    void PauseAccepting(Listener& listener, beast::error_code ec);                  // acceptor strand
    // The watchdog's tick: pings when the probe asked at the tick before has run, then asks again.
    void Watch();  // watchdog timer's strand
    // Reports an answered request to `onRequestDone`, if any. On an I/O thread.
    void ReportOutcome(const RequestOutcome& outcome) const;
    // Registers a new connection so that Stop() can close it; false once Stop() has begun.
    bool Track(const std::shared_ptr<Connection>& session) NY_EXCLUDES(sessionsMutex);
    // Moves `stream` into a new event client, unless the cap is reached or Stop() has begun (null then,
    // and `stream` is left as it was). The client opens with the stream's header, then what it missed
    // after `lastEventId` (or a reset), then the live frames: all decided under the lock that publication
    // takes, so that nothing published meanwhile is lost or doubled.
    template <typename Stream>
    std::shared_ptr<EventClient> AddEventClient(Stream& stream, const std::string& remote,
                                                std::shared_ptr<void> ticket,
                                                const std::optional<std::string>& lastEventId)
        NY_EXCLUDES(sessionsMutex);
    template <typename Stream>
    std::shared_ptr<EventClient> AddEventClientLocked(Stream& stream, const std::string& remote,
                                                      std::shared_ptr<void> ticket,
                                                      const std::optional<std::string>& lastEventId,
                                                      std::size_t& replayed, bool& reset)
        NY_REQUIRES(sessionsMutex);
    HttpResponse CallHandler(const HttpRequest& request) const;
    std::optional<HttpResponse> CallFilter(const HttpRequest& request) const;
    bool CallMayWait(const HttpRequest& request) const;
    bool CallRunsInline(const HttpRequest& request) const;
    void RunIo() NY_EXCLUDES(ioMutex);

    const HttpServerOptions options;
    const Handler handler;
    const Filter filter;
    // Lines a client can cause without authenticating: refused and dropped connections.
    LogBudget clientLines{20};
    std::atomic<bool> stopping{false};  // set once by Stop(), read on every thread (seq_cst)
    std::uint16_t boundPort = 0;        // written by Start() before any thread starts; read-only after
    std::string boundAddress;           // likewise
    std::vector<BoundEndpoint> boundEndpoints;  // likewise: every listener's, the first being the above
    // Connections open now, event streams included; each holds one ticket (see Accept).
    std::atomic<std::size_t> openConnections{0};
    // Event streams dropped for being too slow; written on their strands, read by anyone (relaxed: a count).
    std::atomic<std::uint64_t> eventClientsDropped{0};
    // Set by the watchdog's probe from a worker, taken by its next tick on the I/O thread (seq_cst).
    std::atomic<bool> watchdogProbeRan{false};
    bool fdsAdopted = false;  // Start() has taken `options.listenFds` over; written before any thread starts

    // Serializes Start() and Stop(). Taken first, before sessionsMutex and ioMutex; never taken on the
    // server's own threads.
    Ny::Mutex stopMutex NY_ACQUIRED_BEFORE(sessionsMutex, ioMutex);
    bool started NY_GUARDED_BY(stopMutex) = false;
    // Declared before the pool, whose Stop() (in its destructor too) answers the probe still queued.
    PoolProbe poolProbe;
    std::unique_ptr<WorkerPool> workers;  // set by Start() before the I/O threads run; read-only after
    std::vector<std::thread> ioThreads NY_GUARDED_BY(stopMutex);  // joined by Stop()
    WaitingThreads waiting;                                       // thread-safe on its own

    // Innermost: only Asio's non-blocking post and the journal's bookkeeping run under it. It also orders
    // publication: a frame is numbered, kept and handed to every client in one hold of it.
    mutable Ny::Mutex sessionsMutex;
    std::vector<std::weak_ptr<Connection>> sessions NY_GUARDED_BY(sessionsMutex);
    std::vector<std::weak_ptr<EventClient>> eventSessions NY_GUARDED_BY(sessionsMutex);
    EventJournal journal NY_GUARDED_BY(sessionsMutex){options.eventReplayCount, options.eventReplayBytes};
    // The header and "retry:" line every stream starts with; shared by all of them.
    const std::shared_ptr<const std::string> streamOpening =
        std::make_shared<const std::string>(StreamOpening(options.eventRetry));

    Ny::Mutex ioMutex;                                  // innermost
    Ny::CondVar ioFinished;                             // ioRunning or inlineRunning went down
    unsigned ioRunning NY_GUARDED_BY(ioMutex) = 0;      // I/O threads still inside io.run()
    unsigned inlineRunning NY_GUARDED_BY(ioMutex) = 0;  // handlers running on I/O threads (see InlineScope)

    // On the acceptor strand only: the pause after a failed accept, and whether the failures were
    // logged (once per episode), shared by the listeners (running out of descriptors is the process's).
    std::chrono::milliseconds acceptPause{kAcceptRetry};
    bool acceptPaused = false;
    bool connectionCapLogged = false;

    // Set by Start() when serving HTTPS, before any connection; read-only after. Outlives the
    // connections (destroyed after `io`).
    std::optional<net::ssl::context> tls;

    // Declared last so that they are destroyed first: destroying the io_context destroys the handlers it
    // still holds (after a cut-off Stop), and with them the connections they own, while the rest of this
    // state is still alive.
    net::io_context io;
    // Every listener lives on this one strand, so that they share the pause state above. A list: the
    // accept completions hold a listener's address.
    net::strand<net::io_context::executor_type> acceptStrand;
    std::list<Listener> listeners;    // filled by Start() before the I/O threads run; closed by Stop()
    net::steady_timer watchdogTimer;  // on a strand of its own
    // Keeps the I/O threads in io.run() from Start() until Stop() has handed them its last work: a
    // connection waiting for its handler has no operation pending, and without the guard the threads
    // could leave between Stop()'s posts and never close it.
    std::optional<net::executor_work_guard<net::io_context::executor_type>> keepRunning
        NY_GUARDED_BY(stopMutex);
};

// Counts one open connection for the cap: made by Accept, handed from a connection to its event stream,
// released when the last of them goes.
struct ConnectionTicket {
    explicit ConnectionTicket(std::atomic<std::size_t>& countIn) : count(countIn) { ++count; }
    ~ConnectionTicket() { --count; }
    ConnectionTicket(const ConnectionTicket&) = delete;
    ConnectionTicket& operator=(const ConnectionTicket&) = delete;
    std::atomic<std::size_t>& count;
};

// Counts a handler running on an I/O thread, so that Stop() waits for it as for a worker's: admitted only
// before Stop() has begun, checked under the lock Stop() waits with, so that none slips in after it looked.
class InlineScope {
  public:
    explicit InlineScope(HttpServer::Impl& serverIn) : server(serverIn) {
        Ny::MutexLock guard(server.ioMutex);
        admitted = !server.stopping;
        if (admitted) {
            ++server.inlineRunning;
        }
    }
    ~InlineScope() {
        if (!admitted) {
            return;
        }
        Ny::MutexLock guard(server.ioMutex);
        --server.inlineRunning;
        server.ioFinished.NotifyAll();  // under the lock: Stop() may go on to destroy the server
    }
    InlineScope(const InlineScope&) = delete;
    InlineScope& operator=(const InlineScope&) = delete;

    // False once Stop() has begun: the request is answered 503 instead.
    bool Admitted() const { return admitted; }

  private:
    HttpServer::Impl& server;
    bool admitted = false;
};

// One event-stream client. Everything but construction runs on its connection's strand. Frames wait in a
// bounded queue and are written one at a time; a client too far behind, or one that takes no data for
// `readTimeout`, is closed: a slow client never holds up the others or the publisher. Owned by the
// completion handlers in flight; the server keeps only a weak reference.
template <typename Stream>
class EventSession final : public EventClient {
  public:
    // `opening`: the frames it starts with, their cost already counted (see AddEventClient).
    EventSession(Stream streamIn, HttpServer::Impl& serverIn, std::string remoteIn,
                 std::shared_ptr<void> ticketIn, std::vector<std::shared_ptr<const std::string>> openingIn)
        : ticket(std::move(ticketIn)),
          stream(std::move(streamIn)),
          executor(stream.get_executor()),
          server(serverIn),
          remote(std::move(remoteIn)),
          timer(executor),
          opening(std::move(openingIn)) {
        // The stream watches its clients itself (Tick); a request's deadline must not cut it.
        beast::get_lowest_layer(stream).expires_never();
    }

    const net::any_io_executor& Executor() const override { return executor; }

    void Start() override {
        for (auto& frame : opening) {
            Enqueue(std::move(frame));
        }
        opening.clear();
        WatchForClose();
        Tick();
    }

    void Enqueue(std::shared_ptr<const std::string> frame) override {
        if (closed) {
            Release(FrameCost(*frame));
            return;
        }
        queue.push_back(std::move(frame));
        lastEnqueue = Clock::now();
        if (queue.size() == 1) {
            WriteNext();
        }
    }

    void DropBehind() override {
        if (closed) {
            return;
        }
        // A client that opens streams and never reads causes these: held to the budget of such lines.
        if (const auto held = server.clientLines.Take()) {
            NY_LOG(Ny::Logging::Level::Notice, "Event client %1$s dropped: more than %2$zu bytes behind.%3$s",
                   remote.c_str(), server.options.eventClientQueueBytes, HeldBack(*held).c_str());
        }
        server.eventClientsDropped.fetch_add(1, std::memory_order_relaxed);
        Close();
    }

    void Close() override {
        if (closed) {
            return;
        }
        closed = true;
        finishing = false;
        timer.cancel();
        beast::error_code ignored;
        beast::get_lowest_layer(stream).socket().shutdown(tcp::socket::shutdown_both, ignored);
        beast::get_lowest_layer(stream).close();
    }

    // The frames were published before the stop, and a client that reads them must not lose them to it;
    // one that does not read is closed when the limit passes, so that the stop never waits for it.
    void Finish() override {
        if (closed || finishing) {
            return;
        }
        if (queue.empty()) {
            Close();
            return;
        }
        finishing = true;
        timer.expires_after(kStopFlushLimit);  // replaces the keep-alive tick, which has nothing to do now
        timer.async_wait([self = Self()](beast::error_code ec) {
            if (!ec && !self->closed) {
                NY_LOG(Ny::Logging::Level::Notice, "Event client %s closed at the stop with frames unsent.",
                       self->remote.c_str());
                self->Close();
            }
        });
    }

  private:
    // A frame of the stream's own (its header, keep-alive comments).
    void EnqueueOwn(std::shared_ptr<const std::string> frame) {
        if (!Reserve(FrameCost(*frame), server.options.eventClientQueueBytes)) {
            DropBehind();
            return;
        }
        Enqueue(std::move(frame));
    }

    void WriteNext() {
        writeStarted = Clock::now();
        net::async_write(stream, net::buffer(*queue.front()),
                         [self = Self()](beast::error_code ec, std::size_t) {
                             if (ec) {
                                 self->Close();
                                 return;
                             }
                             self->Release(FrameCost(*self->queue.front()));
                             self->queue.pop_front();
                             if (self->closed) {
                                 return;
                             }
                             if (!self->queue.empty()) {
                                 self->WriteNext();
                             } else if (self->finishing) {
                                 self->Close();
                             }
                         });
    }

    // A stream client sends nothing after its request: a completed read means it went away.
    void WatchForClose() {
        stream.async_read_some(net::buffer(discard), [self = Self()](beast::error_code ec, std::size_t) {
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
        timer.async_wait([self = Self()](beast::error_code ec) {
            // Finishing: the timer now bounds the flush (a tick already due must not re-arm it).
            if (ec || self->closed || self->finishing) {
                return;
            }
            const auto now = Clock::now();
            if (!self->queue.empty() && now - self->writeStarted >= self->server.options.readTimeout) {
                if (const auto held = self->server.clientLines.Take()) {
                    NY_LOG(Ny::Logging::Level::Notice,
                           "Event client %1$s dropped: it took no data for %2$lld ms.%3$s",
                           self->remote.c_str(),
                           static_cast<long long>(self->server.options.readTimeout.count()),
                           HeldBack(*held).c_str());
                }
                self->server.eventClientsDropped.fetch_add(1, std::memory_order_relaxed);
                self->Close();
                return;
            }
            if (now - self->lastEnqueue >= self->server.options.eventKeepAlive) {
                static const auto keepAlive = std::make_shared<const std::string>(": keep-alive\n\n");
                self->EnqueueOwn(keepAlive);
            }
            self->Tick();
        });
    }

    std::shared_ptr<EventSession> Self() {
        return std::static_pointer_cast<EventSession>(shared_from_this());
    }

    const std::shared_ptr<void> ticket;  // counts the connection for the cap while the stream lives
    Stream stream;
    const net::any_io_executor executor;  // the connection's strand
    HttpServer::Impl& server;             // outlives every session (see Impl's member order)
    const std::string remote;
    net::steady_timer timer;
    std::deque<std::shared_ptr<const std::string>> queue;     // frames shared between clients
    std::vector<std::shared_ptr<const std::string>> opening;  // until Start() queues them
    bool closed = false;
    bool finishing = false;  // Stop() has begun: close once the queue is written (see Finish)
    Clock::time_point lastEnqueue = Clock::now();
    Clock::time_point writeStarted = Clock::now();
    char discard[256];
};

// One HTTP connection. Everything but construction, Close() and the hand-over of a reply from a handler's
// thread runs on the connection's strand. Reads a request in steps (header, checks, body), filters it,
// hands it to a worker or a waiting thread (or turns the connection into an event stream), writes the
// reply and reads the next one while the client keeps it alive. What it buffers is capped: the header
// by `headerLimit`, any other unparsed bytes (chunk-size lines, extensions, trailers) by kChunkLineLimit
// on top of it, the body by `bodyLimit`. Owned by the completion handlers and jobs in flight; the server
// keeps only a weak reference.
template <typename Stream>
class Session final : public Connection {
  public:
    Session(Stream streamIn, HttpServer::Impl& serverIn, std::shared_ptr<void> ticketIn)
        : ticket(std::move(ticketIn)),
          stream(std::move(streamIn)),
          executor(stream.get_executor()),
          server(serverIn),
          buffer(server.options.headerLimit + kChunkLineLimit) {}

    void Start() override {
        net::dispatch(executor, [self = Self()] { self->Begin(); });
    }

    // For Stop(), from any thread. A request fully received and not yet answered gets its reply
    // (Connection: close) first. An idle or half-read connection is closed after kStopRead: a request
    // its client sent just before the stop may still be on its way through the kernel, and is answered
    // 503 rather than cut off unanswered.
    void Close() override {
        net::post(executor, [self = Self()] {
            if (self->busy || self->closing) {
                // Closed already; or Write sees `stopping` and closes after the reply, or, for a reply
                // it began as keep-alive before the stop, the read after it watches (see Read).
                return;
            }
            self->WatchStop();
        });
    }

  private:
    static constexpr bool kTls = std::is_same_v<Stream, TlsStream>;

    std::shared_ptr<Session> Self() { return std::static_pointer_cast<Session>(shared_from_this()); }
    beast::tcp_stream& Lowest() { return beast::get_lowest_layer(stream); }

    void Begin() {
        beast::error_code ec;
        Lowest().socket().set_option(tcp::no_delay(true), ec);
        const auto endpoint = Lowest().socket().remote_endpoint(ec);
        remote =
            ec ? std::string("?") : endpoint.address().to_string() + ":" + std::to_string(endpoint.port());
        if constexpr (kTls) {
            Handshake();
        } else {
            Read();
        }
    }

    // Under the read time-out, so that a client that never finishes it is closed like a slow one. A
    // client speaking plain HTTP fails here and is closed: it gets no HTTP reply in clear text.
    void Handshake() {
        Lowest().expires_after(server.options.readTimeout);
        stream.async_handshake(net::ssl::stream_base::server, [self = Self()](beast::error_code ec) {
            if (ec) {
                NY_LOG(Ny::Logging::Level::Progress, "TLS handshake with %1$s failed: %2$s",
                       self->remote.c_str(), ec.message().c_str());
                self->CloseSocket();
                return;
            }
            self->Read();
        });
    }

    void Read() {
        if (closing) {
            CloseSocket();
            return;
        }
        busy = false;
        pendingRequest.reset();
        parser.emplace();
        if (server.stopping) {
            // Not closed at once: the client may have sent its next request already (after a reply that
            // was begun as keep-alive before the stop), or the connection may be new and its first request
            // on its way. What arrives is answered (503 from here on); an idle connection is closed.
            WatchStop();
        }
        parser->header_limit(static_cast<std::uint32_t>(
            std::min<std::size_t>(server.options.headerLimit, std::numeric_limits<std::uint32_t>::max())));
        parser->body_limit(server.options.bodyLimit);
        // One deadline for the whole request, so that a client trickling bytes cannot hold the
        // connection longer than an idle one.
        Lowest().expires_after(server.options.readTimeout);
        http::async_read_header(stream, buffer, *parser, [self = Self()](beast::error_code ec, std::size_t) {
            if (ec) {
                self->OnReadError(ec);
                return;
            }
            self->OnHeader();
        });
    }

    // The limits and the framing are checked with the header, so a client that asks for "100-continue"
    // is told to go on only once its request is acceptable, and is told the final error at once if not.
    //
    // The filter decides on the header alone, before any of the body is read: a client it refuses (one
    // without the token) can make the connection hold no more than its header, and is not told to
    // continue.
    void OnHeader() {
        BeginOutcome();
        if (auto refusal = CheckHeader()) {
            Refuse(refusal->first, refusal->second);
            return;
        }
        pendingRequest = TakeHeader();
        if (IsHealthRequest(*pendingRequest)) {
            CheckHealth();
            return;
        }
        if (auto refusal = server.CallFilter(*pendingRequest)) {
            busy = true;
            if (parser->is_done()) {
                Write(std::move(*refusal));
            } else {
                // The body was never read: the connection cannot go on to a next request.
                RefuseWith(std::move(*refusal));
            }
            return;
        }
        if (!parser->is_done() && beast::iequals(parser->get()[http::field::expect], "100-continue")) {
            net::async_write(stream, net::buffer(kContinueLine),
                             [self = Self()](beast::error_code ec, std::size_t) {
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

    // A framing the transport does not understand exactly would let the body be read as a request of
    // its own (smuggling): anything but one final "chunked" is refused, and so is a Content-Length
    // beside it. Text the handler gets must be valid UTF-8, so that no reply or log built from it throws.
    std::optional<std::pair<int, std::string>> CheckHeader() const {
        const auto& header = parser->get();
        std::size_t hosts = 0;
        std::size_t codings = 0;
        std::string_view coding;
        for (const auto& field : header) {
            if (field.name() == http::field::host) {
                ++hosts;
            } else if (field.name() == http::field::transfer_encoding) {
                ++codings;
                coding = Trimmed(View(field.value()));
            }
            if (!IsValidUtf8(View(field.value()))) {
                return std::pair{400, std::string("A header value is not valid UTF-8.")};
            }
        }
        if (hosts != 1) {
            return std::pair{400, std::string("A request needs exactly one Host header.")};
        }
        if (codings > 0) {
            if (codings != 1 || !EqualsIgnoringCase(coding, "chunked")) {
                return std::pair{501, std::string("Only the chunked transfer coding is supported.")};
            }
            if (header.count(http::field::content_length) != 0) {
                return std::pair{400,
                                 std::string("Transfer-Encoding and Content-Length exclude each other.")};
            }
        }
        const std::string_view target = View(header.target());
        if (!IsValidUtf8(PercentDecoded(target.substr(0, target.find('?'))))) {
            return std::pair{400, std::string("The request path is not valid UTF-8.")};
        }
        return std::nullopt;
    }

    void ReadBody() {
        if (parser->is_done()) {
            OnRequest();
            return;
        }
        http::async_read(stream, buffer, *parser, [self = Self()](beast::error_code ec, std::size_t) {
            if (ec) {
                self->OnReadError(ec);
                return;
            }
            self->OnRequest();
        });
    }

    void OnReadError(beast::error_code ec) {
        if (!outcomePending) {
            // Refused before its header was whole: timed from here, with the method if it was read.
            BeginOutcome();
        }
        if (ec == http::error::body_limit) {
            Refuse(413,
                   "The request body is larger than " + std::to_string(server.options.bodyLimit) + " bytes.");
        } else if (ec == http::error::header_limit ||
                   (ec == http::error::buffer_overflow && !parser->is_header_done())) {
            Refuse(431, "The request headers are larger than " + std::to_string(server.options.headerLimit) +
                            " bytes.");
        } else if (ec == http::error::buffer_overflow) {
            Refuse(400,
                   "A chunk line or trailer is longer than " + std::to_string(kChunkLineLimit) + " bytes.");
        } else if (ec.category() == HttpErrors() && ec != http::error::end_of_stream &&
                   ec != http::error::partial_message) {
            Refuse(400, "Malformed HTTP request: " + ec.message() + ".");
        } else {
            // The client went away, the connection was closed, or it was idle or too slow. Only a
            // request cut off by the time-out is worth a line; idle keep-alive connections end this way.
            if (ec == beast::error::timeout && parser->got_some()) {
                if (const auto held = server.clientLines.Take()) {
                    NY_LOG(Ny::Logging::Level::Notice,
                           "Client %1$s dropped: its request did not arrive in time.%2$s", remote.c_str(),
                           HeldBack(*held).c_str());
                }
            }
            CloseSocket();
        }
    }

    // The request is whole: from here until its reply is written the connection is busy, and Stop()
    // lets it finish.
    void OnRequest() {
        busy = true;
        HttpRequest whole = std::move(*pendingRequest);
        pendingRequest.reset();
        whole.body = std::move(parser->release().body());
        const std::string path = whole.target.substr(0, whole.target.find('?'));
        if (whole.method == "GET" && !headOnly && path == server.options.eventsPath) {
            OpenEventStream(LastEventId(whole));
            return;
        }
        Dispatch(std::move(whole));
    }

    // The request as the filter sees it: everything but the body. A HEAD is handled as the GET it asks
    // about; Write leaves out the body.
    HttpRequest TakeHeader() {
        const auto& header = parser->get();
        keepAlive = header.keep_alive();
        headOnly = header.method() == http::verb::head;
        HttpRequest taken;
        taken.method = headOnly ? std::string("GET") : std::string(header.method_string());
        taken.target = OriginForm(View(header.target()));
        // An absolute-form target names the server itself, and the Host header is to be ignored then:
        // the filter checks the name the request really addresses.
        const std::string_view authority = Authority(View(header.target()));
        for (const auto& field : header) {
            const bool host = field.name() == http::field::host;
            taken.headers.emplace_back(std::string(field.name_string()), host && !authority.empty()
                                                                             ? std::string(authority)
                                                                             : std::string(field.value()));
        }
        taken.remote = remote;
        return taken;
    }

    // Right here when the request cannot wait (see `runsInline`), to a waiting thread when it may wait
    // for a person or routine code, else to the worker pool.
    void Dispatch(HttpRequest requestIn) {
        if (server.CallRunsInline(requestIn)) {
            requestIn.onIoThread = true;
            if (RunInline(requestIn)) {
                return;
            }
            requestIn.onIoThread = false;  // the handler would have waited: a worker runs it again
        }
        auto self = Self();
        auto request = std::make_shared<HttpRequest>(std::move(requestIn));  // std::function copies jobs
        auto run = [self, request] {
            HttpResponse response = self->server.CallHandler(*request);
            ApplyConditionalRead(*request, response);  // on the worker: hashing a body may take a while
            net::post(self->executor, [self, response = std::move(response)]() mutable {
                self->outcomeHandled = true;
                self->Write(std::move(response));
            });
        };
        if (server.CallMayWait(*request)) {
            if (!server.waiting.Start(run)) {
                Busy(server.options.maxWaitingRequests, "requests already wait");
            }
            return;
        }
        auto cancel = [self] { net::post(self->executor, [self] { self->Write(ShuttingDownReply()); }); };
        if (!server.workers->Submit(Job{run, cancel})) {
            Busy(server.options.maxQueuedRequests, "requests already wait for a worker");
        }
    }

    // On the connection's strand. Stop() waits for it like for a worker's handler; a request that
    // arrives once Stop() has begun is answered 503, as a queued one is.
    // False when the handler asked for a worker instead (`retryOnWorker`): nothing was written then.
    bool RunInline(const HttpRequest& request) {
        HttpResponse response;
        {
            const InlineScope scope(server);
            if (!scope.Admitted()) {
                Write(ShuttingDownReply());
                return true;
            }
            response = server.CallHandler(request);
            if (response.retryOnWorker) {
                return false;
            }
            ApplyConditionalRead(request, response);
        }
        outcomeHandled = true;
        Write(std::move(response));
        return true;
    }

    void Busy(std::size_t limit, const char* what) {
        if (server.stopping) {
            Write(ShuttingDownReply());
            return;
        }
        // A client can cause this line as fast as it can send: held to the budget of such lines.
        if (const auto held = server.clientLines.Take()) {
            NY_LOG(Ny::Logging::Level::Notice, "Request of %1$s refused: %2$zu %3$s.%4$s", remote.c_str(),
                   limit, what, HeldBack(*held).c_str());
        }
        HttpResponse busyReply = JsonErrorReply(503, "The server is busy; try again.");
        busyReply.headers.emplace_back("Retry-After", "1");
        Write(std::move(busyReply));
    }

    void OpenEventStream(const std::optional<std::string>& lastEventId) {
        auto events = server.AddEventClient(stream, remote, ticket, lastEventId);
        if (!events) {
            if (const auto held = server.clientLines.Take()) {
                NY_LOG(Ny::Logging::Level::Notice, "Event client %1$s refused: %2$zu streams are open.%3$s",
                       remote.c_str(), server.options.maxEventClients, HeldBack(*held).c_str());
            }
            Refuse(503, "Too many event-stream clients.");
            return;
        }
        closing = true;  // the socket belongs to the stream now
        ReportOutcome(200);
        NY_LOG(Ny::Logging::Level::Progress, "Event client %s connected.", remote.c_str());
        // Still on the strand: frames published from now on are queued behind the stream's opening.
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
        auto message = ToMessage(std::move(response));
        message->keep_alive(keepAlive && !server.stopping);
        Lowest().expires_after(server.options.readTimeout);
        http::async_write(stream, *message, [self = Self(), message](beast::error_code ec, std::size_t) {
            self->ReportOutcome(message->result_int());
            if (ec || !message->keep_alive()) {
                self->CloseSocket();
                return;
            }
            self->Read();
        });
    }

    std::shared_ptr<http::response<http::string_body>> ToMessage(HttpResponse response) const {
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
        message->set("X-Content-Type-Options", "nosniff");
        const bool noBody = response.status == 204 || response.status == 304;
        if (!noBody) {
            if (!hasType && !response.body.empty()) {
                message->set(http::field::content_type, "application/json");
            }
            message->body() = std::move(response.body);
        }
        message->prepare_payload();
        if (noBody) {
            // The library writes "Content-Length: 0"; a 204 must not carry the field, and a 304 only with
            // the length of the 200 it stands for, which a cache would otherwise take as the document's.
            message->content_length(boost::none);
        } else if (headOnly) {
            // The length GET would have sent, and no body.
            const std::size_t length = message->body().size();
            message->body().clear();
            message->content_length(length);
        }
        return message;
    }

    // An error of the transport itself: reply, then close lingering (see kLingerDrain).
    void Refuse(int status, const std::string& text) {
        if (const auto held = server.clientLines.Take(); held && status != 503) {
            NY_LOG(Ny::Logging::Level::Notice, "Client %1$s refused with %2$d: %3$s%4$s", remote.c_str(),
                   status, text.c_str(), HeldBack(*held).c_str());
        }
        headOnly = false;
        RefuseWith(JsonErrorReply(status, text));
    }

    // A reply after which the connection cannot be read on (a request not read to its end): close
    // lingering.
    void RefuseWith(HttpResponse response) {
        busy = true;  // until the reply is out, so that Stop() lets it finish
        keepAlive = false;
        auto message = ToMessage(std::move(response));
        message->keep_alive(false);
        Lowest().expires_after(kErrorWriteTimeout);
        http::async_write(stream, *message, [self = Self(), message](beast::error_code ec, std::size_t) {
            self->ReportOutcome(message->result_int());
            self->busy = false;
            if (ec || self->server.stopping) {
                self->CloseSocket();
                return;
            }
            beast::error_code ignored;
            self->Lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
            self->drainUntil = Clock::now() + kLingerDrain;
            self->drainLeft = self->server.options.bodyLimit + self->server.options.headerLimit;
            self->Drain();
        });
    }

    // Bounded in time and bytes as a whole, not per read: a client that never stops sending must not
    // keep the connection (and an I/O thread) busy discarding for ever.
    void Drain() {
        Lowest().expires_at(drainUntil);
        stream.async_read_some(net::buffer(discard),
                               [self = Self()](beast::error_code ec, std::size_t count) {
                                   if (ec || count >= self->drainLeft || Clock::now() >= self->drainUntil) {
                                       self->Lowest().close();
                                       return;
                                   }
                                   self->drainLeft -= count;
                                   self->Drain();
                               });
    }

    // A request's outcome is timed from its header (or, refused before its header was whole, from the
    // refusal) and reported once, by the write of its reply or the opening of its event stream.
    void BeginOutcome() {
        outcomePending = true;
        outcomeStart = Clock::now();
        outcomeHandled = false;
        outcomeMethod = parser ? std::string(View(parser->get().method_string())) : std::string();
        outcomeTarget =
            parser && parser->is_header_done() ? std::string(View(parser->get().target())) : std::string();
    }

    void ReportOutcome(int status) {
        if (!outcomePending) {
            return;
        }
        outcomePending = false;
        server.ReportOutcome(RequestOutcome{outcomeMethod, outcomeTarget, status, Clock::now() - outcomeStart,
                                            outcomeHandled});
    }

    bool IsHealthRequest(const HttpRequest& request) const {
        return !server.options.healthPath.empty() && request.method == "GET" &&
               std::string_view(request.target).substr(0, request.target.find('?')) ==
                   server.options.healthPath;
    }

    // Answered here, not by the handler: a probe goes to this connection's strand (the I/O threads) and
    // one to the worker pool; the reply waits for both, at most `healthBound`. Never blocks the strand.
    void CheckHealth() {
        busy = true;
        pendingRequest.reset();
        // A body has no meaning here and is not read: the connection closes after the reply.
        healthCloses = !parser->is_done();
        if (server.stopping) {
            AnswerHealth(false);
            return;
        }
        const std::uint64_t check = ++healthCheck;
        healthAnswered = false;
        healthIo = false;
        healthPool = false;
        std::weak_ptr<Session> weak = Self();
        net::post(executor, [weak, check] {
            if (auto self = weak.lock()) {
                self->OnHealthProbe(check, true, true);
            }
        });
        const net::any_io_executor strand = executor;
        server.poolProbe.Ask(*server.workers, server.options.healthBound, [weak, strand, check](bool ran) {
            net::post(strand, [weak, check, ran] {
                if (auto self = weak.lock()) {
                    self->OnHealthProbe(check, false, ran);
                }
            });
        });
        healthTimer.expires_after(server.options.healthBound);
        // The timer holds the connection until the check is answered, at the latest when it fires; the
        // probes hold it not, so that a pool that never answers keeps no connection open.
        healthTimer.async_wait([self = Self(), check](beast::error_code ec) {
            if (!ec && self->healthCheck == check && !self->healthAnswered) {
                self->AnswerHealth(false);
            }
        });
    }

    void OnHealthProbe(std::uint64_t check, bool io, bool ran) {
        if (check != healthCheck || healthAnswered) {
            return;  // a late probe of a check already answered
        }
        if (!ran) {
            AnswerHealth(false);
            return;
        }
        (io ? healthIo : healthPool) = true;
        if (healthIo && healthPool) {
            AnswerHealth(true);
        }
    }

    void AnswerHealth(bool healthy) {
        healthAnswered = true;
        healthTimer.cancel();
        HttpResponse reply;
        reply.status = healthy ? 200 : 503;
        reply.headers.emplace_back("Content-Type", "application/json");
        reply.headers.emplace_back("Cache-Control", "no-store");
        reply.body = healthy ? R"({"status":"ok"})" : R"({"status":"unavailable"})";
        if (healthCloses) {
            RefuseWith(std::move(reply));
        } else {
            Write(std::move(reply));
        }
    }

    // Stop() has begun while the connection waits for a request: closes it once idle, at the latest
    // kStopReadLimit from now. One watch at a time; it ends when the connection turns busy, and the read
    // after a reply begun as keep-alive before the stop starts the next one.
    void WatchStop() {
        if (stopWatched) {
            return;
        }
        stopWatched = true;
        stopDeadline = Clock::now() + kStopReadLimit;
        CloseWhenIdle();
    }

    // Checked when the grace ends rather than when Stop() begins: on a loaded machine a request may be
    // in the socket, or half parsed, while its read completion still waits for an I/O thread.
    void CloseWhenIdle() {
        stopTimer.expires_after(kStopRead);
        stopTimer.async_wait([self = Self()](beast::error_code ec) {
            if (ec || self->busy || self->closing) {
                self->stopWatched = false;
                return;
            }
            beast::error_code availableError;
            const bool arriving = self->Lowest().socket().available(availableError) > 0 ||
                                  self->buffer.size() > 0 || (self->parser && self->parser->got_some());
            if (!availableError && arriving && Clock::now() < self->stopDeadline) {
                self->CloseWhenIdle();
                return;
            }
            self->CloseNow();
        });
    }

    void CloseNow() {
        if (closing) {
            return;
        }
        closing = true;
        beast::error_code ignored;
        Lowest().socket().shutdown(tcp::socket::shutdown_both, ignored);
        Lowest().close();
    }

    void CloseSocket() {
        closing = true;
        busy = false;
        beast::error_code ignored;
        Lowest().socket().shutdown(tcp::socket::shutdown_send, ignored);
        Lowest().close();
    }

    std::shared_ptr<void> ticket;         // counts the connection for the cap; handed to an event stream
    Stream stream;                        // moved to an event stream by OpenEventStream
    const net::any_io_executor executor;  // the connection's strand; read by workers to hand back replies
    HttpServer::Impl& server;             // outlives every session (see Impl's member order)
    beast::flat_buffer buffer;  // capped (see the class comment): a longer line is refused, not buffered
    std::optional<http::request_parser<http::string_body>> parser;
    std::optional<HttpRequest> pendingRequest;  // the header of the request being read, once filtered
    std::string remote;
    bool keepAlive = true;
    bool headOnly = false;  // the request being answered is a HEAD
    bool busy = false;      // a request is whole and its reply not yet written
    bool closing = false;   // set by Close() or the hand-over to an event stream: no further I/O
    net::steady_timer stopTimer{executor};    // Close()'s grace for a request still on its way
    Clock::time_point stopDeadline;           // and its end, however much is still arriving
    bool stopWatched = false;                 // the grace's timer is running (see WatchStop)
    Clock::time_point drainUntil;             // the lingering close after a refusal: its deadline
    std::size_t drainLeft = 0;                // and the bytes it may still discard
    bool outcomePending = false;              // the request being answered is not yet reported
    Clock::time_point outcomeStart;           // its header was read then
    std::string outcomeMethod;                // as the client sent it
    std::string outcomeTarget;                // likewise; empty when the header was not whole
    bool outcomeHandled = false;              // its reply came from the handler
    net::steady_timer healthTimer{executor};  // the bound of a health check
    std::uint64_t healthCheck = 0;            // numbers the checks, so that a late probe is told apart
    bool healthAnswered = true;               // the current check has its reply
    bool healthIo = false;                    // its probes ran: on this strand,
    bool healthPool = false;                  // and on a worker
    bool healthCloses = false;                // a body was announced: close after the reply
    char discard[4096];
};

void HttpServer::Impl::Accept(Listener& listener) {
    listener.acceptor.async_accept(net::make_strand(io),
                                   [this, listener = &listener](beast::error_code ec, tcp::socket socket) {
                                       OnAccepted(*listener, ec, std::move(socket));
                                   });
}

void HttpServer::Impl::OnAccepted(Listener& listener, beast::error_code ec, tcp::socket socket) {
    if (stopping) {
        return;
    }
    if (ec) {
        PauseAccepting(listener, ec);
        return;
    }
    if (acceptPaused) {
        acceptPaused = false;
        acceptPause = kAcceptRetry;
        NY_LOG(Ny::Logging::Level::Notice, "Accepting connections again.");
    }
    // Counted before the check, so that the cap holds however fast connections arrive.
    auto ticket = std::make_shared<ConnectionTicket>(openConnections);
    if (openConnections > options.maxConnections) {
        if (!connectionCapLogged) {
            NY_LOG(Ny::Logging::Level::Notice, "Connections beyond %zu are closed at once.",
                   options.maxConnections);
            connectionCapLogged = true;
        }
        beast::error_code ignored;
        socket.close(ignored);
    } else {
        connectionCapLogged = false;
        std::shared_ptr<Connection> session;
        if (tls) {
            session = std::make_shared<Session<TlsStream>>(TlsStream(std::move(socket), *tls), *this,
                                                           std::move(ticket));
        } else {
            session = std::make_shared<Session<PlainStream>>(PlainStream(std::move(socket)), *this,
                                                             std::move(ticket));
        }
        if (Track(session)) {
            session->Start();
        }
    }
    Accept(listener);
}

// Out of descriptors (or memory), accept fails at once for as long as a connection is pending: wait,
// doubling the pause, and log the episode once rather than every try. Open connections go on being served.
void HttpServer::Impl::PauseAccepting(Listener& listener, beast::error_code ec) {
    if (!acceptPaused) {
        acceptPaused = true;
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Accepting connections failed (%s); retrying with a pause.",
               ec.message().c_str());
    } else {
        acceptPause =
            std::min(acceptPause * 2, std::chrono::duration_cast<std::chrono::milliseconds>(kAcceptRetryMax));
    }
    listener.retry.expires_after(acceptPause);
    listener.retry.async_wait([this, listener = &listener](beast::error_code waitError) {
        if (!waitError && !stopping) {
            Accept(*listener);
        }
    });
}

void HttpServer::Impl::Listen() {
    if (options.listenFds.empty()) {
        // An address that is no IP address is a setting to correct (InvalidValue); failing to bind one,
        // e.g. a port still in use, may pass (0).
        beast::error_code addressError;
        const auto ip = net::ip::make_address(options.address, addressError);
        if (addressError) {
            throw NY_EXCEPTION(Ny::Status::InvalidValue,
                               "Cannot listen on %1$s: it is not an IP address (%2$s).",
                               options.address.c_str(), addressError.message().c_str());
        }
        auto& listener = listeners.emplace_back(acceptStrand);
        try {
            const tcp::endpoint endpoint(ip, options.port);
            listener.acceptor.open(endpoint.protocol());
            listener.acceptor.set_option(net::socket_base::reuse_address(true));
            listener.acceptor.bind(endpoint);
            listener.acceptor.listen(net::socket_base::max_listen_connections);
        } catch (const std::exception& e) {
            listeners.clear();
            std::throw_with_nested(NY_EXCEPTION(0, "Listening on %1$s:%2$u failed: %3$s",
                                                options.address.c_str(), static_cast<unsigned>(options.port),
                                                e.what()));
        }
    } else {
        // From here on every descriptor is closed by us, adopted or not, whatever fails.
        fdsAdopted = true;
        for (std::size_t i = 0; i < options.listenFds.size(); ++i) {
            try {
                Adopt(options.listenFds[i]);
            } catch (...) {
                for (std::size_t rest = i + 1; rest < options.listenFds.size(); ++rest) {
                    ::close(options.listenFds[rest]);
                }
                listeners.clear();
                throw;
            }
        }
    }
    for (const auto& listener : listeners) {
        const auto bound = listener.acceptor.local_endpoint();
        boundEndpoints.push_back({bound.address().to_string(), bound.port()});
    }
    boundPort = boundEndpoints.front().port;
    boundAddress = boundEndpoints.front().address;
}

// A descriptor passed by whoever started us is checked rather than trusted: accepting on a datagram or
// a not-yet-listening socket would fail on the I/O thread with nobody to tell. Closes `fd` when it throws.
void HttpServer::Impl::Adopt(int fd) {
    int type = 0;
    int listening = 0;
    socklen_t length = sizeof type;
    sockaddr_storage address{};
    socklen_t addressLength = sizeof address;
    const bool stream = ::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &length) == 0 && type == SOCK_STREAM;
    length = sizeof listening;
    const bool accepting =
        ::getsockopt(fd, SOL_SOCKET, SO_ACCEPTCONN, &listening, &length) == 0 && listening != 0;
    const bool named = ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressLength) == 0;
    if (!stream || !accepting || !named || (address.ss_family != AF_INET && address.ss_family != AF_INET6)) {
        ::close(fd);
        // The socket unit's setting, not a passing state.
        throw NY_EXCEPTION(Ny::Status::InvalidValue,
                           "Descriptor %d handed over to listen on is not a listening TCP socket.", fd);
    }
    auto& listener = listeners.emplace_back(acceptStrand);
    beast::error_code ec;
    listener.acceptor.assign(address.ss_family == AF_INET ? tcp::v4() : tcp::v6(), fd, ec);
    if (ec) {
        ::close(fd);
        throw NY_EXCEPTION(0, "Descriptor %1$d handed over to listen on cannot be used: %2$s", fd,
                           ec.message().c_str());
    }
}

void HttpServer::Impl::Watch() {
    if (stopping) {
        return;
    }
    if (watchdogProbeRan.exchange(false) && options.watchdogPing) {
        try {
            options.watchdogPing();
        } catch (const std::exception& e) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "The watchdog's ping failed: %s", e.what());
        } catch (...) {
            NY_LOG(Ny::Logging::Level::CaughtFailure, "The watchdog's ping failed with an unknown error.");
        }
    }
    poolProbe.Ask(*workers, options.watchdogInterval, [this](bool ran) {
        if (ran) {
            watchdogProbeRan = true;
        }
    });
    // Ticks at a fixed rate, so that late ticks on a busy machine do not add up to a period the service
    // manager takes for a hang; after a stall the next tick is a whole interval on, not a burst.
    const auto now = Clock::now();
    const auto next = watchdogTimer.expiry() + options.watchdogInterval;
    watchdogTimer.expires_at(next > now ? next : now + options.watchdogInterval);
    watchdogTimer.async_wait([this](beast::error_code ec) {
        if (!ec) {
            Watch();
        }
    });
}

void HttpServer::Impl::ReportOutcome(const RequestOutcome& outcome) const {
    if (!options.onRequestDone) {
        return;
    }
    try {
        options.onRequestDone(outcome);
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Reporting a request failed: %s", e.what());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Reporting a request failed with an unknown error.");
    }
}

bool HttpServer::Impl::Track(const std::shared_ptr<Connection>& session) {
    Ny::MutexLock guard(sessionsMutex);
    // Checked under the lock that Stop() takes to close the sessions: a session is either seen by Stop()
    // or never started.
    if (stopping) {
        return false;
    }
    std::erase_if(sessions, [](const auto& weak) { return weak.expired(); });
    sessions.push_back(session);
    return true;
}

template <typename Stream>
std::shared_ptr<EventClient> HttpServer::Impl::AddEventClient(Stream& stream, const std::string& remote,
                                                              std::shared_ptr<void> ticket,
                                                              const std::optional<std::string>& lastEventId) {
    std::shared_ptr<EventClient> added;
    std::size_t replayed = 0;
    bool reset = false;
    {
        Ny::MutexLock guard(sessionsMutex);
        added = AddEventClientLocked(stream, remote, std::move(ticket), lastEventId, replayed, reset);
    }
    // Logged outside the lock, which stays innermost.
    if (added && lastEventId) {
        if (reset) {
            NY_LOG(Ny::Logging::Level::Progress, "Event client %s resumes with a reset.", remote.c_str());
        } else {
            NY_LOG(Ny::Logging::Level::Progress, "Event client %1$s resumes: %2$zu events replayed.",
                   remote.c_str(), replayed);
        }
    }
    return added;
}

template <typename Stream>
std::shared_ptr<EventClient> HttpServer::Impl::AddEventClientLocked(
    Stream& stream, const std::string& remote, std::shared_ptr<void> ticket,
    const std::optional<std::string>& lastEventId, std::size_t& replayed, bool& reset) {
    std::erase_if(eventSessions, [](const auto& weak) { return weak.expired(); });
    if (stopping || eventSessions.size() >= options.maxEventClients) {
        return nullptr;
    }
    // The replay shares the journal's frames: many clients resuming at once cost a pointer per frame.
    std::vector<EventJournal::Frame> opening{streamOpening};
    if (lastEventId) {
        auto resumption = journal.After(*lastEventId);
        reset = resumption.reset;
        opening.insert(opening.end(), std::make_move_iterator(resumption.frames.begin()),
                       std::make_move_iterator(resumption.frames.end()));
    }
    const auto costOf = [](const std::vector<EventJournal::Frame>& frames) {
        std::size_t cost = 0;
        for (const auto& frame : frames) {
            cost += EventClient::FrameCost(*frame);
        }
        return cost;
    };
    std::size_t cost = costOf(opening);
    if (lastEventId && cost > options.eventClientQueueBytes / 2) {
        // Queued whole, a replay this long would leave no room for the live frames behind it and the
        // client would be dropped at once: it re-reads instead.
        opening = {streamOpening, journal.ResetFrame("More events were missed than the stream can replay.")};
        reset = true;
        cost = costOf(opening);
    }
    replayed = reset ? 0 : opening.size() - 1;
    auto events = std::make_shared<EventSession<Stream>>(std::move(stream), *this, remote, std::move(ticket),
                                                         std::move(opening));
    events->Hold(cost);
    eventSessions.push_back(events);
    return events;
}

namespace {

// Asks one of the owner's classifying predicates about a request; one that is missing, throws or cannot
// decide gives `safer`, logged.
bool Classify(const std::function<bool(const HttpRequest&)>& predicate, const HttpRequest& request,
              bool safer) {
    if (!predicate) {
        return false;
    }
    try {
        return predicate(request);
    } catch (const std::exception& e) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Classifying %1$s %2$s failed: %3$s",
               request.method.c_str(), request.target.c_str(), e.what());
    } catch (...) {
        NY_LOG(Ny::Logging::Level::CaughtFailure, "Classifying %1$s %2$s failed with an unknown error.",
               request.method.c_str(), request.target.c_str());
    }
    return safer;
}

}  // namespace

bool HttpServer::Impl::CallRunsInline(const HttpRequest& request) const {
    // The safer answer: a worker never holds up the connections of an I/O thread.
    return Classify(options.runsInline, request, false);
}

bool HttpServer::Impl::CallMayWait(const HttpRequest& request) const {
    // The safer answer: a thread of its own never starves others.
    return Classify(options.mayWait, request, true);
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
        Ny::MutexLock guard(ioMutex);
        --ioRunning;
    }
    ioFinished.NotifyAll();
}

HttpServer::HttpServer(HttpServerOptions options, Handler handler, Filter filter)
    : impl(std::make_unique<Impl>(std::move(options), std::move(handler), std::move(filter))) {}

HttpServer::~HttpServer() {
    Stop();
}

void HttpServer::Start() {
    Ny::MutexLock startGuard(impl->stopMutex);
    if (impl->started || impl->stopping) {
        throw NY_EXCEPTION(Ny::Status::Refused, "The HTTP server can be started only once.");
    }
    const HttpServerOptions& options = impl->options;
    if (!options.tlsCertFile.empty() || !options.tlsKeyFile.empty()) {
        impl->tls.emplace(MakeTlsContext(options));
    }
    RaiseDescriptorLimit();
    impl->Listen();
    impl->started = true;
    impl->keepRunning.emplace(impl->io.get_executor());
    impl->workers = std::make_unique<WorkerPool>(std::max(1u, options.workerThreads),
                                                 options.maxQueuedRequests, options.workerIdleTimeout);
    for (auto& listener : impl->listeners) {
        impl->Accept(listener);
    }
    if (options.watchdogInterval > std::chrono::milliseconds::zero()) {
        net::dispatch(impl->watchdogTimer.get_executor(), [state = impl.get()] { state->Watch(); });
    }
    const unsigned ioThreads = std::clamp(options.ioThreads, 1u, 2u);
    {
        Ny::MutexLock guard(impl->ioMutex);
        impl->ioRunning = ioThreads;
    }
    for (unsigned i = 0; i < ioThreads; ++i) {
        impl->ioThreads.emplace_back([state = impl.get()] { state->RunIo(); });
    }
    NY_LOG(Ny::Logging::Level::Notice, "Serving %1$s on %2$s:%3$u.", impl->tls ? "HTTPS" : "HTTP",
           impl->boundAddress.c_str(), static_cast<unsigned>(impl->boundPort));
}

std::uint16_t HttpServer::Port() const {
    return impl->boundPort;
}

std::string HttpServer::Address() const {
    return impl->boundAddress;
}

const std::vector<BoundEndpoint>& HttpServer::Endpoints() const {
    return impl->boundEndpoints;
}

void HttpServer::PublishEvent(const std::string& event, const std::string& data) {
    if (impl->stopping) {
        return;
    }
    Ny::MutexLock guard(impl->sessionsMutex);
    // Checked again under the lock that Stop() takes to tell the streams to finish: a frame is handed to
    // a stream before it is told, and delivered, or not published at all.
    if (impl->stopping) {
        return;
    }
    // Numbered and handed out in one hold of the lock that a connecting client's replay takes too.
    const auto frame = impl->journal.Append(event, data);
    const std::size_t cost = EventClient::FrameCost(*frame);
    for (const auto& weak : impl->eventSessions) {
        auto session = weak.lock();
        if (!session) {
            continue;
        }
        if (session->Reserve(cost, impl->options.eventClientQueueBytes)) {
            net::post(session->Executor(), [session, frame] { session->Enqueue(frame); });
        } else if (session->MarkBehind()) {
            net::post(session->Executor(), [session] { session->DropBehind(); });
        }
    }
}

std::uint64_t HttpServer::EventClientsDropped() const {
    return impl->eventClientsDropped.load(std::memory_order_relaxed);
}

std::size_t HttpServer::EventClientCount() const {
    Ny::MutexLock guard(impl->sessionsMutex);
    return static_cast<std::size_t>(std::count_if(impl->eventSessions.begin(), impl->eventSessions.end(),
                                                  [](const auto& weak) { return !weak.expired(); }));
}

// Drains in this order: no new connections; idle connections closed; requests queued but not started
// answered 503; handlers in progress (workers, waiting threads and I/O threads) awaited, their replies
// written with Connection: close; then the I/O threads leave once the last writes are done (or the grace runs
// out).
void HttpServer::Stop() {
    Ny::MutexLock stopGuard(impl->stopMutex);
    if (impl->stopping.exchange(true)) {
        return;
    }
    net::post(impl->acceptStrand, [state = impl.get()] {
        for (auto& listener : state->listeners) {
            beast::error_code ignored;
            listener.acceptor.close(ignored);
            listener.retry.cancel();
        }
    });
    // The watchdog re-arms itself: cancelled, or it would keep the I/O threads running past the stop.
    net::post(impl->watchdogTimer.get_executor(), [state = impl.get()] { state->watchdogTimer.cancel(); });
    {
        Ny::MutexLock guard(impl->sessionsMutex);
        for (const auto& weak : impl->sessions) {
            if (auto session = weak.lock()) {
                session->Close();
            }
        }
        for (const auto& weak : impl->eventSessions) {
            if (auto session = weak.lock()) {
                net::post(session->Executor(), [session] { session->Finish(); });
            }
        }
    }
    if (impl->workers) {
        impl->workers->Stop();  // cancels queued requests (503), waits for handlers in progress
    }
    impl->waiting.Stop();
    // Every reply is now handed to its connection's strand and nothing starts new work, so the I/O
    // threads leave io.run() by themselves once the last writes and closes have run.
    impl->keepRunning.reset();
    {
        Ny::MutexLock guard(impl->ioMutex);
        // Handlers on the I/O threads are awaited like the workers' (none starts any more); their
        // replies are then written within the grace like every other.
        while (impl->inlineRunning != 0) {
            impl->ioFinished.Wait(impl->ioMutex);
        }
        const auto deadline = Clock::now() + kStopGrace;
        while (impl->ioRunning != 0) {
            if (!impl->ioFinished.WaitUntil(impl->ioMutex, deadline) && Clock::now() >= deadline) {
                NY_LOG(Ny::Logging::Level::Notice, "HTTP connections still busy after %lld ms are cut off.",
                       static_cast<long long>(
                           std::chrono::duration_cast<std::chrono::milliseconds>(kStopGrace).count()));
                break;
            }
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
