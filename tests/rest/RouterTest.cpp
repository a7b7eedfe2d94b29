// The REST router in-process: matching, verbs, HAL embedding, error replies, notifications and
// deregistration while requests run.
#include <gtest/gtest.h>

#include <future>
#include <thread>

#include "NyApi/Exception.h"
#include "NyRest/Path.h"
#include "NyRest/ResourceBase.h"
#include "NyRest/ResourceRouter.h"
#include "Sync.h"

namespace {

using nlohmann::json;

// A parent resource that records what it was asked.
class Items : public NyRest::DocumentResourceBase, public NyRest::IParentResource {
  public:
    NyRest::IParentResource* ParentProvider() override { return this; }
    json GetDocument(const NyRest::RequestInfo& request, NyRest::ResponseInfo& response) override {
        const std::string* id = request.Param("item");
        if (id == nullptr) {
            response.Embed("item", "/items/a", true, nullptr);
            response.Embed("item", "/items/b c", true, nullptr);
            return nullptr;
        }
        if (*id == "boom") {
            try {
                throw std::runtime_error("inner cause");
            } catch (const std::exception&) {
                std::throw_with_nested(Ny::Exception(1, "f", -1000, "Items::GetDocument", "Refused now."));
            }
        }
        if (*id == "block") {
            entered.Open();
            release.Wait();
        }
        return {{"id", *id}, {"schema", request.Schema()}};
    }
    void UpdateDocument(const NyRest::RequestInfo&, const json& body) override { lastBody = body; }
    NyRest::CreateResult Create(const NyRest::RequestInfo&, const json& body) override {
        const std::string id = body.at("name").get<std::string>();
        NotificationEvent().Raise(*this, NyRest::EventType::Created, "/items/" + id);
        return {id, "/items/" + id};
    }
    void Delete(const NyRest::RequestInfo&) override { throw 42; }

    json lastBody;
    NyTest::Gate entered;
    NyTest::Gate release;
};

class Command : public NyRest::CommandResourceBase {
  public:
    json Call(const NyRest::RequestInfo& request, const json&) override { return *request.Param("item"); }
};

class Fixed : public NyRest::DocumentResourceBase {
  public:
    json GetDocument(const NyRest::RequestInfo&, NyRest::ResponseInfo&) override { return {{"fixed", true}}; }
};

class RouterTest : public ::testing::Test {
  protected:
    RouterTest() {
        router.Register("/items/:item", items);
        router.Register("/items/:item/commands/go", go);
        router.Register("/items/special", fixed);
    }
    ~RouterTest() override { router.Deregister("/items", true); }
    NyRest::ResourceRouter router;
    Items items;
    Command go;
    Fixed fixed;
};

TEST_F(RouterTest, PatternsMatchLiteralsFirstDecodeSegmentsAndReadTheSchemaFlag) {
    EXPECT_EQ(router.Dispatch("GET", "/items/special", nullptr).body, json({{"fixed", true}}));
    EXPECT_EQ(router.Dispatch("GET", "/items/x%20y?schema=true", nullptr).body,
              json({{"id", "x y"}, {"schema", true}}));
    EXPECT_EQ(router.Dispatch("GET", "/items/x?schema=false", nullptr).body["schema"], false);
    EXPECT_EQ(router.Dispatch("POST", "/items/7/commands/go", nullptr).body, "7");
    EXPECT_EQ(router.Dispatch("GET", "/nothing", nullptr).status, 404);
    EXPECT_EQ(router.Dispatch("GET", "/items/a/b", nullptr).status, 404);
    EXPECT_EQ(NyRest::Path::Format("/items/:item/commands/go", {"Calib-3"}), "/items/Calib-3/commands/go");
}

TEST_F(RouterTest, CollectionPathReachesTheParentWithEmbeddedItems) {
    const auto reply = router.Dispatch("GET", "/items", nullptr);
    EXPECT_EQ(reply.status, 200);
    EXPECT_EQ(reply.body, json::parse(R"({"_embedded":{"item":[{"_links":{"self":{"href":"/items/a"}}},
                                                                {"_links":{"self":{"href":"/items/b c"}}}]}})"));
}

