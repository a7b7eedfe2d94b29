// The HTTP transport over real loopback sockets: a small blocking client (POSIX sockets with receive
// time-outs, so every wait is bounded) against a server on a free port.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <openssl/err.h>
#include <openssl/evp.h>
#include <openssl/pem.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <sys/resource.h>
#include <sys/time.h>

#include <cerrno>
#include <fstream>
#include <future>
#include <map>
#include <thread>

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include "HttpServer.h"
#include "LogCapture.h"
#include "NyApi/Exception.h"
#include "NyApi/Status.h"
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

// One blocking connection. Every read gives up after `timeout`, so a missing reply fails the test
// instead of hanging it.
class Client {
  public:
    explicit Client(std::uint16_t port, int receiveBuffer = 0, std::chrono::seconds timeout = 10s) {
        fd = ::socket(AF_INET, SOCK_STREAM, 0);
        const timeval limit{static_cast<time_t>(timeout.count()), 0};
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
    ~Client() {
        if (ssl != nullptr) {
            SSL_free(ssl);
        }
        if (tlsContext != nullptr) {
            SSL_CTX_free(tlsContext);
        }
        ::close(fd);
    }

    // Speaks TLS from here on, trusting only `certFile`. `version` pins the protocol (0: any the
    // library allows); an old one is allowed on this side so that the server's refusal is what counts.
    bool StartTls(const std::string& certFile, int version = 0) {
        tlsContext = SSL_CTX_new(TLS_client_method());
        SSL_CTX_set_options(tlsContext, SSL_OP_IGNORE_UNEXPECTED_EOF);
        SSL_CTX_load_verify_locations(tlsContext, certFile.c_str(), nullptr);
        SSL_CTX_set_verify(tlsContext, SSL_VERIFY_PEER, nullptr);
        if (version != 0) {
            SSL_CTX_set_security_level(tlsContext, 0);
            SSL_CTX_set_cipher_list(tlsContext, "DEFAULT@SECLEVEL=0");
            SSL_CTX_set_min_proto_version(tlsContext, version);
            SSL_CTX_set_max_proto_version(tlsContext, version);
        }
        ssl = SSL_new(tlsContext);
        SSL_set_fd(ssl, fd);
        const bool connectedTls = SSL_connect(ssl) == 1;
        ERR_clear_error();
        return connectedTls;
    }
    Client(const Client&) = delete;
    Client& operator=(const Client&) = delete;

    bool Connected() const { return connected; }
    std::uint16_t LocalPort() const {
        sockaddr_in address{};
        socklen_t length = sizeof address;
        ::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length);
        return ntohs(address.sin_port);
    }
    int Fd() const { return fd; }

    bool Send(std::string_view bytes) {
        while (!bytes.empty()) {
            const ssize_t sent = ssl != nullptr ? SSL_write(ssl, bytes.data(), static_cast<int>(bytes.size()))
                                                : ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL);
            if (sent <= 0) {
                return false;
            }
            bytes.remove_prefix(static_cast<std::size_t>(sent));
        }
        return true;
    }

    // Reads until `received` holds `marker`; false on end of stream or time-out.
    bool ReadUntil(std::string_view marker) {
        while (received.find(marker) == std::string::npos) {
            if (Fill() <= 0) {
                return false;
            }
        }
        return true;
    }

    std::string Take(std::size_t count) {
        std::string taken = received.substr(0, count);
        received.erase(0, count);
        return taken;
    }

    // Takes everything up to and including `marker`, or nothing when it does not arrive.
    std::string TakeThrough(std::string_view marker) {
        if (!ReadUntil(marker)) {
            return {};
        }
        return Take(received.find(marker) + marker.size());
    }

    std::optional<Reply> ReadReply() {
        const std::string head = TakeThrough("\r\n\r\n");
        if (head.size() < 12) {
            return std::nullopt;
        }
        Reply reply;
        reply.status = std::stoi(head.substr(9, 3));
        std::size_t line = head.find("\r\n") + 2;
        while (line < head.size() - 2) {
            const std::size_t end = head.find("\r\n", line);
            const std::size_t colon = head.find(':', line);
            std::string name = head.substr(line, colon - line);
            std::transform(name.begin(), name.end(), name.begin(),
                           [](unsigned char c) { return std::tolower(c); });
            reply.headers[name] = head.substr(colon + 2, end - colon - 2);
            line = end + 2;
        }
        const std::size_t length =
            reply.headers.count("content-length") != 0 ? std::stoul(reply.headers["content-length"]) : 0;
        while (received.size() < length) {
            if (Fill() <= 0) {
                return std::nullopt;
            }
        }
        reply.body = Take(length);
        return reply;
    }

    // True once the server has closed the connection (end of stream or reset) within the time-out.
    bool ReadUntilClosed() {
        for (;;) {
            const ssize_t count = Fill();
            if (count == 0 || (count < 0 && errno == ECONNRESET)) {
                return true;
            }
            if (count < 0) {
                return false;
            }
        }
    }

    std::string received;

  private:
    ssize_t Fill() {
        char chunk[16384];
        ssize_t count = 0;
        if (ssl != nullptr) {
            const int read = SSL_read(ssl, chunk, sizeof chunk);
            const int error = read > 0 ? SSL_ERROR_NONE : SSL_get_error(ssl, read);
            ERR_clear_error();
            count = read > 0 ? read : error == SSL_ERROR_ZERO_RETURN ? 0 : -1;
        } else {
            count = ::recv(fd, chunk, sizeof chunk, 0);
        }
        if (count > 0) {
            received.append(chunk, static_cast<std::size_t>(count));
        }
        return count;
    }

    int fd = -1;
    bool connected = false;
    SSL_CTX* tlsContext = nullptr;
    SSL* ssl = nullptr;
};

// A self-signed certificate for 127.0.0.1 and its key, made with the TLS library, in temporary PEM files.
class TestCertificate {
  public:
    TestCertificate() {
        EVP_PKEY* key = EVP_EC_gen("P-256");
        X509* cert = X509_new();
        X509_set_version(cert, 2);
        ASN1_INTEGER_set(X509_get_serialNumber(cert), 1);
        X509_gmtime_adj(X509_getm_notBefore(cert), -60);
        X509_gmtime_adj(X509_getm_notAfter(cert), 3600);
        X509_set_pubkey(cert, key);
        X509_NAME* name = X509_get_subject_name(cert);
        X509_NAME_add_entry_by_txt(name, "CN", MBSTRING_ASC,
                                   reinterpret_cast<const unsigned char*>("127.0.0.1"), -1, -1, 0);
        X509_set_issuer_name(cert, name);
        X509_sign(cert, key, EVP_sha256());
        char pattern[] = "/tmp/nyr-tls-XXXXXX";
        dir = ::mkdtemp(pattern);
        certFile = dir + "/cert.pem";
        keyFile = dir + "/key.pem";
        FILE* out = std::fopen(certFile.c_str(), "w");
        PEM_write_X509(out, cert);
        std::fclose(out);
        out = std::fopen(keyFile.c_str(), "w");
        PEM_write_PrivateKey(out, key, nullptr, nullptr, 0, nullptr, nullptr);
        std::fclose(out);
        X509_free(cert);
        EVP_PKEY_free(key);
    }
    ~TestCertificate() {
        ::unlink(certFile.c_str());
        ::unlink(keyFile.c_str());
        ::rmdir(dir.c_str());
    }
    TestCertificate(const TestCertificate&) = delete;
    TestCertificate& operator=(const TestCertificate&) = delete;

    std::string dir;
    std::string certFile;
    std::string keyFile;
};

std::string Request(const std::string& method, const std::string& target, const std::string& body = "",
                    const std::string& extraHeaders = "") {
    return method + " " + target +
           " HTTP/1.1\r\nHost: test\r\nContent-Length: " + std::to_string(body.size()) + "\r\n" +
           extraHeaders + "\r\n" + body;
}

nlohmann::json ErrorBody(const std::string& message) {
    return {{"status", 0}, {"message", message}, {"causes", nlohmann::json::array()}};
}

HttpServerOptions Options() {
    HttpServerOptions options;
    options.port = 0;
    return options;
}

class HttpServerTest : public ::testing::Test {
  protected:
    void TearDown() override { server.reset(); }

    void StartServer(HttpServerOptions options = Options()) {
        server = std::make_unique<HttpServer>(
            std::move(options),
            [this](const HttpRequest& request) {
                ++handled;
                return handler ? handler(request) : Echo(request);
            },
            [this](const HttpRequest& request) -> std::optional<HttpResponse> {
                ++filtered;
                return filter ? filter(request) : std::nullopt;
            });
        server->Start();
        ASSERT_NE(server->Port(), 0);
    }

    static HttpResponse Echo(const HttpRequest& request) {
        const std::string* test = request.Header("x-TEST");
        HttpResponse response;
        response.body = nlohmann::json{{"method", request.method},
                                       {"target", request.target},
                                       {"body", request.body},
                                       {"xTest", test != nullptr ? *test : ""},
                                       {"remote", request.remote}}
                            .dump();
        return response;
    }

