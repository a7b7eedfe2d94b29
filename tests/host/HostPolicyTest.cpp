// The host's policy at its HTTP edge, attacked over loopback as a hostile client or a foreign web page
// would: bytes that are not text, a Host that names another server, foreign origins, guessed tokens,
// numbers outside their domain, and options that would expose the port unprotected.
#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>

#include "HostProcess.h"

namespace {

using nlohmann::json;
using NyTest::HostProcess;
using NyTest::HttpConnection;
using NyTest::RunHostToExit;

const std::string kToken = "0123456789abcdef-token";

std::string TemporaryFileWith(const std::string& content) {
    char name[] = "/tmp/host-token-XXXXXX";
    const int fd = mkstemp(name);
    EXPECT_GE(fd, 0);
    ::close(fd);
    std::ofstream(name) << content;
    return name;
}

TEST(HostPolicy, BytesThatAreNotTextNeverEndTheProcess) {
    HostProcess host;
    const auto refused = host.Request("GET", "/routineTypes", "", {"Origin: http://evil\xff.example"});
    // The transport refuses a header that is not UTF-8 before the policy sees it.
    EXPECT_EQ(refused.status, 400);
    EXPECT_EQ(refused.body.find('\xff'), std::string::npos);  // the reply is not built from the header
    EXPECT_NO_THROW(refused.Json());

    for (const char* method : {"POST", "PUT"}) {
        const std::string target = std::string(method) == "POST" ? "/routines" : "/routines/SelfTest-0";
        const auto reply = host.Request(method, target, std::string("{\"type\":\"Self\xffTest\"}"));
        EXPECT_EQ(reply.status, 400) << method;
        EXPECT_EQ(reply.Json()["message"], "The request body is not valid UTF-8.") << method;
        EXPECT_EQ(reply.Json()["status"], -997) << method;  // as the engine's own 400s
    }
    const auto decoded = host.Request("GET", "/routines/%FF");
    EXPECT_GE(decoded.status, 400);
    EXPECT_LT(decoded.status, 500);
    EXPECT_NO_THROW(decoded.Json());
    const auto raw = host.Request("GET", "/routines/\xfe\xff");
    EXPECT_GE(raw.status, 400);
    EXPECT_LT(raw.status, 500);
    EXPECT_EQ(host.Request("GET", "/routineTypes").status, 200);
}

TEST(HostPolicy, HostHeaderMustNameThisServer) {
    HostProcess host({"--allow-host", "device.example", "--allow-host", "proxy.example:9443"});
    const std::string port = std::to_string(host.Port());
    // DNS rebinding: a foreign name that resolves to us, with an Origin that matches it.
    const std::vector<std::string> rebound = {"Host: evil.example:" + port,
                                              "Origin: http://evil.example:" + port};
    const auto creation = host.Request("POST", "/routines", json{{"type", "SelfTest"}}.dump(), rebound);
    EXPECT_EQ(creation.status, 421);
    EXPECT_EQ(creation.Header("Content-Type"), "application/json");
    EXPECT_EQ(host.Request("DELETE", "/routines/*", "", rebound).status, 421);
    EXPECT_EQ(host.Request("GET", "/", "", rebound).status, 421);
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: localhost"}).status, 421);  // no port
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: 127.0.0.1:1"}).status, 421);

    for (const std::string& name : std::vector<std::string>{
             "127.0.0.1:" + port, "localhost:" + port, "LOCALHOST:" + port, "[::1]:" + port,
             "device.example:" + port, "device.example", "proxy.example:9443"}) {
        EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: " + name}).status, 200) << name;
        EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: " + name, "Origin: http://" + name}).status,
                  200)
            << name;
    }
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: proxy.example:" + port}).status, 421);
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Origin: http://device.example:" + port}).status, 403);
    EXPECT_EQ(host.Request("GET", "/routines").status, 200);
}

TEST(HostPolicy, AllowedOriginGetsCorsAndOthersStayRefused) {
    const std::string console = "http://console.example:3000";
    HostProcess host({"--allow-origin", console, "--token", kToken});
    const auto preflight = host.Request("OPTIONS", "/routines/*", "",
                                        {"Origin: " + console, "Access-Control-Request-Method: DELETE",
                                         "Access-Control-Request-Headers: authorization, content-type"});
    EXPECT_EQ(preflight.status, 204);  // without the token: a browser never sends it on a preflight
    EXPECT_EQ(preflight.Header("Access-Control-Allow-Origin"), console);
    EXPECT_NE(preflight.Header("Access-Control-Allow-Methods").find("DELETE"), std::string::npos);
    EXPECT_NE(preflight.Header("Access-Control-Allow-Headers").find("Authorization"), std::string::npos);
    EXPECT_NE(preflight.Header("Access-Control-Allow-Headers").find("Content-Type"), std::string::npos);
    EXPECT_FALSE(preflight.Header("Access-Control-Max-Age").empty());
    EXPECT_NE(preflight.Header("Vary").find("Origin"), std::string::npos);

    const auto read =
        host.Request("GET", "/routineTypes", "", {"Origin: " + console, "Authorization: Bearer " + kToken});
    EXPECT_EQ(read.status, 200);
    EXPECT_EQ(read.Header("Access-Control-Allow-Origin"), console);
    EXPECT_NE(read.Header("Vary").find("Origin"), std::string::npos);
    // The refusal too carries the header, so that the page can read why.
    const auto unauthenticated = host.Request("GET", "/routineTypes", "", {"Origin: " + console});
    EXPECT_EQ(unauthenticated.status, 401);
    EXPECT_EQ(unauthenticated.Header("Access-Control-Allow-Origin"), console);

    const std::string other = "http://evil.example";
    EXPECT_EQ(
        host.Request("OPTIONS", "/routines", "", {"Origin: " + other, "Access-Control-Request-Method: POST"})
            .status,
        403);
    const auto foreign =
        host.Request("GET", "/routineTypes", "", {"Origin: " + other, "Authorization: Bearer " + kToken});
    EXPECT_EQ(foreign.status, 403);
    EXPECT_TRUE(foreign.Header("Access-Control-Allow-Origin").empty());
}