TEST_F(RouterTest, VerbsMapToTheirOperationsAndStatuses) {
    const auto created = router.Dispatch("POST", "/items", {{"name", "n1"}});
    EXPECT_EQ(created.status, 201);
    EXPECT_EQ(created.body, json({{"id", "n1"}, {"path", "/items/n1"}}));
    EXPECT_EQ(created.headers.at(0), (std::pair<std::string, std::string>{"Location", "/items/n1"}));
    EXPECT_EQ(router.Dispatch("PATCH", "/items/n1", {{"a", 1}}).status, 204);
    EXPECT_EQ(items.lastBody, json({{"a", 1}}));
    const auto wrongVerb = router.Dispatch("DELETE", "/items/n1/commands/go", nullptr);
    EXPECT_EQ(wrongVerb.status, 405);
    EXPECT_EQ(wrongVerb.headers.at(0), (std::pair<std::string, std::string>{"Allow", "POST"}));
    const auto readOnly = router.Dispatch("PUT", "/items/special", json::object());
    EXPECT_EQ(readOnly.status, 405);
    EXPECT_EQ(readOnly.body["message"], "The document is read-only.");
}

TEST_F(RouterTest, FailuresBecomeJsonErrorsAndNothingEscapes) {
    const auto refused = router.Dispatch("GET", "/items/boom", nullptr);
    EXPECT_EQ(refused.status, 409);
    EXPECT_EQ(refused.body,
              json({{"status", -1000}, {"message", "Refused now."}, {"causes", {"inner cause"}}}));
    const auto typeError = router.Dispatch("POST", "/items", {{"name", 3}});
    EXPECT_EQ(typeError.status, 400);
    EXPECT_EQ(typeError.body["message"], "type must be string, but is number");
    // A body the resource cannot read is the client's bad value: the reply's status says so as its
    // HTTP status does.
    EXPECT_EQ(typeError.body["status"], -997);
    const auto missing = router.Dispatch("POST", "/items", json::object());
    EXPECT_EQ(missing.status, 400);
    EXPECT_EQ(missing.body["status"], -997);
    const auto notUtf8 = router.DispatchRaw("POST", "/items", "{\"name\":\"\xff\"}");
    EXPECT_EQ(notUtf8.status, 400);
    EXPECT_EQ(notUtf8.body["status"], -997);
    EXPECT_EQ(router.Dispatch("DELETE", "/items/x", nullptr).status, 500);  // not even a std::exception
    const auto malformed = router.DispatchRaw("POST", "/items", "{\"name\": ");
    EXPECT_EQ(malformed.status, 400);
    EXPECT_EQ(malformed.body["message"], "The request body is not valid JSON.");
    EXPECT_EQ(router.DispatchRaw("POST", "/items", std::string(100, '[') + std::string(100, ']')).status,
              400);
    EXPECT_EQ(router.DispatchRaw("POST", "/items", R"({"name":"ok"})").status, 201);
}

TEST_F(RouterTest, RegistrationMistakesFailLoudly) {
    EXPECT_THROW(router.Register("/items/:item", fixed), Ny::Exception);
    EXPECT_THROW(router.Register("no-slash", fixed), Ny::Exception);
    EXPECT_THROW(router.Register("/a//b", fixed), Ny::Exception);
}

TEST_F(RouterTest, NotificationsAreForwardedUntilDeregistration) {
    std::vector<std::string> seen;
    router.NotificationEvent().Subscribe([&](NyRest::EventType type, std::string path) {
        seen.push_back(std::to_string(static_cast<int>(type)) + path);
    });
    router.Dispatch("POST", "/items", {{"name", "a"}});
    router.Deregister("/items/:item", true);
    items.NotificationEvent().Raise(items, NyRest::EventType::Deleted, "/items/a");
    EXPECT_EQ(seen, std::vector<std::string>{"1/items/a"});
    EXPECT_EQ(router.Dispatch("POST", "/items/7/commands/go", nullptr).status, 404);  // removed beneath too
    EXPECT_EQ(router.Dispatch("GET", "/items/special", nullptr).status, 200);  // a sibling, not beneath
}