    // A handler for "/block" that holds its worker until `release` opens; other paths echo.
    void BlockOn(const std::string& path) {
        handler = [this, path](const HttpRequest& request) {
            if (request.target == path) {
                entered.Open();
                release.Wait(30s);
            }
            return Echo(request);
        };
    }

    NyTest::LogCapture log;  // declared first: outlives the server, which logs while it stops
    std::function<HttpResponse(const HttpRequest&)> handler;
    std::function<std::optional<HttpResponse>(const HttpRequest&)> filter;
    std::atomic<int> handled{0};
    std::atomic<int> filtered{0};  // requests received whole (the filter sees each first)
    NyTest::Gate entered;
    NyTest::Gate release;
    std::unique_ptr<HttpServer> server;
};

TEST_F(HttpServerTest, RequestsAndRepliesTravelWholeOverOneKeptAliveConnection) {
    handler = [](const HttpRequest& request) {
        if (request.target == "/text") {
            return HttpResponse{201, {{"Content-Type", "text/plain"}, {"X-Reply", "yes"}}, "plain"};
        }
        return Echo(request);
    };
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Connected());

    ASSERT_TRUE(client.Send(Request("POST", "/things?x=1", "{\"a\": 1}", "X-Test: value\r\n")));
    auto first = client.ReadReply();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, 200);
    EXPECT_EQ(first->headers["content-type"], "application/json");
    EXPECT_EQ(first->headers["x-content-type-options"], "nosniff");
    const auto echoed = nlohmann::json::parse(first->body);
    EXPECT_EQ(echoed["method"], "POST");
    EXPECT_EQ(echoed["target"], "/things?x=1");
    EXPECT_EQ(echoed["body"], "{\"a\": 1}");
    EXPECT_EQ(echoed["xTest"], "value");
    EXPECT_EQ(echoed["remote"].get<std::string>().rfind("127.0.0.1:", 0), 0u);

    ASSERT_TRUE(client.Send(Request("GET", "/text")));
    auto second = client.ReadReply();
    ASSERT_TRUE(second);
    EXPECT_EQ(second->status, 201);
    EXPECT_EQ(second->headers["content-type"], "text/plain");
    EXPECT_EQ(second->headers["x-reply"], "yes");
    EXPECT_EQ(second->body, "plain");
    EXPECT_EQ(handled, 2);
}

TEST_F(HttpServerTest, BodyIsSentOnlyAfterTheServerSaysContinue) {
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(
        client.Send("PUT /x HTTP/1.1\r\nHost: test\r\nContent-Length: 5\r\nExpect: 100-continue\r\n\r\n"));
    EXPECT_EQ(client.TakeThrough("\r\n\r\n"), "HTTP/1.1 100 Continue\r\n\r\n");
    ASSERT_TRUE(client.Send("hello"));
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(nlohmann::json::parse(reply->body)["body"], "hello");
}

TEST_F(HttpServerTest, HandlerFailuresAndInvalidRepliesBecomeJson500) {
    handler = [](const HttpRequest& request) -> HttpResponse {
        if (request.target == "/throw") {
            throw NY_EXCEPTION(-997, "Broken on purpose.");
        }
        if (request.target == "/status") {
            return HttpResponse{42, {}, ""};
        }
        if (request.target == "/bytes") {
            throw std::runtime_error("bad \xff byte");  // quoted client bytes must not break the reply
        }
        // A header with a line break must not reach the wire as two headers.
        return HttpResponse{204, {{"X-Evil", "a\r\nX-Injected: 1"}}, "dropped body"};
    };
    StartServer();
    Client client(server->Port());

    ASSERT_TRUE(client.Send(Request("GET", "/throw")));
    auto thrown = client.ReadReply();
    ASSERT_TRUE(thrown);
    EXPECT_EQ(thrown->status, 500);
    EXPECT_EQ(thrown->headers["content-type"], "application/json");
    EXPECT_EQ(nlohmann::json::parse(thrown->body), ErrorBody("Broken on purpose."));

    ASSERT_TRUE(client.Send(Request("GET", "/bytes")));
    auto bytes = client.ReadReply();
    ASSERT_TRUE(bytes);
    EXPECT_EQ(bytes->status, 500);
    EXPECT_EQ(nlohmann::json::parse(bytes->body), ErrorBody("bad \xEF\xBF\xBD byte"));

    ASSERT_TRUE(client.Send(Request("GET", "/status")));
    auto invalid = client.ReadReply();
    ASSERT_TRUE(invalid);
    EXPECT_EQ(invalid->status, 500);

    ASSERT_TRUE(client.Send(Request("GET", "/empty")));
    auto empty = client.ReadReply();
    ASSERT_TRUE(empty);
    EXPECT_EQ(empty->status, 204);
    EXPECT_EQ(empty->headers.count("x-injected"), 0u);
    EXPECT_EQ(empty->headers.count("x-evil"), 0u);
    EXPECT_EQ(empty->headers.count("content-length"), 0u);
    EXPECT_EQ(empty->body, "");
}

// A POST whose body is a whole DELETE request, framed by `framing`.
std::string Smuggling(const std::string& framing) {
    return "POST /x HTTP/1.1\r\nHost: test\r\n" + framing + "\r\n" +
           "DELETE /all HTTP/1.1\r\nHost: test\r\n\r\n";
}

struct Refusal {
    std::string name;
    std::string request;
    int status;
    std::string messageStart;
};

class TransportRefusal : public HttpServerTest, public ::testing::WithParamInterface<Refusal> {};

// The reply must arrive although the client is not done sending (a huge body is announced but never
// sent): the server answers from what it has read, without waiting for or buffering the rest.
TEST_P(TransportRefusal, AnswersJsonErrorClosesAndKeepsServingOthers) {
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Send(GetParam().request));
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, GetParam().status);
    EXPECT_EQ(reply->headers["content-type"], "application/json");
    EXPECT_EQ(reply->headers["x-content-type-options"], "nosniff");
    const auto body = nlohmann::json::parse(reply->body);
    EXPECT_EQ(body["status"], 0);
    EXPECT_EQ(body["causes"], nlohmann::json::array());
    EXPECT_EQ(body["message"].get<std::string>().rfind(GetParam().messageStart, 0), 0u) << body.dump();
    EXPECT_TRUE(client.ReadUntilClosed());
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(filtered, 0);

    Client other(server->Port());
    ASSERT_TRUE(other.Send(Request("GET", "/after")));
    auto after = other.ReadReply();
    ASSERT_TRUE(after);
    EXPECT_EQ(after->status, 200);
}

INSTANTIATE_TEST_SUITE_P(
    Http, TransportRefusal,
    ::testing::Values(
        Refusal{
            "BodyOverLimit",
            "POST /x HTTP/1.1\r\nHost: test\r\nContent-Length: 1000000000\r\nExpect: 100-continue\r\n\r\n" +
                std::string(1000, 'x'),
            413, "The request body is larger than 1048576 bytes."},
        Refusal{"HeadersOverLimit",
                Request("GET", "/x", "", "X-Big: " + std::string(32 * 1024, 'a') + "\r\n"), 431,
                "The request headers are larger than 16384 bytes."},
        Refusal{"GarbageRequestLine", "HELLO THERE\r\n\r\n", 400, "Malformed HTTP request"},
        Refusal{"BinaryBytes", std::string("\x16\x03\x01\x02\x00\x01\x00\x01\xfc\x03\x03", 11), 400,
                "Malformed HTTP request"},
        Refusal{"PathNotUtf8", Request("GET", "/routines/%FF"), 400, "The request path is not valid UTF-8."},
        Refusal{"RawPathNotUtf8", Request("GET", "/routines/\xc3("), 400,
                "The request path is not valid UTF-8."},
        Refusal{"HeaderNotUtf8", Request("GET", "/x", "", "Origin: http://evil\xff.example\r\n"), 400,
                "A header value is not valid UTF-8."},
        Refusal{"NoHost", "GET /x HTTP/1.1\r\n\r\n", 400, "A request needs exactly one Host header."},
        Refusal{"TwoHosts", "GET /x HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400,
                "A request needs exactly one Host header."},
        // Each hides a request in its body: read as a new request, it would reach the handler.
        Refusal{"CodingGzip", Smuggling("Transfer-Encoding: gzip\r\n"), 501,
                "Only the chunked transfer coding is supported."},
        Refusal{"CodingXchunked", Smuggling("Transfer-Encoding: xchunked\r\n"), 501,
                "Only the chunked transfer coding is supported."},
        Refusal{"CodingChunkedIdentity", Smuggling("Transfer-Encoding: chunked, identity\r\n"), 501,
                "Only the chunked transfer coding is supported."},
        Refusal{"CodingChunkedTwice",
                Smuggling("Transfer-Encoding: chunked\r\nTransfer-Encoding: chunked\r\n"), 400,
                ""},  // the parser itself refuses a repeated coding
        Refusal{"CodingWithLength", Smuggling("Transfer-Encoding: chunked\r\nContent-Length: 40\r\n"), 400,
                ""},
        Refusal{"CodingRefusedBeforeContinue",
                Smuggling("Transfer-Encoding: gzip\r\nExpect: 100-continue\r\n"), 501,
                "Only the chunked transfer coding is supported."}),
    [](const ::testing::TestParamInfo<Refusal>& info) { return info.param.name; });