TEST(HostPolicy, TokenComesFromFileOrEnvironmentAndTheSchemeIgnoresCase) {
    const std::string file = TemporaryFileWith(kToken + "\n");
    {
        HostProcess host({"--token-file", file});
        EXPECT_EQ(host.Request("GET", "/routines").status, 401);
        for (const std::string& scheme : std::vector<std::string>{"Bearer", "bearer", "BEARER"}) {
            EXPECT_EQ(
                host.Request("GET", "/routines", "", {"Authorization: " + scheme + " " + kToken}).status, 200)
                << scheme;
        }
        EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: Basic " + kToken}).status, 401);
        EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: Bearer" + kToken}).status, 401);
    }
    {
        HostProcess host({}, {"NYR_TOKEN=" + kToken});
        EXPECT_EQ(host.Request("GET", "/routines").status, 401);
        EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: bearer " + kToken}).status, 200);
    }
    {
        HostProcess host({"--token", kToken, "--log-level", "info"});
        EXPECT_NE(host.Log().find("visible to local users"), std::string::npos) << host.Log();
    }
    std::remove(file.c_str());

    const auto shortToken = RunHostToExit({"--token", "s3cret"});
    EXPECT_EQ(shortToken.status, 2);
    EXPECT_NE(shortToken.output.find("at least 16 characters"), std::string::npos) << shortToken.output;
    EXPECT_EQ(RunHostToExit({}, {"NYR_TOKEN=short"}).status, 2);
    const auto missing = RunHostToExit({"--token-file", "/nonexistent/token"});
    EXPECT_EQ(missing.status, 2);
    EXPECT_NE(missing.output.find("/nonexistent/token"), std::string::npos) << missing.output;
}

TEST(HostPolicy, RepeatedGuessesAreSlowedAndLoggedWithThePeer) {
    HostProcess host({"--token", kToken, "--log-level", "info"});
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(
            host.Request("GET", "/routines", "", {"Authorization: Bearer guess" + std::to_string(i)}).status,
            401);
    }
    const auto slowed = host.Request("GET", "/routines", "", {"Authorization: Bearer guess"});
    EXPECT_EQ(slowed.status, 429);
    EXPECT_FALSE(slowed.Header("Retry-After").empty());
    // Within the minute even the right token waits: a guess that happens to be right is no faster.
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Authorization: Bearer " + kToken}).status, 429);
    // The console's files hold no secret and stay reachable.
    EXPECT_EQ(host.Request("GET", "/").status, 200);

    const std::string log = host.Log();
    size_t lines = 0;
    for (size_t at = log.find("refused"); at != std::string::npos; at = log.find("refused", at + 1)) {
        ++lines;
    }
    EXPECT_GE(lines, 1u) << log;
    EXPECT_LE(lines, 2u) << log;  // one line per address and period, not one per attempt
    EXPECT_NE(log.find("127.0.0.1"), std::string::npos) << log;
}

TEST(HostPolicy, StateChangesWriteOneAuditLineThatCannotBreakTheLog) {
    HostProcess host({"--token", kToken, "--log-level", "info"});
    const std::string auth = "Authorization: Bearer " + kToken;
    EXPECT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}.dump(), {auth}).status, 201);
    EXPECT_EQ(host.Request("DELETE", "/routines/none%0D%0Aforged%20audit", "", {auth}).status, 404);
    EXPECT_EQ(host.Request("PUT", "/system", json{{"runState", 0}}.dump()).status, 401);
    EXPECT_EQ(host.Request("GET", "/routines", "", {auth}).status, 200);  // reads are not audited

    const std::string log = host.Log();
    std::vector<std::string> audits;
    for (size_t start = 0; start < log.size();) {
        const size_t end = log.find('\n', start);
        const std::string line = log.substr(start, end - start);
        if (line.find("audit") != std::string::npos) {
            audits.push_back(line);
        }
        start = end == std::string::npos ? log.size() : end + 1;
    }
    ASSERT_EQ(audits.size(), 3u) << log;
    EXPECT_NE(audits[0].find("127.0.0.1"), std::string::npos);
    EXPECT_NE(audits[0].find("POST /routines"), std::string::npos);
    EXPECT_NE(audits[0].find("201"), std::string::npos);
    EXPECT_NE(audits[0].find(" authenticated"), std::string::npos);
    EXPECT_NE(audits[1].find("404"), std::string::npos);
    EXPECT_EQ(log.find("\nforged"), std::string::npos);
    EXPECT_NE(audits[2].find("unauthenticated"), std::string::npos);
    EXPECT_NE(audits[2].find("401"), std::string::npos);
}

