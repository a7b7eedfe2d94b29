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
std::unique_ptr<Client> OpenStream(std::uint16_t port, int receiveBuffer = 0) {
    auto client = std::make_unique<Client>(port, receiveBuffer);
    EXPECT_TRUE(client->Send(Request("GET", "/events")));
    const std::string header = client->TakeThrough("\r\n\r\n");
    EXPECT_EQ(header.rfind("HTTP/1.1 200 OK\r\n", 0), 0u) << header;
    EXPECT_NE(header.find("Content-Type: text/event-stream\r\n"), std::string::npos) << header;
    EXPECT_NE(header.find("Cache-Control: no-cache\r\n"), std::string::npos) << header;
    EXPECT_NE(header.find("X-Content-Type-Options: nosniff\r\n"), std::string::npos) << header;
    return client;
}

TEST_F(HttpServerTest, EventStreamCarriesExactFramesInPublishedOrder) {
    StartServer();
    auto stream = OpenStream(server->Port());
    server->PublishEvent("created", R"({"type":"created","path":"/routines/A-0"})");
    server->PublishEvent("updated", R"({"type":"updated","path":"/routines/A-0"})");
    server->PublishEvent("note", "two\nlines");
    server->PublishEvent("deleted", R"({"type":"deleted","path":"/routines/A-0"})");
    const std::string expected =
        "event: created\ndata: {\"type\":\"created\",\"path\":\"/routines/A-0\"}\n\n"
        "event: updated\ndata: {\"type\":\"updated\",\"path\":\"/routines/A-0\"}\n\n"
        "event: note\ndata: two\ndata: lines\n\n"
        "event: deleted\ndata: {\"type\":\"deleted\",\"path\":\"/routines/A-0\"}\n\n";
    EXPECT_EQ(stream->TakeThrough("\"deleted\",\"path\":\"/routines/A-0\"}\n\n"), expected);
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
        const std::string frames = client->TakeThrough("event: end\ndata: \n\n");
        ASSERT_FALSE(frames.empty());
        std::vector<int> next(kThreads, 0);
        std::size_t pos = 0;
        while (frames.compare(pos, 9, "event: e\n") == 0) {
            const std::size_t end = frames.find("\n\n", pos);
            int thread = -1;
            int index = -1;
            ASSERT_EQ(std::sscanf(frames.c_str() + pos, "event: e\ndata: %d %d", &thread, &index), 2);
            ASSERT_GE(thread, 0);
            ASSERT_LT(thread, kThreads);
            EXPECT_EQ(index, next[thread]++);
            pos = end + 2;
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
    std::size_t pos = 0;
    for (int expected = 0; expected < sequence; ++expected) {
        const std::string frame = "event: e\ndata: " + std::to_string(expected) + " ";
        ASSERT_EQ(fast->received.compare(pos, frame.size(), frame), 0) << "frame " << expected;
        pos = fast->received.find("\n\n", pos) + 2;
    }
    // The slow client got a prefix of the stream, then the server closed it.
    EXPECT_TRUE(slow->ReadUntilClosed());
    EXPECT_EQ(slow->received.rfind("event: e\ndata: 0 ", 0), 0u);
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
        EXPECT_EQ(e.Status(), 0);
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