TEST_F(HttpServerTest, HandlerBlockedOnAnotherRequestDoesNotStopOtherConnections) {
    BlockOn("/block");
    StartServer();
    Client blocked(server->Port());
    ASSERT_TRUE(blocked.Send(Request("POST", "/block")));
    ASSERT_TRUE(entered.Wait());

    Client other(server->Port());
    ASSERT_TRUE(other.Send(Request("GET", "/read")));
    auto read = other.ReadReply();
    ASSERT_TRUE(read);
    EXPECT_EQ(read->status, 200);

    release.Open();
    auto released = blocked.ReadReply();
    ASSERT_TRUE(released);
    EXPECT_EQ(released->status, 200);
}

TEST_F(HttpServerTest, RequestBeyondTheBoundedQueueIsAnswered503AtOnce) {
    BlockOn("/block");
    auto options = Options();
    options.workerThreads = 1;
    options.maxQueuedRequests = 1;
    StartServer(options);
    Client busy(server->Port());
    ASSERT_TRUE(busy.Send(Request("POST", "/block")));
    ASSERT_TRUE(entered.Wait());

    // One of the two waits in the queue, the other finds it full; which one is up to the server.
    Client first(server->Port());
    Client second(server->Port());
    ASSERT_TRUE(first.Send(Request("GET", "/one")));
    ASSERT_TRUE(second.Send(Request("GET", "/two")));
    pollfd fds[2] = {{first.Fd(), POLLIN, 0}, {second.Fd(), POLLIN, 0}};
    ASSERT_EQ(::poll(fds, 2, 10000), 1);
    Client& refused = (fds[0].revents & POLLIN) != 0 ? first : second;
    Client& queued = &refused == &first ? second : first;
    auto refusal = refused.ReadReply();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->status, 503);
    EXPECT_EQ(refusal->headers["retry-after"], "1");
    EXPECT_EQ(nlohmann::json::parse(refusal->body), ErrorBody("The server is busy; try again."));

    release.Open();
    for (Client* client : {&busy, &queued}) {
        auto reply = client->ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 200);
    }
}

TEST_F(HttpServerTest, FilterRefusesBeforeTheHandlerOrTheStreamSeesTheRequest) {
    filter = [](const HttpRequest& request) -> std::optional<HttpResponse> {
        const std::string* authorization = request.Header("Authorization");
        if (authorization == nullptr || *authorization != "Bearer good") {
            return NyHost::JsonErrorReply(401, "A valid bearer token is required.");
        }
        return std::nullopt;
    };
    StartServer();
    Client client(server->Port());
    for (const std::string target : {"/things", "/events"}) {
        ASSERT_TRUE(client.Send(Request("GET", target)));
        auto reply = client.ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 401);
        EXPECT_EQ(nlohmann::json::parse(reply->body), ErrorBody("A valid bearer token is required."));
    }
    EXPECT_EQ(handled, 0);
    EXPECT_EQ(server->EventClientCount(), 0u);

    ASSERT_TRUE(client.Send(Request("GET", "/things", "", "Authorization: Bearer good\r\n")));
    auto allowed = client.ReadReply();
    ASSERT_TRUE(allowed);
    EXPECT_EQ(allowed->status, 200);
    EXPECT_EQ(handled, 1);
}

// A client the filter refuses must not make the server read, and hold, the body it announces: the refusal
// comes on the header alone, never a "100 Continue", and the connection closes since the body was not
// read. A request the filter lets on still reaches the handler whole.
TEST_F(HttpServerTest, FilterDecidesOnTheHeaderBeforeAnyBodyIsRead) {
    std::atomic<std::size_t> bodySeen{0};
    filter = [&bodySeen](const HttpRequest& request) -> std::optional<HttpResponse> {
        bodySeen += request.body.size();
        if (request.Header("Authorization") == nullptr) {
            return NyHost::JsonErrorReply(401, "A valid bearer token is required.");
        }
        return std::nullopt;
    };
    StartServer();
    const std::string announced = "POST /things HTTP/1.1\r\nHost: test\r\nContent-Length: 1000000\r\n";
    for (const std::string expect : {"", "Expect: 100-continue\r\n"}) {
        Client client(server->Port());
        ASSERT_TRUE(client.Send(announced + expect + "\r\n" + std::string(1000, 'x')));
        auto reply = client.ReadReply();
        ASSERT_TRUE(reply) << expect;
        EXPECT_EQ(reply->status, 401) << expect;
        EXPECT_TRUE(client.ReadUntilClosed());
    }
    Client allowed(server->Port());
    ASSERT_TRUE(allowed.Send(Request("POST", "/things", "{\"a\": 1}", "Authorization: yes\r\n")));
    auto echoed = allowed.ReadReply();
    ASSERT_TRUE(echoed);
    EXPECT_EQ(echoed->status, 200);
    EXPECT_EQ(nlohmann::json::parse(echoed->body)["body"], "{\"a\": 1}");
    EXPECT_EQ(bodySeen, 0u);
    EXPECT_EQ(handled, 1);
}

