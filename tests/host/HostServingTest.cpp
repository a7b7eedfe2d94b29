// What the host asks of its transport, seen from outside: requests that wait for a person never starve
// the others, a shut-down answers every request it received, and HTTPS serves the console's API with a
// certificate made here.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <future>

#include "HostProcess.h"
#include "Sync.h"

namespace {

using nlohmann::json;
using NyTest::Eventually;
using NyTest::HostProcess;
using NyTest::HttpConnection;

// The router matches decoded segments and ignores empty ones, so every spelling that reaches the creation
// must take the waiting lane too.
TEST(HostServing, OneWorkerServesAWaitingCalibrationItsContinueAndItsDeletion) {
    for (const std::string path : {"/routines", "//routines", "/%72outines"}) {
        SCOPED_TRACE(path);
        HostProcess host({"--workers", "1"});
        auto creation = std::async(std::launch::async, [&] {
            return host.Request("POST", path, json{{"type", "Calibration"}});
        });
        ASSERT_TRUE(Eventually([&] { return host.RoutineState("Calibration-0") == 2; }));
        EXPECT_EQ(host.Request("POST", "/routines/Calibration-0/commands/continue").status, 200);
        ASSERT_EQ(creation.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_EQ(creation.get().status, 201);
        EXPECT_EQ(host.Request("DELETE", "/routines/Calibration-0").status, 204);
        EXPECT_EQ(host.Request("GET", "/routines").body, "null");
    }
}

TEST(HostServing, ShutdownRepliesToEveryRequestItReceived) {
    HostProcess host;
    constexpr int kClients = 50;
    std::vector<std::unique_ptr<HttpConnection>> connections;
    const std::string body = json{{"type", "SelfTest"}}.dump();
    for (int i = 0; i < kClients; ++i) {
        connections.push_back(std::make_unique<HttpConnection>(host.Port()));
    }
    // Every connection is accepted and served once, so that the burst below lands on open connections.
    for (auto& connection : connections) {
        connection->SendRaw("GET /routineTypes HTTP/1.1\r\n" + host.HostHeader() + "\r\n\r\n");
        ASSERT_EQ(connection->ReadReply().status, 200);
    }
    for (auto& connection : connections) {
        connection->SendRaw("POST /routines HTTP/1.1\r\n" + host.HostHeader() +
                            "\r\nContent-Type: application/json\r\nContent-Length: " +
                            std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    // The signal follows the burst at once: requests still queued must be answered (503), not dropped.
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(host.Terminate(std::chrono::seconds(10)), 0);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(2));
    int replies = 0;
    for (auto& connection : connections) {
        const auto reply = connection->ReadReply();
        replies += reply.status != 0 ? 1 : 0;
    }
    EXPECT_EQ(replies, kClients);
}

// Runs a shell command and returns its output and whether it succeeded.
std::pair<bool, std::string> Shell(const std::string& command) {
    std::string output;
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    if (pipe == nullptr) {
        return {false, ""};
    }
    char buffer[4096];
    size_t n = 0;
    while ((n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0) {
        output.append(buffer, n);
    }
    return {pclose(pipe) == 0, output};
}

TEST(HostServing, ServesHttpsWithTheGivenCertificate) {
    if (!Shell("command -v openssl && command -v curl").first) {
        GTEST_SKIP() << "openssl or curl is not installed";
    }
    char folderName[] = "/tmp/host-tls-XXXXXX";
    ASSERT_NE(mkdtemp(folderName), nullptr);
    const std::filesystem::path folder = folderName;
    const std::string cert = (folder / "cert.pem").string();
    const std::string key = (folder / "key.pem").string();
    const auto made = Shell(
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=localhost "
        "-addext subjectAltName=DNS:localhost,IP:127.0.0.1 -keyout " +
        key + " -out " + cert);
    ASSERT_TRUE(made.first) << made.second;
    {
        HostProcess host({"--tls-cert", cert, "--tls-key", key});
        const std::string url = "https://127.0.0.1:" + std::to_string(host.Port()) + "/routineTypes";
        const auto read = Shell("curl -sS --max-time 10 --cacert " + cert + " " + url);
        EXPECT_TRUE(read.first) << read.second;
        EXPECT_NE(read.second.find("SelfTest"), std::string::npos) << read.second;
        // Plain HTTP on the TLS port gets no API reply.
        EXPECT_NE(host.Request("GET", "/routineTypes").status, 200);
    }
    std::filesystem::remove_all(folder);
}

}  // namespace