TEST_F(RouterTest, BlockedRequestLeavesOthersServedAndDeregistrationWaitsForIt) {
    auto blocked =
        std::async(std::launch::async, [&] { return router.Dispatch("GET", "/items/block", nullptr); });
    ASSERT_TRUE(items.entered.Wait());
    EXPECT_EQ(router.Dispatch("GET", "/items/other", nullptr).status, 200);
    auto withdrawn = std::async(std::launch::async, [&] { router.Deregister("/items/:item", false); });
    EXPECT_EQ(withdrawn.wait_for(std::chrono::milliseconds(20)), std::future_status::timeout);
    items.release.Open();
    EXPECT_EQ(blocked.get().status, 200);
    withdrawn.get();
}

// A parent whose creation announces itself, then blocks until released, as a routine creation does;
// with "offThread" another thread announces something else first.
class Announcer : public NyRest::ResourceBase, public NyRest::IParentResource {
  public:
    NyRest::IParentResource* ParentProvider() override { return this; }
    NyRest::CreateResult Create(const NyRest::RequestInfo& request, const json& body) override {
        const std::string id = body.at("name").get<std::string>();
        if (request.Prefers("offThread")) {
            std::thread([this] {
                NotificationEvent().Raise(*this, NyRest::EventType::Created, "/things/other");
            }).join();
        }
        NotificationEvent().Raise(*this, NyRest::EventType::Updated, "/things");
        NotificationEvent().Raise(*this, NyRest::EventType::Created, "/things/" + id);
        NotificationEvent().Raise(*this, NyRest::EventType::Created, "/things/" + id + "-second");
        release.Wait();
        return {id, "/things/" + id};
    }
    void Delete(const NyRest::RequestInfo&) override {}

    NyTest::Gate release;
};

class CreatedHookTest : public ::testing::Test {
  protected:
    CreatedHookTest() { router.Register("/things/:thing", announcer); }
    ~CreatedHookTest() override {
        announcer.release.Open();
        router.Deregister("/things/:thing", false);
    }

    // Runs a creation of `name` on its own thread; the hook records what it was given.
    std::future<NyRest::Response> StartCreation(const std::string& name, const std::string& prefer = {}) {
        NyRest::DispatchOptions options;
        options.prefer = prefer;
        options.onCreated = [this](const NyRest::CreateResult& created) {
            {
                std::lock_guard guard(mutex);
                seen.push_back(created.id + " " + created.path);
            }
            announced.Open();
        };
        return std::async(std::launch::async, [this, name, options] {
            return router.DispatchRaw("POST", "/things", json({{"name", name}}).dump(), options);
        });
    }
    std::vector<std::string> Seen() {
        std::lock_guard guard(mutex);
        return seen;
    }

    NyRest::ResourceRouter router;
    Announcer announcer;
    NyTest::Gate announced;
    std::mutex mutex;
    std::vector<std::string> seen;
};

TEST_F(CreatedHookTest, FiresOnceWithTheFirstCreatedBeforeTheBlockedCreationReturns) {
    auto creation = StartCreation("t1");
    ASSERT_TRUE(announced.Wait());
    EXPECT_EQ(creation.wait_for(std::chrono::milliseconds(0)), std::future_status::timeout);
    EXPECT_EQ(Seen(), std::vector<std::string>{"t1 /things/t1"});
    announcer.release.Open();
    const NyRest::Response reply = creation.get();
    EXPECT_EQ(reply.status, 201);
    EXPECT_EQ(Seen(), std::vector<std::string>{"t1 /things/t1"});  // not the second Created
}

TEST_F(CreatedHookTest, CreatedRaisedOnAnotherThreadDuringTheDispatchDoesNotFireIt) {
    auto creation = StartCreation("t2", "offThread");
    ASSERT_TRUE(announced.Wait());
    EXPECT_EQ(Seen(), std::vector<std::string>{"t2 /things/t2"});
    announcer.release.Open();
    EXPECT_EQ(creation.get().status, 201);
}