// Opens a stream and reads its header, after which the server has registered the client.
// Opens a stream and takes its header and its "retry:" line; what follows stays in `received`.
std::unique_ptr<Client> OpenStream(std::uint16_t port, int receiveBuffer = 0, const std::string& headers = "",
                                   const std::string& target = "/events") {
    auto client = std::make_unique<Client>(port, receiveBuffer);
    EXPECT_TRUE(client->Send(Request("GET", target, "", headers)));
    const std::string header = client->TakeThrough("\r\n\r\n");
    EXPECT_EQ(header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << header;
    EXPECT_NE(header.find("Content-Type: text/event-stream\r\n"), std::string::npos) << header;
    EXPECT_NE(header.find("Cache-Control: no-cache\r\n"), std::string::npos) << header;
    EXPECT_NE(header.find("X-Content-Type-Options: nosniff\r\n"), std::string::npos) << header;
    EXPECT_EQ(header.find("ETag"), std::string::npos) << header;
    EXPECT_EQ(client->TakeThrough("\n\n"), "retry: 3000\n\n");
    return client;
}

struct SseFrame {
    std::string id;
    std::string event;
    std::string data;
    bool operator==(const SseFrame&) const = default;
};

// The whole frames at the start of `text`, each consumed; comment frames are skipped.
std::vector<SseFrame> TakeFrames(std::string& text) {
    std::vector<SseFrame> frames;
    for (std::size_t end; (end = text.find("\n\n")) != std::string::npos;) {
        SseFrame frame;
        std::size_t line = 0;
        while (line < end) {
            const std::size_t lineEnd = text.find('\n', line);
            const std::string field = text.substr(line, lineEnd - line);
            if (field.rfind("id: ", 0) == 0) {
                frame.id = field.substr(4);
            } else if (field.rfind("event: ", 0) == 0) {
                frame.event = field.substr(7);
            } else if (field.rfind("data: ", 0) == 0) {
                frame.data += (frame.data.empty() ? "" : "\n") + field.substr(6);
            }
            line = lineEnd + 1;
        }
        if (!frame.event.empty()) {
            frames.push_back(frame);
        }
        text.erase(0, end + 2);
    }
    return frames;
}

// Reads `stream` until the frame of `event` with `data` has come; the frames up to it, or none.
std::vector<SseFrame> FramesThrough(Client& stream, const std::string& event, const std::string& data) {
    if (!stream.ReadUntil("event: " + event + "\ndata: " + data + "\n\n")) {
        return {};
    }
    const std::string marker = "event: " + event + "\ndata: " + data + "\n\n";
    std::string through = stream.Take(stream.received.find(marker) + marker.size());
    return TakeFrames(through);
}

// The number after the run in an event id ("1a2b3c4d-17" gives 17), or -1.
long long IdNumber(const std::string& id) {
    const std::size_t dash = id.find('-');
    return dash == 8 && id.size() > 9 ? std::stoll(id.substr(9)) : -1;
}

TEST_F(HttpServerTest, EventStreamCarriesExactFramesInPublishedOrder) {
    StartServer();
    auto stream = OpenStream(server->Port());
    server->PublishEvent("created", R"({"type":"created","path":"/routines/A-0"})");
    server->PublishEvent("updated", R"({"type":"updated","path":"/routines/A-0"})");
    server->PublishEvent("note", "two\nlines");
    server->PublishEvent("deleted", R"({"type":"deleted","path":"/routines/A-0"})");
    const std::string frames = stream->TakeThrough("\"deleted\",\"path\":\"/routines/A-0\"}\n\n");
    ASSERT_EQ(frames.rfind("id: ", 0), 0u) << frames;
    const std::string run = frames.substr(4, 8);
    EXPECT_EQ(run.find_first_not_of("0123456789abcdef"), std::string::npos) << run;
    const std::string expected =
        "id: " + run + "-1\nevent: created\ndata: {\"type\":\"created\",\"path\":\"/routines/A-0\"}\n\n" +
        "id: " + run + "-2\nevent: updated\ndata: {\"type\":\"updated\",\"path\":\"/routines/A-0\"}\n\n" +
        "id: " + run + "-3\nevent: note\ndata: two\ndata: lines\n\n" + "id: " + run +
        "-4\nevent: deleted\ndata: {\"type\":\"deleted\",\"path\":\"/routines/A-0\"}\n\n";
    EXPECT_EQ(frames, expected);
}

// A client that lost its stream reconnects with the id of the last frame it saw, by header or, when it
// cannot set one, by query, and is sent what it missed in order, then the live events.
TEST_F(HttpServerTest, ReconnectingWithTheLastIdReplaysWhatWasMissedThenLiveEvents) {
    StartServer();
    auto first = OpenStream(server->Port());
    std::vector<std::string> published{"0"};
    server->PublishEvent("e", "0");
    const auto seen = FramesThrough(*first, "e", "0");
    ASSERT_EQ(seen.size(), 1u);
    first.reset();  // the stream drops
    for (const std::string data : {"1", "2\nsecond line"}) {
        published.push_back(data);
        server->PublishEvent("e", data);
    }
    const std::vector<std::pair<std::string, std::string>> ways{
        {"Last-Event-ID: " + seen[0].id + "\r\n", "/events"},
        {"", "/events?x=1&lastEventId=" + seen[0].id},
        // The header is newer than the address the client was first given.
        {"Last-Event-ID: " + seen[0].id + "\r\n", "/events?lastEventId=00000000-1"}};
    for (const auto& [headers, target] : ways) {
        SCOPED_TRACE(headers + target);
        auto resumed = OpenStream(server->Port(), 0, headers, target);
        const std::string live = "live " + std::to_string(published.size());
        published.push_back(live);
        server->PublishEvent("e", live);
        const auto frames = FramesThrough(*resumed, "e", live);
        ASSERT_EQ(frames.size(), published.size() - 1);
        for (std::size_t i = 0; i < frames.size(); ++i) {
            EXPECT_EQ(frames[i].data, published[i + 1]);
            EXPECT_EQ(frames[i].id, seen[0].id.substr(0, 9) + std::to_string(i + 2));
        }
    }
    // The latest id: nothing to replay, live events only.
    auto current =
        OpenStream(server->Port(), 0,
                   "Last-Event-ID: " + seen[0].id.substr(0, 9) + std::to_string(published.size()) + "\r\n");
    server->PublishEvent("e", "last");
    const auto frames = FramesThrough(*current, "e", "last");
    ASSERT_EQ(frames.size(), 1u);
    EXPECT_EQ(IdNumber(frames[0].id), static_cast<long long>(published.size()) + 1);
}

struct StaleId {
    std::string name;
    std::string headers;  // the id by header,
    std::string query;    // or by query
    std::string reason;
};

class StreamResetTest : public HttpServerTest, public ::testing::WithParamInterface<StaleId> {};

// An id the journal cannot resume from, whatever its bytes, opens the stream with one reset that
// carries the latest id; the live events follow.
TEST_P(StreamResetTest, StartsWithOneResetCarryingTheLatestIdThenLiveEvents) {
    auto options = Options();
    options.eventReplayCount = 2;
    StartServer(options);
    auto witness = OpenStream(server->Port());
    for (int i = 1; i <= 4; ++i) {
        server->PublishEvent("e", std::to_string(i));
    }
    const auto published = FramesThrough(*witness, "e", "4");
    ASSERT_EQ(published.size(), 4u);
    const std::string run = published[0].id.substr(0, 8);
    const auto fill = [&run](std::string text) {
        for (std::size_t at; (at = text.find("RUN")) != std::string::npos;) {
            text.replace(at, 3, run);
        }
        return text;
    };
    auto stream = OpenStream(server->Port(), 0, fill(GetParam().headers), "/events" + fill(GetParam().query));
    server->PublishEvent("e", "live");
    const auto frames = FramesThrough(*stream, "e", "live");
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].id, run + "-4");
    EXPECT_EQ(frames[0].event, "reset");
    EXPECT_EQ(nlohmann::json::parse(frames[0].data),
              (nlohmann::json{{"type", "reset"}, {"reason", GetParam().reason}}));
    EXPECT_EQ(frames[1].id, run + "-5");
}

INSTANTIATE_TEST_SUITE_P(
    Ids, StreamResetTest,
    ::testing::Values(
        StaleId{"TooOld", "Last-Event-ID: RUN-1\r\n", "", "The events after this id are no longer kept."},
        StaleId{"AnotherRun", "", "?lastEventId=00000000-3",
                "The event id is from another run of the server."},
        StaleId{"Ahead", "Last-Event-ID: RUN-5\r\n", "", "The event id is ahead of the latest event."},
        StaleId{"Dash", "Last-Event-ID: -\r\n", "", "The event id is malformed."},
        StaleId{"TenKilobytes", "Last-Event-ID: " + std::string(10 * 1024, '9') + "\r\n", "",
                "The event id is malformed."},
        StaleId{"HugeNumber", "Last-Event-ID: RUN-" + std::string(5000, '9') + "\r\n", "",
                "The event id is malformed."},
        StaleId{"NotUtf8ByQuery", "", "?lastEventId=RUN-%FF%FE%00", "The event id is malformed."}),
    [](const auto& info) { return info.param.name; });

// Header values must be UTF-8: an id of other bytes is refused with the transport's JSON error, and the
// server goes on.
TEST_F(HttpServerTest, LastEventIdOfNonUtf8BytesIsRefused400) {
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Send(Request("GET", "/events", "", "Last-Event-ID: \xff\xfe-1\r\n")));
    auto refused = client.ReadReply();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 400);
    EXPECT_EQ(nlohmann::json::parse(refused->body), ErrorBody("A header value is not valid UTF-8."));
    auto stream = OpenStream(server->Port());
    EXPECT_EQ(server->EventClientCount(), 1u);
}

// One round of clients resuming while threads publish: publishers run until every client is connected
// (within the journal's bound), so that connections and publications overlap.
void ResumeWhilePublishing(HttpServer& server) {
    auto witness = OpenStream(server.Port());
    constexpr int kEarly = 40;
    for (int i = 0; i < kEarly; ++i) {
        server.PublishEvent("e", "early " + std::to_string(i));
    }
    const auto early = FramesThrough(*witness, "e", "early " + std::to_string(kEarly - 1));
    ASSERT_EQ(early.size(), static_cast<std::size_t>(kEarly));

    constexpr int kPublishers = 3;
    constexpr int kMaxEvents = 300;  // 40 + 3 * 300 stay within the 1,024 kept
    constexpr int kClients = 8;
    NyTest::Gate go;
    std::atomic<int> ready{0};
    std::atomic<int> connected{0};
    std::vector<std::thread> publishers;
    for (int t = 0; t < kPublishers; ++t) {
        publishers.emplace_back([&server, t, &go, &ready, &connected] {
            ++ready;
            go.Wait();
            for (int i = 0; i < kMaxEvents && connected < kClients; ++i) {
                server.PublishEvent("e", std::to_string(t) + " " + std::to_string(i));
            }
        });
    }
    // Each client resumes from a different early id.
    std::vector<std::unique_ptr<Client>> clients(kClients);
    std::vector<std::thread> connecting;
    for (int c = 0; c < kClients; ++c) {
        connecting.emplace_back([&server, c, &clients, &early, &go, &ready, &connected] {
            ++ready;
            go.Wait();
            clients[c] = OpenStream(server.Port(), 0, "Last-Event-ID: " + early[c * 5].id + "\r\n");
            ++connected;
        });
    }
    ASSERT_TRUE(NyTest::Eventually([&ready] { return ready == kPublishers + kClients; }));
    go.Open();
    for (auto& thread : publishers) {
        thread.join();
    }
    for (auto& thread : connecting) {
        thread.join();
    }
    server.PublishEvent("end", "");

    auto journal = FramesThrough(*witness, "end", "");
    ASSERT_FALSE(journal.empty());
    journal.insert(journal.begin(), early.begin(), early.end());
    for (std::size_t i = 0; i < journal.size(); ++i) {
        ASSERT_EQ(IdNumber(journal[i].id), static_cast<long long>(i) + 1);
    }
    for (int c = 0; c < kClients; ++c) {
        ASSERT_TRUE(clients[c]);
        const auto frames = FramesThrough(*clients[c], "end", "");
        const std::vector<SseFrame> expected(journal.begin() + c * 5 + 1, journal.end());
        ASSERT_EQ(frames, expected) << "client " << c;
    }
}

// Clients connect with ids while several threads publish: whatever the interleaving, each receives every
// event after its id exactly once, in the order of the journal, which a client connected before all of
// it records. Several rounds, each on a fresh server, so that the connections meet publications often.
TEST_F(HttpServerTest, EventsPublishedWhileClientsResumeArriveExactlyOnceInJournalOrder) {
    for (int round = 0; round < 10 && !HasFatalFailure(); ++round) {
        SCOPED_TRACE("round " + std::to_string(round));
        server.reset();
        StartServer();
        ResumeWhilePublishing(*server);
    }
}

