// The OpenAPI document as the real host serves it: the very document of the source tree, as an ordinary
// read-only API resource behind the same request policy as every other.
#include <gtest/gtest.h>

#include <fstream>
#include <sstream>
#include <string>

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
