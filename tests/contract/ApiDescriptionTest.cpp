// The OpenAPI document as the real host serves it: the very document of the source tree, as an ordinary
// read-only API resource behind the same request policy as every other.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "HostProcess.h"

using nlohmann::json;
using NyTest::HostProcess;

namespace {

json SourceDocument() {
    std::ifstream in(NYR_OPENAPI_DOCUMENT);
    std::stringstream text;
    text << in.rdbuf();
    return json::parse(text.str());
}

}  // namespace

TEST(ApiDescription, HostServesTheDocumentItWasBuiltFrom) {
    HostProcess host;
    const auto reply = host.Request("GET", "/openapi.json");
    ASSERT_EQ(reply.status, 200) << reply.body;
    EXPECT_EQ(reply.Header("Content-Type"), "application/json");
    EXPECT_EQ(reply.Header("Cache-Control"), "no-store");
    EXPECT_EQ(reply.Json(), SourceDocument());
    EXPECT_EQ(reply.Json()["openapi"], "3.1.0");
}

TEST(ApiDescription, DocumentIsReadOnly) {
    HostProcess host;
    for (const char* method : {"PUT", "PATCH"}) {
        const auto reply = host.Request(method, "/openapi.json", json{{"openapi", "3.0.0"}});
        EXPECT_EQ(reply.status, 405) << method;
        EXPECT_EQ(reply.Json()["status"], -405) << method;
    }
    for (const char* method : {"POST", "DELETE"}) {
        const auto reply = host.Request(method, "/openapi.json");
        EXPECT_EQ(reply.status, 405) << method;
        EXPECT_EQ(reply.Header("Allow"), "GET, PUT, PATCH") << method;
    }
    EXPECT_EQ(host.Request("GET", "/openapi.json").Json(), SourceDocument());
}

// The description names every path and how to reach it: with a token configured, it is no more public
// than the API it describes.
TEST(ApiDescription, DocumentNeedsTheTokenLikeEveryApiPath) {
    const std::string token = "contract-test-token";
    HostProcess host({}, {"NYR_TOKEN=" + token});
    const auto refused = host.Request("GET", "/openapi.json");
    EXPECT_EQ(refused.status, 401);
    EXPECT_EQ(refused.Header("WWW-Authenticate"), "Bearer");
    EXPECT_EQ(refused.body.find("paths"), std::string::npos);
    EXPECT_EQ(host.Request("GET", "/openapi.json", "", {"Authorization: Bearer wrong-token"}).status, 401);
    EXPECT_EQ(host.Request("GET", "/openapi.json", "", {"Authorization: Bearer " + token}).status, 200);
}

// The operations the other host tests do not reach, each answered as the document says; the contract
// check then holds every reply to the documented shape. One request per documented operation.
TEST(ApiDescription, OperationsOutsideTheFlowsAnswerAsDocumented) {
    HostProcess host;
    struct Case {
        const char* method;
        std::string target;
        std::string body;
        int status;
    };
    const std::vector<Case> cases = {
        {"PUT", "/routineTypes", "{}", 405},
        {"PATCH", "/routineTypes", "{}", 405},
        {"PUT", "/routines", "{}", 400},  // the collection has no document to write
        {"PATCH", "/routines", "{}", 400},
        {"DELETE", "/routines", "", 400},  // every routine is "/routines/*"
        {"POST", "/routines/none/commands/abort", "", 404},
        {"GET", "/index.html", "", 200},
        {"GET", "/web/app.js", "", 200},
        {"GET", "/web/style.css", "", 200},
        {"GET", "/web/missing.js", "", 404},
    };
    for (const auto& c : cases) {
        EXPECT_EQ(host.Request(c.method, c.target, c.body).status, c.status) << c.method << " " << c.target;
    }
    ASSERT_EQ(host.Request("POST", "/routines", json{{"type", "SelfTest"}}).status, 201);
    EXPECT_EQ(host.Request("POST", "/routines/SelfTest-0/commands/abort").status, 200);

    // A cross-origin client asks first; the policy answers for every API path alike.
    const std::string origin = "Origin: http://127.0.0.1:" + std::to_string(host.Port());
    for (const char* path :
         {"/routineTypes", "/routines/SelfTest-0/commands/continue", "/routines/SelfTest-0/commands/abort",
          "/events", "/system", "/system/commands/factoryRestore", "/plugins", "/openapi.json"}) {
        const auto preflight =
            host.Request("OPTIONS", path, "", {origin, "Access-Control-Request-Method: POST"});
        EXPECT_EQ(preflight.status, 204) << path;
        EXPECT_FALSE(preflight.Header("Access-Control-Allow-Methods").empty()) << path;
    }
}