TEST_F(HttpServerTest, IdleStreamGetsKeepAliveComments) {
    auto options = Options();
    options.eventKeepAlive = 20ms;
    StartServer(options);
    auto stream = OpenStream(server->Port());
    EXPECT_EQ(stream->TakeThrough("\n\n"), ": keep-alive\n\n");
}

TEST_F(HttpServerTest, EventsFromSeveralThreadsReachEveryClientInEachThreadsOrder) {
    StartServer();
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(OpenStream(server->Port()));
    }
    constexpr int kThreads = 4;
    constexpr int kEvents = 200;
    std::vector<std::thread> publishers;
    for (int t = 0; t < kThreads; ++t) {
        publishers.emplace_back([server = server.get(), t] {
            for (int i = 0; i < kEvents; ++i) {
                server->PublishEvent("e", std::to_string(t) + " " + std::to_string(i));
            }
        });
    }
    for (auto& publisher : publishers) {
        publisher.join();
    }
    server->PublishEvent("end", "");
    for (auto& client : clients) {
        const auto frames = FramesThrough(*client, "end", "");
        ASSERT_EQ(frames.size(), static_cast<std::size_t>(kThreads * kEvents + 1));
        std::vector<int> next(kThreads, 0);
        for (std::size_t i = 0; i + 1 < frames.size(); ++i) {
            EXPECT_EQ(IdNumber(frames[i].id), static_cast<long long>(i) + 1);
            int thread = -1;
            int index = -1;
            ASSERT_EQ(std::sscanf(frames[i].data.c_str(), "%d %d", &thread, &index), 2);
            ASSERT_GE(thread, 0);
            ASSERT_LT(thread, kThreads);
            EXPECT_EQ(index, next[thread]++);
        }
        EXPECT_EQ(next, std::vector<int>(kThreads, kEvents));
    }
}

TEST_F(HttpServerTest, SlowStreamClientIsDroppedWhileAFastOneKeepsReceiving) {
    auto options = Options();
    options.eventClientQueueBytes = 64 * 1024;
    StartServer(options);
    auto fast = OpenStream(server->Port());
    auto slow = OpenStream(server->Port(), 4096);  // reads nothing more from here on
    ASSERT_EQ(server->EventClientCount(), 2u);

    // Rounds small enough for the fast client's queue; the slow one falls further behind each round.
    const std::string payload(1000, 'p');
    int sequence = 0;
    for (int round = 0; round < 4000 && server->EventClientCount() == 2; ++round) {
        for (int i = 0; i < 8; ++i) {
            server->PublishEvent("e", std::to_string(sequence++) + " " + payload);
        }
        const std::string last = "data: " + std::to_string(sequence - 1) + " ";
        ASSERT_TRUE(fast->ReadUntil(last)) << "fast client stalled at " << sequence;
    }
    ASSERT_TRUE(NyTest::Eventually([this] { return server->EventClientCount() == 1; }));
    EXPECT_TRUE(log.WaitFor("Event client 127.0.0.1:" + std::to_string(slow->LocalPort()) +
                            " dropped: more than 65536 bytes behind."));

    server->PublishEvent("e", std::to_string(sequence++) + " after");
    ASSERT_TRUE(fast->ReadUntil(std::to_string(sequence - 1) + " after\n\n"));
    const auto frames = TakeFrames(fast->received);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(sequence));
    for (int expected = 0; expected < sequence; ++expected) {
        ASSERT_EQ(frames[expected].data.rfind(std::to_string(expected) + " ", 0), 0u) << "frame " << expected;
    }
    // The slow client got a prefix of the stream, then the server closed it.
    EXPECT_TRUE(slow->ReadUntilClosed());
    EXPECT_NE(slow->received.find("\nevent: e\ndata: 0 "), std::string::npos);
    EXPECT_EQ(slow->received.rfind("id: ", 0), 0u);
}

// The peak resident memory of this process since the last reset, in bytes (0 where not readable).
std::size_t PeakResidentBytes() {
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("VmHWM:", 0) == 0) {
            return std::stoul(line.substr(6)) * 1024;
        }
    }
    return 0;
}

// Clients that never read, a publisher far faster than they: what the server holds for them stays near
// their caps, frames waiting to be handed to a client's strand included.
TEST_F(HttpServerTest, EventClientsThatNeverReadHoldLittleMoreThanTheirCaps) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own bookkeeping dominates the process's memory";
#endif
    constexpr std::size_t kClients = 64;
    constexpr std::size_t kCap = 64 * 1024;
    constexpr std::size_t kEventBytes = 32 * 1024;
    constexpr int kEvents = 8192;  // 256 MiB published
    auto options = Options();
    options.eventClientQueueBytes = kCap;
    options.maxEventClients = kClients;
    StartServer(options);
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < kClients; ++i) {
        clients.push_back(OpenStream(server->Port(), 4096));
    }
    ASSERT_EQ(server->EventClientCount(), kClients);
    std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak below
    const std::size_t before = PeakResidentBytes();
    ASSERT_GT(before, 0u);

    const std::string payload(kEventBytes, 'p');
    for (int i = 0; i < kEvents; ++i) {
        server->PublishEvent("e", payload);
    }
    ASSERT_TRUE(NyTest::Eventually([this] { return server->EventClientCount() == 0; }, 60s));
    const std::size_t growth = PeakResidentBytes() - before;
    // 64 caps plus room for the allocator; a server that let hand-overs pile up went well beyond.
    EXPECT_LT(growth, kClients * kCap + (2u << 20)) << growth;
}

// Many clients reconnect at once with the oldest kept id and read nothing: their replays share the
// journal's frames, so the server holds about a pointer per frame and client, not a copy of the journal
// for each.
TEST_F(HttpServerTest, ManyClientsResumingAtOnceShareTheReplayedFrames) {
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    GTEST_SKIP() << "a sanitizer's own bookkeeping dominates the process's memory";
#endif
    constexpr std::size_t kClients = 64;
    constexpr std::size_t kFrames = 1024;
    auto options = Options();
    options.maxEventClients = kClients + 1;
    StartServer(options);
    auto witness = OpenStream(server->Port());
    const std::string payload(200, 'p');  // the journal holds about 220 KiB of frames
    for (std::size_t i = 0; i < kFrames; ++i) {
        server->PublishEvent("e", std::to_string(i) + " " + payload);
    }
    const auto first = FramesThrough(*witness, "e", "0 " + payload);
    ASSERT_EQ(first.size(), 1u);
    const std::string oldest = first[0].id.substr(0, 9) + "1";  // what is replayed is 2 .. 1024

    std::ofstream("/proc/self/clear_refs") << "5";  // resets the peak below
    const std::size_t before = PeakResidentBytes();
    ASSERT_GT(before, 0u);
    std::vector<std::unique_ptr<Client>> clients;
    for (std::size_t i = 0; i < kClients; ++i) {
        clients.push_back(OpenStream(server->Port(), 4096, "Last-Event-ID: " + oldest + "\r\n"));
    }
    ASSERT_EQ(server->EventClientCount(), kClients + 1);
    // Each has its replay queued; the last one's last frame arriving says the replays were all queued.
    EXPECT_TRUE(clients.back()->ReadUntil("data: 1 " + payload));
    const std::size_t growth = PeakResidentBytes() - before;
    RecordProperty("peakGrowthBytes", std::to_string(growth));
    // Copies would take 64 times the journal, 14 MiB; shared frames a few hundred KiB and the sockets.
    EXPECT_LT(growth, 6u << 20) << growth;
}

// A replay longer than half a client's queue would get it dropped at once: it gets a reset instead.
TEST_F(HttpServerTest, ReplayBeyondHalfTheClientQueueBecomesAReset) {
    auto options = Options();
    options.eventClientQueueBytes = 24 * 1024;  // the witness takes all 100 frames, half holds 75
    StartServer(options);
    auto witness = OpenStream(server->Port());
    for (int i = 0; i < 100; ++i) {
        server->PublishEvent("e", std::to_string(i));
    }
    const auto published = FramesThrough(*witness, "e", "99");
    ASSERT_EQ(published.size(), 100u);
    auto recent = OpenStream(server->Port(), 0, "Last-Event-ID: " + published[97].id + "\r\n");
    auto old = OpenStream(server->Port(), 0, "Last-Event-ID: " + published[0].id + "\r\n");
    server->PublishEvent("e", "live");
    EXPECT_EQ(FramesThrough(*recent, "e", "live").size(), 3u);
    const auto frames = FramesThrough(*old, "e", "live");
    ASSERT_EQ(frames.size(), 2u);
    EXPECT_EQ(frames[0].event, "reset");
    EXPECT_EQ(frames[0].id, published[99].id);
    EXPECT_EQ(nlohmann::json::parse(frames[0].data)["reason"],
              "More events were missed than the stream can replay.");
}