TEST_F(CreatedHookTest, NotificationsOutsideAnyDispatchAndHookFailuresLeaveTheCreationAlone) {
    announcer.release.Open();
    announcer.NotificationEvent().Raise(announcer, NyRest::EventType::Created, "/things/outside");
    NyRest::DispatchOptions throwing;
    throwing.onCreated = [](const NyRest::CreateResult&) { throw std::runtime_error("host broke"); };
    const NyRest::Response reply = router.Dispatch("POST", "/things", {{"name", "t3"}}, throwing);
    EXPECT_EQ(reply.status, 201);
    EXPECT_EQ(reply.body, json({{"id", "t3"}, {"path", "/things/t3"}}));
    EXPECT_TRUE(Seen().empty());
}

TEST(RequestInfo, PrefersReadsCommaSeparatedPreferencesCaseInsensitively) {
    const auto prefers = [](const std::string& header, std::string_view token) {
        return NyRest::RequestInfo("PUT", "/x", {}, {}, header).Prefers(token);
    };
    EXPECT_TRUE(prefers("respond-async, wait=10", "respond-async"));
    EXPECT_TRUE(prefers("wait=10,Respond-Async", "respond-async"));
    EXPECT_TRUE(prefers("respond-async;foo=bar", "respond-async"));
    EXPECT_TRUE(prefers("handling=strict", "handling=strict"));
    EXPECT_TRUE(prefers("HANDLING = \"Strict\" ; x=1", "handling=strict"));
    EXPECT_TRUE(prefers("a=\"x,y\", handling=strict", "handling=strict"));  // a comma inside quotes
    EXPECT_TRUE(prefers("wait=10", "wait"));
    EXPECT_FALSE(prefers("", "respond-async"));
    EXPECT_FALSE(prefers("respond-asynchronously", "respond-async"));
    EXPECT_FALSE(prefers("handling=lenient", "handling=strict"));
    EXPECT_FALSE(prefers("handling", "handling=strict"));
    EXPECT_FALSE(prefers("x=\"handling=strict\"", "handling=strict"));
    EXPECT_FALSE(prefers("handling=lenient, handling=strict", "handling=strict"));  // the first one counts
    EXPECT_FALSE(prefers("return=minimal", "respond-async"));
}

TEST(ErrorBody, FieldsOfTheWholeChainAppearOnlyWhenThereAreAny) {
    try {
        try {
            Ny::Exception refusal(1, "f", -997, "Value::CheckValidation", "samples was set to be too big.");
            refusal.AddField("samples", "samples was set to be too big.");
            refusal.AddField("outer.\xff\xfe", "odd \xc3 bytes");
            refusal.AddField("samples", "second message");
            throw refusal;
        } catch (const Ny::Exception& e) {
            std::throw_with_nested(
                Ny::Exception(2, "f", e.Status(), "Root::Set", "Set routine params failed."));
        }
    } catch (const std::exception& wrapped) {
        EXPECT_EQ(NyRest::HttpStatusFor(wrapped), 400);
        const json body = NyRest::ErrorBody(wrapped);
        EXPECT_EQ(body["status"], -997);
        EXPECT_EQ(body["message"], "Set routine params failed.");
        EXPECT_EQ(body["causes"], json({"samples was set to be too big."}));
        EXPECT_EQ(body["fields"]["samples"], json({"samples was set to be too big.", "second message"}));
        // Odd bytes from the request stay in the body; the edge writes them replaced, as valid JSON.
        const std::string text = body.dump(-1, ' ', false, json::error_handler_t::replace);
        const json reparsed = json::parse(text);
        EXPECT_EQ(reparsed["fields"]["outer.\xEF\xBF\xBD\xEF\xBF\xBD"], json({"odd \xEF\xBF\xBD bytes"}));
    }
    EXPECT_FALSE(NyRest::ErrorBody(Ny::Exception(1, "f", -997, "X")).contains("fields"));
}

}  // namespace