TEST(HostPolicy, ApiAndConsoleRepliesCarryTheirSecurityHeaders) {
    HostProcess host;
    for (const char* target : {"/routineTypes", "/nowhere"}) {
        EXPECT_EQ(host.Request("GET", target).Header("Cache-Control"), "no-store") << target;
    }
    EXPECT_EQ(host.Request("GET", "/routines", "", {"Host: evil.example"}).Header("Cache-Control"),
              "no-store");
    const auto page = host.Request("GET", "/");
    EXPECT_EQ(page.Header("Content-Security-Policy"), "default-src 'self'; frame-ancestors 'none'");
    EXPECT_EQ(page.Header("Referrer-Policy"), "no-referrer");
}

TEST(HostPolicy, RunStateOutsideTheCoresRangeIsRefused) {
    HostProcess host;
    EXPECT_EQ(host.Request("PUT", "/system", json{{"runState", 1}}).status, 204);
    for (const std::string& value : std::vector<std::string>{"2147483648", "-1", "1.5", "\"1\"", "true",
                                                             "null", "1e3", "18446744073709551615"}) {
        const auto reply = host.Request("PUT", "/system", "{\"runState\":" + value + "}");
        EXPECT_EQ(reply.status, 400) << value;
        EXPECT_NE(reply.Json()["message"].get<std::string>().find("runState"), std::string::npos) << value;
    }
    EXPECT_EQ(host.Request("PATCH", "/system", json{{"runState", 2147483647}}).status, 204);
    EXPECT_EQ(host.Request("GET", "/system").Json()["runState"], 2147483647);
}

TEST(HostPolicy, OptionsThatWouldExposeThePortAreRefusedAtStart) {
    struct Case {
        std::vector<std::string> arguments;
        const char* says;
    };
    const std::string tokenFile = TemporaryFileWith(kToken);
    const Case cases[] = {
        {{"--tls-cert", "/tmp/cert.pem"}, "--tls-key"},
        {{"--tls-key", "/tmp/key.pem"}, "--tls-cert"},
        {{"--max-connections", "0"}, "--max-connections"},
        {{"--allow-host", ""}, "--allow-host"},
        {{"--listen", "0.0.0.0:0"}, "TLS"},
        {{"--listen", "0.0.0.0:0", "--token-file", tokenFile}, "TLS"},
        {{"--listen", "0.0.0.0:0", "--tls-cert", "/tmp/c.pem", "--tls-key", "/tmp/k.pem"}, "token"},
    };
    for (const Case& c : cases) {
        const auto exit = RunHostToExit(c.arguments);
        EXPECT_EQ(exit.status, 2) << c.arguments[0];
        EXPECT_NE(exit.output.find(c.says), std::string::npos) << exit.output;
    }
    std::remove(tokenFile.c_str());
}

// A setting found unusable only while starting exits with the same status as a refused option (2),
// which the service unit does not retry; a failure that may pass, such as a port still in use, exits 1
// and is retried.
TEST(HostPolicy, SettingsFoundUnusableAtStartAreRefusedAndAPortInUseIsNot) {
    const std::string notPem = TemporaryFileWith("not a certificate\n");
    struct Case {
        std::vector<std::string> arguments;
        const char* says;
    };
    const Case cases[] = {
        {{"--tls-cert", "/nonexistent/cert.pem", "--tls-key", "/nonexistent/key.pem"},
         "/nonexistent/cert.pem"},
        {{"--tls-cert", notPem, "--tls-key", notPem}, notPem.c_str()},
        {{"--listen", "localhost:0"}, "not an IP address"},
    };
    for (const Case& c : cases) {
        const auto exit = RunHostToExit(c.arguments);
        EXPECT_EQ(exit.status, 2) << c.arguments[1] << "\n" << exit.output;
        EXPECT_NE(exit.output.find(c.says), std::string::npos) << exit.output;
    }
    std::remove(notPem.c_str());

    const int taken = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ASSERT_EQ(::bind(taken, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(::listen(taken, 1), 0);
    socklen_t length = sizeof address;
    ASSERT_EQ(::getsockname(taken, reinterpret_cast<sockaddr*>(&address), &length), 0);
    const auto inUse = RunHostToExit({"--listen", "127.0.0.1:" + std::to_string(ntohs(address.sin_port))});
    ::close(taken);
    EXPECT_EQ(inUse.status, 1) << inUse.output;
    EXPECT_NE(inUse.output.find("cannot start: Listening on 127.0.0.1:"), std::string::npos) << inUse.output;
}

}  // namespace
