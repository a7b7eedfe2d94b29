// Concurrency soak over real HTTP: eight clients with the token do random creations, reads, parameter
// writes (valid and refused), continues, aborts, deletions, delete-all and factory restores for a
// bounded time (NYR_SOAK_SECONDS, 20 by default; run it longer by hand), while hostile clients from
// another loopback address send slowly, too much, garbage, no token, a foreign Host and bytes that are
// not text. Then: no 5xx reply and no refusal for the good clients, every request answered within its
// time-out, every creation returned, no hostile request served, nothing left after a final delete-all,
// the event stream consistent with what was created, and the host's memory back near where it started.
#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <map>
#include <mutex>
#include <random>
#include <set>
#include <sstream>
#include <thread>

#include "HostProcess.h"

namespace {

using nlohmann::json;
using NyTest::HostProcess;
using NyTest::HttpConnection;

// The hostile clients connect from another loopback address, as another machine would.
const std::string kHostileAddress = "127.0.0.2";
constexpr unsigned kHostileKinds = 6;

// One attack of the given kind; returns the status it got (0: none, the connection closed).
int Attack(HostProcess& host, unsigned kind) {
    HttpConnection connection(host.Port(), std::chrono::seconds(5), kHostileAddress);
    const std::string hostLine = host.HostHeader() + "\r\n";
    switch (kind) {
        case 0: {
            // Slow: a request line a few bytes at a time, abandoned before it ends.
            const std::string start = "GET /routines HTTP/1.1\r\n" + hostLine;
            for (size_t i = 0; i < start.size(); i += 8) {
                connection.SendRaw(start.substr(i, 8));
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
            }
            return 0;
        }
        case 1:  // oversized body, then an oversized header
            connection.SendRaw("POST /routines HTTP/1.1\r\n" + hostLine +
                               "Content-Length: 100000000\r\n\r\n{");
            return connection.ReadReply().status;
        case 2: {
            // Malformed: bytes that are no request.
            std::string garbage(512, '\0');
            for (size_t i = 0; i < garbage.size(); ++i) {
                garbage[i] = static_cast<char>((i * 131 + 7) % 256);
            }
            connection.SendRaw(garbage + "\r\n\r\n");
            return connection.ReadReply().status;
        }
        case 3:  // no token: refused, and soon slowed down, for this address only
            connection.SendRaw("DELETE /routines/* HTTP/1.1\r\n" + hostLine +
                               "Authorization: Bearer guess\r\n\r\n");
            return connection.ReadReply().status;
        case 4:  // a foreign Host, as a rebound web page sends it
            connection.SendRaw("DELETE /routines/* HTTP/1.1\r\nHost: evil.example:" +
                               std::to_string(host.Port()) + "\r\n\r\n");
            return connection.ReadReply().status;
        default:  // not text, with a token it does not have
            connection.SendRaw("POST /routines HTTP/1.1\r\n" + hostLine +
                               "Content-Length: 14\r\n\r\n{\"type\":\"\xff\xfe\"}");
            return connection.ReadReply().status;
    }
}

TEST(Soak, RandomTrafficFromEightClientsLeavesTheHostHealthy) {
    const char* configured = std::getenv("NYR_SOAK_SECONDS");
    const int seconds = configured != nullptr ? std::atoi(configured) : 20;
    const std::string token = "soak-token-0123456789";
    HostProcess host({"--token", token});
    host.SendAlways("Authorization: Bearer " + token);

    // The event stream, read to the end of the test on a thread of its own.
    std::string stream;
    // The deletion event of one last routine marks the end of the traffic: events come in order, so
    // once it arrived every event before it did, and the host may stop.
    std::mutex endMarkMutex;
    std::string endMark;
    std::thread watcher([&] {
        HttpConnection events(host.Port(), std::chrono::seconds(seconds + 60));
        events.SendRaw("GET /events HTTP/1.1\r\n" + host.HostHeader() + "\r\nAuthorization: Bearer " + token +
                       "\r\n\r\n");
        stream = events.ReadUntil([&](const std::string& data) {
            std::lock_guard guard(endMarkMutex);
            return !endMark.empty() && data.find(endMark) != std::string::npos;
        });
    });

    // Warm up so that the memory baseline includes the pools the host keeps.
    for (int i = 0; i < 20; ++i) {
        host.Request("POST", "/routines", json{{"type", "SelfTest"}});
        host.Request("GET", "/routines/SelfTest-" + std::to_string(i) + "?schema=true");
        host.Request("DELETE", "/routines/*");
    }
    const long startKiB = host.ResidentKiB();

    std::atomic<int> requests{0};
    std::atomic<int> serverErrors{0};
    std::atomic<int> unanswered{0};
    std::atomic<int> refusedGood{0};
    std::atomic<int> hostileRequests{0};
    std::atomic<int> hostileServed{0};
    std::mutex statusesMutex;
    std::map<int, int> statuses;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
    auto client = [&](unsigned seed) {
        std::mt19937 random(seed);
        while (std::chrono::steady_clock::now() < deadline) {
            json list;
            try {
                list = host.Request("GET", "/routines").Json();
            } catch (const std::exception&) {
                ++unanswered;  // a reply that is not JSON: the host broke off
                continue;
            }
            std::string path = "/routines/none-0";
            if (list.is_object() && !list["_embedded"]["item"].empty()) {
                const auto& items = list["_embedded"]["item"];
                path = items[random() % items.size()]["_links"]["self"]["href"];
            }
            NyTest::HttpReply reply;
            const auto choice = random() % 12;
            const auto sent = std::chrono::steady_clock::now();
            switch (choice) {
                case 0:
                case 1:
                    reply = host.Request("POST", "/routines",
                                         json{{"type", random() % 2 ? "SelfTest" : "Calibration"}});
                    break;
                case 2:
                    reply = host.Request("GET", path + (random() % 2 ? "?schema=true" : ""));
                    break;
                case 3:
                    reply =
                        host.Request("PATCH", path,
                                     json{{"parameters", {{"samples", random() % 1500}, {"label", "soak"}}}});
                    break;
                case 4:
                case 5:
                    reply = host.Request("POST", path + "/commands/continue");
                    break;
                case 6:
                    reply = host.Request("POST", path + "/commands/abort");
                    break;
                case 7:
                    reply = host.Request("DELETE", path);
                    break;
                case 8:
                    reply = host.Request("DELETE", "/routines/*");
                    break;
                case 9:
                    reply = random() % 4 == 0 ? host.Request("POST", "/system/commands/factoryRestore")
                                              : host.Request("GET", "/routineTypes?schema=true");
                    break;
                default:
                    reply = host.Request("GET", path);
                    break;
            }
            ++requests;
            if (reply.status == 0) {
                ++unanswered;
                std::printf("unanswered: choice %u on %s after %lld ms\n", static_cast<unsigned>(choice),
                            path.c_str(),
                            static_cast<long long>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                       std::chrono::steady_clock::now() - sent)
                                                       .count()));
            } else if (reply.status >= 500) {
                ++serverErrors;
            } else if (reply.status == 401 || reply.status == 421 || reply.status == 429) {
                ++refusedGood;  // the hostile clients' refusals must not spill over to the good ones
            }
            std::lock_guard guard(statusesMutex);
            ++statuses[reply.status];
        }
    };
    std::vector<std::thread> clients;
    for (unsigned i = 0; i < 8; ++i) {
        clients.emplace_back(client, 100 + i);
    }
    std::vector<std::thread> hostile;
    for (unsigned i = 0; i < kHostileKinds; ++i) {
        hostile.emplace_back([&, i] {
            while (std::chrono::steady_clock::now() < deadline) {
                int status = 0;
                try {
                    status = Attack(host, i);
                } catch (const std::exception&) {
                    // Refused at connect (the connection cap): that is a defence, not a failure.
                }
                ++hostileRequests;
                if (status >= 200 && status < 300) {
                    ++hostileServed;
                }
            }
        });
    }
    // A creation waiting for its continue is released by the continues and deletions of the others.
    // Once the others have stopped, nobody would continue the last one: clear until every client is done.
    std::this_thread::sleep_until(deadline);
    for (auto& thread : hostile) {
        thread.join();
    }
    for (auto& thread : clients) {
        auto done = std::async(std::launch::async, [&thread] { thread.join(); });
        while (done.wait_for(std::chrono::milliseconds(100)) != std::future_status::ready) {
            host.Request("DELETE", "/routines/*");
        }
    }
    EXPECT_EQ(host.Request("DELETE", "/routines/*").status, 204);
    EXPECT_EQ(host.Request("GET", "/routines").body, "null");
    const long endKiB = host.ResidentKiB();

    const auto last = host.Request("POST", "/routines", json{{"type", "SelfTest"}});
    ASSERT_EQ(last.status, 201) << last.body;
    const std::string lastPath = last.Json()["path"];
    {
        std::lock_guard guard(endMarkMutex);
        endMark = "{\"type\":\"deleted\",\"path\":\"" + lastPath + "\"}";
    }
    EXPECT_EQ(host.Request("DELETE", lastPath).status, 204);
    auto watched = std::async(std::launch::async, [&watcher] { watcher.join(); });
    EXPECT_EQ(watched.wait_for(std::chrono::seconds(30)), std::future_status::ready)
        << "the last routine's deletion never reached the event stream";
    EXPECT_EQ(host.Terminate(std::chrono::seconds(10)), 0);  // a clean exit, and no leak reported
    watched.wait();

    std::ostringstream summary;
    for (const auto& [status, count] : statuses) {
        summary << status << ":" << count << " ";
    }
    std::printf("soak: %d requests in %d s (%s), %d hostile, RSS %ld -> %ld KiB\n", requests.load(), seconds,
                summary.str().c_str(), hostileRequests.load(), startKiB, endKiB);
    EXPECT_GT(requests.load(), 100);
    EXPECT_GT(hostileRequests.load(), 10);
    EXPECT_EQ(hostileServed.load(), 0);
    EXPECT_EQ(refusedGood.load(), 0);
    EXPECT_EQ(serverErrors.load(), 0);
    EXPECT_EQ(unanswered.load(), 0);
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
    // Sanitizers keep freed memory in quarantine and shadow it: the resident size says nothing here.
    // Leaks are caught instead by LeakSanitizer when the host exits (a non-zero exit status).
    static_cast<void>(endKiB);
#else
    EXPECT_LT(endKiB, startKiB + 32 * 1024) << "the host's memory grew";
#endif

    // Every routine created was deleted, or cleared by a delete-all or factory restore, afterwards.
    std::set<std::string> live;
    for (size_t at = 0; (at = stream.find("data: ", at)) != std::string::npos; ++at) {
        const json event = json::parse(stream.substr(at + 6, stream.find('\n', at) - at - 6));
        const std::string path = event["path"];
        if (event["type"] == "created") {
            live.insert(path);
        } else if (event["type"] == "deleted") {
            live.erase(path);
        } else if (path == "/routines") {
            live.clear();
        }
    }
    EXPECT_TRUE(live.empty()) << "no deletion seen for " << *live.begin();
}

}  // namespace