TEST_F(HttpServerTest, StreamsBeyondTheCapAreRefused503UntilOneCloses) {
    auto options = Options();
    options.maxEventClients = 1;
    StartServer(options);
    auto first = OpenStream(server->Port());

    Client second(server->Port());
    ASSERT_TRUE(second.Send(Request("GET", "/events")));
    auto refusal = second.ReadReply();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->status, 503);
    EXPECT_EQ(nlohmann::json::parse(refusal->body), ErrorBody("Too many event-stream clients."));
    EXPECT_TRUE(second.ReadUntilClosed());

    first.reset();
    ASSERT_TRUE(NyTest::Eventually([this] { return server->EventClientCount() == 0; }));
    auto third = OpenStream(server->Port());
    EXPECT_EQ(server->EventClientCount(), 1u);
}

TEST_F(HttpServerTest, StopClosesStreamsAndIdleConnectionsWithoutWaitingForTimeouts) {
    auto options = Options();
    options.readTimeout = 600s;
    options.eventKeepAlive = 600s;
    StartServer(options);
    auto stream = OpenStream(server->Port());
    Client idle(server->Port());
    ASSERT_TRUE(idle.Send(Request("GET", "/x")));
    ASSERT_TRUE(idle.ReadReply());
    Client partial(server->Port());
    ASSERT_TRUE(partial.Send("GET /x HTTP/1.1\r\nHost: te"));

    const auto started = std::chrono::steady_clock::now();
    server->Stop();
    EXPECT_LT(std::chrono::steady_clock::now() - started, 60s);  // far below any time-out above
    for (Client* client : {stream.get(), &idle, &partial}) {
        EXPECT_TRUE(client->ReadUntilClosed());
    }
    server->PublishEvent("late", "ignored");  // after Stop: nothing to do, nothing to crash
    Client refused(server->Port());
    EXPECT_FALSE(refused.Connected());
}

TEST_F(HttpServerTest, StopWaitsForTheHandlerInProgressAndDeliversItsReply) {
    auto returned = std::make_shared<std::atomic<bool>>(false);
    handler = [this, returned](const HttpRequest& request) {
        entered.Open();
        release.Wait(30s);
        *returned = true;
        return Echo(request);
    };
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Send(Request("POST", "/create")));
    ASSERT_TRUE(entered.Wait());

    auto stopped = std::async(std::launch::async, [server = server.get()] { server->Stop(); });
    ASSERT_TRUE(NyTest::Eventually([this] { return !Client(server->Port()).Connected(); }));
    EXPECT_EQ(stopped.wait_for(0s), std::future_status::timeout);  // the handler is still held
    release.Open();
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_EQ(reply->status, 200);
    EXPECT_EQ(reply->headers["connection"], "close");
    EXPECT_TRUE(client.ReadUntilClosed());
    ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready);
    EXPECT_TRUE(*returned);
}

// Requests received whole before Stop() all get a reply: the ones in progress their handler's, the
// queued ones 503; none a bare close.
TEST_F(HttpServerTest, StopAnswersEveryRequestReceivedBeforeIt) {
    constexpr int kClients = 50;
    constexpr unsigned kWorkers = 4;
    auto running = std::make_shared<std::atomic<unsigned>>(0);  // outlives the test body with the handler
    handler = [this, running](const HttpRequest& request) {
        ++*running;
        release.Wait(30s);
        return Echo(request);
    };
    auto options = Options();
    options.workerThreads = kWorkers;
    StartServer(options);
    std::vector<std::unique_ptr<Client>> clients;
    for (int i = 0; i < kClients; ++i) {
        clients.push_back(std::make_unique<Client>(server->Port()));
        ASSERT_TRUE(clients.back()->Send(Request("POST", "/things", "{}")));
    }
    ASSERT_TRUE(NyTest::Eventually([this] { return filtered == kClients; }));
    ASSERT_TRUE(NyTest::Eventually([&running] { return *running == kWorkers; }));  // every worker is busy

    auto stopped = std::async(std::launch::async, [server = server.get()] { server->Stop(); });
    ASSERT_TRUE(NyTest::Eventually([this] { return !Client(server->Port()).Connected(); }));
    // The handlers are held, so the first reply to arrive is a queued request's refusal: only then are
    // they released, so that they cannot take the queued requests before Stop() has answered them.
    std::vector<pollfd> fds;
    for (auto& client : clients) {
        fds.push_back({client->Fd(), POLLIN, 0});
    }
    ASSERT_GT(::poll(fds.data(), fds.size(), 10000), 0);
    release.Open();
    int answered = 0;
    int refused = 0;
    for (auto& client : clients) {
        auto reply = client->ReadReply();
        ASSERT_TRUE(reply) << "a bare close after " << answered + refused << " replies";
        EXPECT_EQ(reply->headers["connection"], "close");
        if (reply->status == 200) {
            ++answered;
        } else {
            EXPECT_EQ(reply->status, 503);
            EXPECT_EQ(nlohmann::json::parse(reply->body), ErrorBody("The service is shutting down."));
            ++refused;
        }
        EXPECT_TRUE(client->ReadUntilClosed());
    }
    EXPECT_EQ(answered, static_cast<int>(kWorkers));
    EXPECT_EQ(refused, kClients - static_cast<int>(kWorkers));
    ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready);
}

// More than the loopback's socket buffers hold between the two ends (the client's receive buffer is made
// small): a reply or a stream this long is still being written until the client reads it.
constexpr std::size_t kBeyondSocketBuffers = 32 << 20;
constexpr int kSmallReceiveBuffer = 64 << 10;

// A reply written as keep-alive just before the stop ends after the stop has begun; the client may
// already have sent its next request on that connection. That request has arrived when the connection
// would read on, and gets a reply (its handler's or a 503) before the close, never a bare close.
TEST_F(HttpServerTest, RequestOnAConnectionKeptAliveAcrossTheStopIsAnswered) {
    const auto big = std::make_shared<const std::string>(kBeyondSocketBuffers, 'x');
    handler = [big](const HttpRequest& request) {
        return request.target == "/big" ? HttpResponse{200, {{"Content-Type", "text/plain"}}, *big}
                                        : Echo(request);
    };
    StartServer();
    Client client(server->Port(), kSmallReceiveBuffer);
    ASSERT_TRUE(client.Send(Request("GET", "/big")));
    // Its header has arrived: the reply is being written, as keep-alive, and cannot end before the
    // client reads the rest.
    ASSERT_TRUE(client.ReadUntil("\r\n\r\n"));
    auto stopped = std::async(std::launch::async, [server = server.get()] { server->Stop(); });
    ASSERT_TRUE(NyTest::Eventually([this] { return !Client(server->Port()).Connected(); }));
    ASSERT_TRUE(client.Send(Request("GET", "/next")));
    const auto first = client.ReadReply();
    ASSERT_TRUE(first);
    EXPECT_EQ(first->status, 200);
    EXPECT_EQ(first->body.size(), big->size());
    auto next = client.ReadReply();
    ASSERT_TRUE(next) << "the request that followed the kept-alive reply got a bare close";
    EXPECT_TRUE(next->status == 200 || next->status == 503) << next->status;
    EXPECT_EQ(next->headers["connection"], "close");
    EXPECT_TRUE(client.ReadUntilClosed());
    ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready);
}

// Frames published before the stop reach a stream client that reads them, however far its connection
// is behind when the stop begins; only then is the stream closed. The stop is seen to have begun when
// a queued request is refused: the stream was told to close before that refusal was written.
TEST_F(HttpServerTest, StopDeliversTheFramesPublishedBeforeItAndThenClosesTheStream) {
    constexpr int kFrames = 4;
    auto options = Options();
    options.workerThreads = 1;
    options.eventClientQueueBytes = 2 * kBeyondSocketBuffers;
    BlockOn("/block");
    StartServer(options);
    auto stream = OpenStream(server->Port(), kSmallReceiveBuffer);
    const std::string filler(kBeyondSocketBuffers / kFrames, 'y');
    for (int i = 0; i < kFrames; ++i) {
        server->PublishEvent("big", std::to_string(i) + filler);
    }
    Client holding(server->Port());
    ASSERT_TRUE(holding.Send(Request("GET", "/block")));
    ASSERT_TRUE(entered.Wait());
    Client queued(server->Port());
    ASSERT_TRUE(queued.Send(Request("GET", "/queued")));
    ASSERT_TRUE(NyTest::Eventually([this] { return filtered == 3; }));

    auto stopped = std::async(std::launch::async, [server = server.get()] { server->Stop(); });
    const auto refusal = queued.ReadReply();
    ASSERT_TRUE(refusal);
    EXPECT_EQ(refusal->status, 503);
    EXPECT_TRUE(stream->ReadUntilClosed());
    release.Open();
    EXPECT_TRUE(holding.ReadReply());
    ASSERT_EQ(stopped.wait_for(30s), std::future_status::ready);
    const auto frames = TakeFrames(stream->received);
    ASSERT_EQ(frames.size(), static_cast<std::size_t>(kFrames)) << "frames were lost at the stop";
    for (int i = 0; i < kFrames; ++i) {
        EXPECT_EQ(frames[i].data, std::to_string(i) + filler);
    }
}

// A chunk-size line that never ends (a long extension, endless leading zeros, an endless trailer) must
// be refused from a bounded buffer, long before the client is done sending.
class ChunkLineAttack : public HttpServerTest, public ::testing::WithParamInterface<std::string> {};

TEST_P(ChunkLineAttack, IsRefusedAndClosedWithoutBufferingIt) {
    // Far more than the server may discard after its refusal (body and header limits) plus what the
    // kernel's socket buffers hold: a server that drained for as long as the client sends takes it all.
    constexpr std::size_t kAttackBytes = 256 << 20;
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(
        client.Send("POST /x HTTP/1.1\r\nHost: test\r\nTransfer-Encoding: chunked\r\n\r\n" + GetParam()));
    // Sends until the server closes.
    auto sender = std::async(std::launch::async, [fd = client.Fd(), filler = GetParam().back()] {
        const std::string block(64 * 1024, filler);
        std::size_t sent = 0;
        while (sent < kAttackBytes) {
            const ssize_t count = ::send(fd, block.data(), block.size(), MSG_NOSIGNAL);
            if (count <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(count);
        }
        return sent;
    });
    auto reply = client.ReadReply();
    ASSERT_TRUE(reply);
    EXPECT_TRUE(reply->status == 400 || reply->status == 431) << reply->status;
    EXPECT_TRUE(client.ReadUntilClosed());
    ::shutdown(client.Fd(), SHUT_RDWR);
    ASSERT_EQ(sender.wait_for(30s), std::future_status::ready);
    EXPECT_LT(sender.get(), kAttackBytes);
    EXPECT_EQ(handled, 0);
}

INSTANTIATE_TEST_SUITE_P(Http, ChunkLineAttack,
                         ::testing::Values("1;ext=a", "0", "5\r\nhello\r\n0\r\nX-Trailer: a"));

// A client without credentials must not be able to write the operator's log as fast as it can send:
// refusal lines are held back beyond a budget, and the next line let through says how many were.
TEST_F(HttpServerTest, RefusalFloodWritesABoundedNumberOfLogLines) {
    StartServer();
    constexpr int kRefusals = 200;
    for (int i = 0; i < kRefusals; ++i) {
        Client client(server->Port());
        ASSERT_TRUE(client.Send("GET /x HTTP/1.1\r\n\r\n"));  // no Host: 400
        ASSERT_TRUE(client.ReadReply());
    }
    const auto refusalLines = [this] {
        std::size_t lines = 0;
        for (const auto& text : log.Texts()) {
            lines += text.find("refused with 400") != std::string::npos ? 1 : 0;
        }
        return lines;
    };
    EXPECT_LT(refusalLines(), static_cast<std::size_t>(kRefusals / 2));
    ASSERT_TRUE(NyTest::Eventually([this] {
        Client client(server->Port());
        client.Send("GET /x HTTP/1.1\r\n\r\n");
        client.ReadReply();
        for (const auto& text : log.Texts()) {
            if (text.find("similar lines held back") != std::string::npos) {
                return true;
            }
        }
        return false;
    }));
    EXPECT_LT(refusalLines(), static_cast<std::size_t>(kRefusals / 2));
}

// The same budget holds for the lines a flood of refusals for being busy would write: streams beyond their
// cap, and requests beyond a worker queue held full.
TEST_F(HttpServerTest, BusyRefusalFloodsWriteABoundedNumberOfLogLines) {
    constexpr int kRefusals = 200;
    const auto linesWith = [this](const std::string& part) {
        std::size_t lines = 0;
        for (const auto& text : log.Texts()) {
            lines += text.find(part) != std::string::npos ? 1 : 0;
        }
        return lines;
    };
    auto options = Options();
    options.maxEventClients = 1;
    options.workerThreads = 1;
    options.maxQueuedRequests = 1;
    BlockOn("/block");
    StartServer(options);
    auto stream = OpenStream(server->Port());
    for (int i = 0; i < kRefusals; ++i) {
        Client client(server->Port());
        ASSERT_TRUE(client.Send(Request("GET", "/events")));
        const auto reply = client.ReadReply();
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->status, 503);
    }
    EXPECT_LT(linesWith("streams are open"), static_cast<std::size_t>(kRefusals / 2));

    Client blocked(server->Port());
    ASSERT_TRUE(blocked.Send(Request("GET", "/block")));
    ASSERT_TRUE(entered.Wait(30s));
    Client queued(server->Port());
    ASSERT_TRUE(queued.Send(Request("GET", "/block")));
    // The queued request is taken once the server has read it; until then a request may still fit.
    ASSERT_TRUE(NyTest::Eventually([this] {
        Client probe(server->Port());
        probe.Send(Request("GET", "/x"));
        const auto reply = probe.ReadReply();
        return reply && reply->status == 503;
    }));
    for (int i = 0; i < kRefusals; ++i) {
        Client client(server->Port());
        ASSERT_TRUE(client.Send(Request("GET", "/x")));
        const auto reply = client.ReadReply();
        ASSERT_TRUE(reply);
        ASSERT_EQ(reply->status, 503);
    }
    EXPECT_LT(linesWith("requests already wait for a worker"), static_cast<std::size_t>(kRefusals / 2));
    release.Open();
    EXPECT_TRUE(blocked.ReadReply());
    EXPECT_TRUE(queued.ReadReply());
}

TEST_F(HttpServerTest, ConnectionsBeyondTheCapAreClosedAtOnce) {
    auto options = Options();
    options.maxConnections = 2;
    StartServer(options);
    Client first(server->Port());
    Client second(server->Port());
    for (Client* client : {&first, &second}) {
        ASSERT_TRUE(client->Send(Request("GET", "/x")));
        ASSERT_TRUE(client->ReadReply());
    }
    Client third(server->Port());
    EXPECT_TRUE(third.ReadUntilClosed());
    ASSERT_TRUE(first.Send(Request("GET", "/still")));
    ASSERT_TRUE(first.ReadReply());

    second.Send(Request("GET", "/x", "", "Connection: close\r\n"));
    ASSERT_TRUE(second.ReadReply());
    ASSERT_TRUE(second.ReadUntilClosed());
    // The freed slot is taken again once the server has seen the close.
    ASSERT_TRUE(NyTest::Eventually([this] {
        Client next(server->Port());
        return next.Send(Request("GET", "/x")) && next.ReadReply().has_value();
    }));
}

// A client that holds the current document asks with its tag and is told 304, without a body, on a
// connection that goes on serving; HEAD is answered alike; other replies and the stream get no tag.
TEST_F(HttpServerTest, ReadWithAMatchingTagIsAnswered304AndTheConnectionGoesOn) {
    handler = [](const HttpRequest& request) {
        if (request.target == "/missing") {
            return NyHost::JsonErrorReply(404, "No such thing.");
        }
        return HttpResponse{200, {}, "{\"doc\":1}"};
    };
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Send(Request("GET", "/doc")));
    auto full = client.ReadReply();
    ASSERT_TRUE(full);
    EXPECT_EQ(full->status, 200);
    const std::string tag = full->headers["etag"];
    ASSERT_EQ(tag.size(), 18u) << tag;
    EXPECT_EQ(tag.front(), '"');
    EXPECT_EQ(tag.substr(1, 16).find_first_not_of("0123456789abcdef"), std::string::npos) << tag;

    for (const std::string& condition : {tag, "W/" + tag, std::string("\"x\", ") + tag, std::string("*")}) {
        SCOPED_TRACE(condition);
        for (const std::string method : {"GET", "HEAD"}) {
            ASSERT_TRUE(client.Send(Request(method, "/doc", "", "If-None-Match: " + condition + "\r\n")));
            auto unchanged = client.ReadReply();
            ASSERT_TRUE(unchanged);
            EXPECT_EQ(unchanged->status, 304);
            EXPECT_EQ(unchanged->headers["etag"], tag);
            EXPECT_EQ(unchanged->headers.count("content-type"), 0u);
            EXPECT_EQ(unchanged->headers.count("content-length"), 0u);  // not the 200's length
            EXPECT_TRUE(unchanged->body.empty());
        }
    }
    // Pipelined: a body sent with the 304 would be read as the start of the next reply.
    ASSERT_TRUE(client.Send(Request("GET", "/doc", "", "If-None-Match: " + tag + "\r\n") +
                            Request("GET", "/doc", "", "If-None-Match: \"other\", garbage,,\r\n") +
                            Request("GET", "/missing", "", "If-None-Match: *\r\n") +
                            Request("POST", "/doc", "", "If-None-Match: *\r\n")));
    auto unchanged = client.ReadReply();
    ASSERT_TRUE(unchanged);
    EXPECT_EQ(unchanged->status, 304);
    auto changed = client.ReadReply();
    ASSERT_TRUE(changed);
    EXPECT_EQ(changed->status, 200);
    EXPECT_EQ(changed->body, "{\"doc\":1}");
    auto missing = client.ReadReply();
    ASSERT_TRUE(missing);
    EXPECT_EQ(missing->status, 404);
    EXPECT_EQ(missing->headers.count("etag"), 0u);
    auto posted = client.ReadReply();
    ASSERT_TRUE(posted);
    EXPECT_EQ(posted->status, 200);
    EXPECT_EQ(posted->headers.count("etag"), 0u);

    // A thousand tags, the matching one last, fit in the header limit and are all looked at.
    std::string many;
    for (int i = 0; i < 999; ++i) {
        many += "W/\"" + std::to_string(i) + "\",";
    }
    ASSERT_TRUE(client.Send(Request("GET", "/doc", "", "If-None-Match: " + many + tag + "\r\n")));
    auto last = client.ReadReply();
    ASSERT_TRUE(last);
    EXPECT_EQ(last->status, 304);

    // The event stream ignores the condition and carries no tag (OpenStream checks).
    auto stream = OpenStream(server->Port(), 0, "If-None-Match: *\r\n");
}

TEST_F(HttpServerTest, HeadAndAbsoluteFormAreAnsweredAsTheirOriginFormGet) {
    handler = [](const HttpRequest& request) {
        if (request.target == "/who") {  // the name the filter and handler see
            return HttpResponse{200, {{"Content-Type", "text/plain"}}, *request.Header("Host")};
        }
        return HttpResponse{200, {{"Content-Type", "text/plain"}}, request.method + " " + request.target};
    };
    StartServer();
    Client client(server->Port());
    ASSERT_TRUE(client.Send("HEAD /things?q=1 HTTP/1.1\r\nHost: test\r\n\r\n"));
    const std::string head = client.TakeThrough("\r\n\r\n");
    EXPECT_EQ(head.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << head;
    EXPECT_NE(head.find("Content-Length: 15\r\n"), std::string::npos) << head;  // "GET /things?q=1"

    // Pipelined behind the HEAD: a body sent for it would be read as the start of this reply.
    ASSERT_TRUE(
        client.Send("GET http://127.0.0.1:1/things?q=1 HTTP/1.1\r\nHost: test\r\n\r\n"
                    "GET HTTP://test HTTP/1.1\r\nHost: test\r\n\r\n"));
    auto absolute = client.ReadReply();
    ASSERT_TRUE(absolute);
    EXPECT_EQ(absolute->body, "GET /things?q=1");
    auto bare = client.ReadReply();
    ASSERT_TRUE(bare);
    EXPECT_EQ(bare->body, "GET /");

    // The authority of an absolute-form target replaces the Host header, so that a check of the name
    // cannot be passed with an allowed Host and a foreign target.
    ASSERT_TRUE(client.Send("DELETE http://user@evil.example:81/who HTTP/1.1\r\nHost: test\r\n\r\n"));
    auto named = client.ReadReply();
    ASSERT_TRUE(named);
    EXPECT_EQ(named->body, "evil.example:81");
}

TEST_F(HttpServerTest, WaitingRequestRunsBesideTheOnlyWorkerAndIsBounded) {
    handler = [this](const HttpRequest& request) {
        if (request.target == "/create") {
            entered.Open();
            EXPECT_TRUE(release.Wait(30s));
        } else if (request.target == "/continue") {
            release.Open();
        }
        return Echo(request);
    };
    auto options = Options();
    options.workerThreads = 1;
    options.maxWaitingRequests = 1;
    options.mayWait = [](const HttpRequest& request) { return request.target == "/create"; };
    StartServer(options);
    Client creating(server->Port());
    ASSERT_TRUE(creating.Send(Request("POST", "/create")));
    ASSERT_TRUE(entered.Wait());

    Client second(server->Port());
    ASSERT_TRUE(second.Send(Request("POST", "/create")));
    auto refused = second.ReadReply();
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 503);
    EXPECT_EQ(refused->headers["retry-after"], "1");

    Client continuing(server->Port());
    ASSERT_TRUE(continuing.Send(Request("POST", "/continue")));  // needs the only worker
    auto continued = continuing.ReadReply();
    ASSERT_TRUE(continued);
    EXPECT_EQ(continued->status, 200);
    auto created = creating.ReadReply();
    ASSERT_TRUE(created);
    EXPECT_EQ(created->status, 200);
}

// Out of descriptors, accept keeps failing while a connection is pending: the server must pause rather
// than spin, and go on serving the connections it has.
TEST_F(HttpServerTest, AtTheDescriptorLimitAcceptPausesAndOpenConnectionsAreServed) {
    StartServer();
    Client open(server->Port());
    ASSERT_TRUE(open.Send(Request("GET", "/before")));
    ASSERT_TRUE(open.ReadReply());

    rlimit saved{};
    ASSERT_EQ(::getrlimit(RLIMIT_NOFILE, &saved), 0);
    std::vector<int> fillers;
    rlimit lowered = saved;
    lowered.rlim_cur = 256;
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &lowered), 0);
    for (int fd; (fd = ::dup(0)) >= 0;) {
        fillers.push_back(fd);
    }
    ::close(fillers.back());  // one for the client's own socket
    fillers.pop_back();
    Client pending(server->Port());  // sits in the backlog: the server has no descriptor to take it
    EXPECT_TRUE(pending.Connected());
    EXPECT_TRUE(log.WaitFor("Accepting connections failed (Too many open files); retrying with a pause."));

    rusage usageBefore{};
    ::getrusage(RUSAGE_SELF, &usageBefore);
    const auto wallStart = std::chrono::steady_clock::now();
    ASSERT_TRUE(open.Send(Request("GET", "/during")));
    auto during = open.ReadReply();
    NyTest::Gate never;
    never.Wait(1s);  // a bounded interval in which a spinning accept would burn a whole core
    rusage usageAfter{};
    ::getrusage(RUSAGE_SELF, &usageAfter);
    const auto wall = std::chrono::steady_clock::now() - wallStart;
    const auto cpu = [](const rusage& usage) {
        return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
               std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
    };

    for (int fd : fillers) {
        ::close(fd);
    }
    ASSERT_EQ(::setrlimit(RLIMIT_NOFILE, &saved), 0);
    ASSERT_TRUE(during);
    EXPECT_EQ(during->status, 200);
    EXPECT_LT(cpu(usageAfter) - cpu(usageBefore), wall / 2);
    EXPECT_EQ(log.Count("Accepting connections failed (Too many open files); retrying with a pause."), 1u);

    ASSERT_TRUE(pending.Send(Request("GET", "/after")));
    auto after = pending.ReadReply();
    ASSERT_TRUE(after);
    EXPECT_EQ(after->status, 200);
    EXPECT_TRUE(log.WaitFor("Accepting connections again."));
}

TEST_F(HttpServerTest, OverTlsRequestsAndEventStreamsWork) {
    TestCertificate certificate;
    auto options = Options();
    options.tlsCertFile = certificate.certFile;
    options.tlsKeyFile = certificate.keyFile;
    StartServer(options);

    Client client(server->Port());
    ASSERT_TRUE(client.StartTls(certificate.certFile));
    for (const std::string target : {"/one", "/two"}) {
        ASSERT_TRUE(client.Send(Request("POST", target, "{}")));
        auto reply = client.ReadReply();
        ASSERT_TRUE(reply);
        EXPECT_EQ(reply->status, 200);
        EXPECT_EQ(nlohmann::json::parse(reply->body)["target"], target);
    }

    Client stream(server->Port());
    ASSERT_TRUE(stream.StartTls(certificate.certFile));
    ASSERT_TRUE(stream.Send(Request("GET", "/events")));
    EXPECT_EQ(stream.TakeThrough("\r\n\r\n").rfind("HTTP/1.1 200 OK\r\n", 0), 0u);
    server->PublishEvent("created", "{}");
    EXPECT_TRUE(stream.ReadUntil("event: created\ndata: {}\n\n"));
}

TEST_F(HttpServerTest, TlsPortClosesPlainHttpAndOldProtocolsAndBadFilesFailStart) {
    TestCertificate certificate;
    auto options = Options();
    options.tlsCertFile = certificate.certFile;
    options.tlsKeyFile = certificate.keyFile;
    StartServer(options);

    Client plain(server->Port());
    ASSERT_TRUE(plain.Send(Request("GET", "/x")));
    EXPECT_TRUE(plain.ReadUntilClosed());
    EXPECT_EQ(plain.received.find("HTTP/1.1"), std::string::npos);

    Client old(server->Port());
    EXPECT_FALSE(old.StartTls(certificate.certFile, TLS1_1_VERSION));
    EXPECT_EQ(handled, 0);

    options.port = 0;
    options.tlsKeyFile = certificate.dir + "/missing.pem";
    HttpServer broken(options, [](const HttpRequest&) { return HttpResponse{}; });
    try {
        broken.Start();
        FAIL() << "started without its key";
    } catch (const Ny::Exception& e) {
        // A setting to correct, not a state that passes (unlike a port in use, below).
        EXPECT_EQ(e.Status(), Ny::Status::InvalidValue);
    }
}

TEST_F(HttpServerTest, StartFailsWithNyExceptionWhenThePortIsTaken) {
    StartServer();
    auto options = Options();
    options.port = server->Port();
    HttpServer second(options, [](const HttpRequest&) { return HttpResponse{}; });
    try {
        second.Start();
        FAIL() << "bound a port already in use";
    } catch (const Ny::Exception& e) {
        EXPECT_EQ(e.Status(), 0);
        EXPECT_NE(e.Message().find("Listening on 127.0.0.1:" + std::to_string(server->Port()) + " failed"),
                  std::string::npos);
    }
}

}  // namespace
