#include "velmora/user/UserProvider.h"

#include <gtest/gtest.h>

#include <condition_variable>
#include <mutex>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

json field(const std::string& key) {
    return {{"id", 7},
            {"url", "https://a.example/f/7.json"},
            {"key", key},
            {"type", "dropdown"},
            {"title", "Plan"},
            {"raw_title", "{{plan}}"},
            {"description", "d"},
            {"raw_description", "rd"},
            {"position", 1},
            {"active", true},
            {"system", false},
            {"regexp_for_validation", ""},
            {"created_at", "2026-01-02T03:04:05Z"},
            {"updated_at", "2026-02-03T04:05:06Z"},
            {"custom_field_options",
             {{{"id", 1},
               {"name", "Gold"},
               {"raw_name", "Gold"},
               {"url", "u"},
               {"value", "gold"},
               {"position", 0}}}}};
}

TEST(UserRecordsTest, UsersDecodeLenientlyAndFieldValuesBecomeText) {
    const auto empty = decodeUserContainer(Data::fromString(R"({"user": {}})"));
    ASSERT_TRUE(empty.isSuccess());
    EXPECT_EQ(empty.value().id, "-1");
    EXPECT_TRUE(empty.value().name.empty() && empty.value().content_url.empty() && !empty.value().agent);
    EXPECT_TRUE(empty.value().tags.empty() && empty.value().user_fields.empty());

    const auto user = decodeUserContainer(Data::fromString(
        R"({"user": {"id": 42, "name": 5, "agent": true, "tags": ["a", 1], "photo": {"content_url": "https://p"},
            "user_fields": {"flag": true, "count": 42, "plan": "gold", "ratio": 1.5, "list": [1, "x"], "none": null}}})"));
    ASSERT_TRUE(user.isSuccess());
    EXPECT_EQ(user.value().id, "42");
    EXPECT_EQ(user.value().name, "") << "a mistyped member falls back alone";
    EXPECT_TRUE(user.value().agent);
    EXPECT_TRUE(user.value().tags.empty());
    EXPECT_EQ(user.value().content_url, "https://p");
    EXPECT_EQ(user.value().user_fields, (std::map<std::string, std::string>{{"count", "42"},
                                                                            {"flag", "true"},
                                                                            {"list", "[1,\"x\"]"},
                                                                            {"none", "null"},
                                                                            {"plan", "gold"},
                                                                            {"ratio", "1.5"}}));
    EXPECT_TRUE(decodeUserContainer(Data()).isError()) << "an empty body fails in the decoder";
}

TEST(UserRecordsTest, FieldDefinitionsDecodeStrictlyAsAWhole) {
    const auto decoded = decodeUserFields(Data::fromString(json{{"user_fields", {field("plan")}}}.dump()));
    ASSERT_TRUE(decoded.isSuccess()) << decoded.error().description();
    const auto& plan = decoded.value().at(0);
    EXPECT_EQ(plan.id, "7");
    EXPECT_EQ(plan.fieldType(), "dropdown");
    EXPECT_EQ(plan.created_at, Date::fromMillisecondsSince1970(1'767'323'045'000));
    ASSERT_TRUE(plan.custom_field_options.has_value());
    EXPECT_EQ(plan.custom_field_options->at(0).value, "gold");

    auto missingTitle = field("b");
    missingTitle.erase("title");
    auto badOption = field("c");
    badOption["custom_field_options"][0].erase("raw_name");
    auto badType = field("d");
    badType["type"] = "colour";
    auto badDate = field("e");
    badDate["created_at"] = "2026-01-02 03:04:05";
    for (const auto& broken : {missingTitle, badOption, badType, badDate}) {
        EXPECT_TRUE(
            decodeUserFields(Data::fromString(json{{"user_fields", {field("ok"), broken}}}.dump())).isError())
            << broken.dump();
    }
    auto noOptions = field("f");
    noOptions.erase("custom_field_options");
    EXPECT_FALSE(decodeUserFields(Data::fromString(json{{"user_fields", {noOptions}}}.dump()))
                     .value()
                     .at(0)
                     .custom_field_options);
}

// Integers beyond the signed 64-bit range never wrap: the lenient user falls back, the strict field fails.
TEST(UserRecordsTest, IntegersOutsideSigned64BitsAreRefusedNotWrapped) {
    struct Case {
        const char* id;
        const char* userId;  // as the user keeps it
        bool fieldDecodes;
    };
    for (const auto& c :
         {Case{"9223372036854775807", "9223372036854775807", true},
          Case{"-9223372036854775808", "-9223372036854775808", true},
          Case{"9223372036854775808", "-1", false}, Case{"18446744073709551615", "-1", false}}) {
        EXPECT_EQ(User::fromJson(json::parse(std::string(R"({"id": )") + c.id + "}")).id, c.userId) << c.id;
        auto definition = field("plan");
        definition["id"] = json::parse(c.id);
        EXPECT_EQ(UserField::fromJson(definition).isSuccess(), c.fieldDecodes) << c.id;
    }
}

TEST(UserRecordsTest, RecordsWriteTheAccountsFormBack) {
    const auto fieldJson = field("plan");
    EXPECT_EQ(UserField::fromJson(fieldJson).value().toJson(), fieldJson);

    const json user = {{"id", 42},
                       {"name", "Ann"},
                       {"agent", false},
                       {"tags", {"a", "b c"}},
                       {"user_fields", {{"plan", "gold"}}},
                       {"photo", {{"content_url", "https://p"}}}};
    EXPECT_EQ(User::fromJson(user).toJson(), user);
}

TEST(UserRecordsTest, TagQueriesUseTheUrlHostCharacters) {
    EXPECT_EQ(tagQuery({}), "");
    EXPECT_EQ(tagQuery({"vip", "a b", "c,d", "caf\u00e9", "50%"}), "vip,a%20b,c,d,caf%C3%A9,50%25");
}

class UserProviderTest : public LibraryTest {
  protected:
    UserProviderTest() {
        details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
        IdentityStore("app").store(Identity::createAnonymous("Ann", std::nullopt));
    }

    template <class T>
    struct Outcome {
        std::optional<Result<T>> result;
        bool onMain = false;
    };
    template <class T, class Call>
    Outcome<T> call(Call&& start) {
        std::mutex mutex;
        std::condition_variable changed;
        Outcome<T> outcome;
        start([&](Result<T> result) {
            std::lock_guard lock(mutex);
            outcome.result.emplace(std::move(result));
            outcome.onMain = platform::DispatchQueue::main().isCurrent();
            changed.notify_all();
        });
        std::unique_lock lock(mutex);
        changed.wait(lock, [&] { return outcome.result.has_value(); });
        return outcome;
    }

    Watchdog watchdog{60s, "user provider test"};
    AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details;
};

TEST_F(UserProviderTest, TagsAndFieldsRoundTripThroughTheAccount) {
    const UserProvider users(details);
    const auto got = call<User>([&](auto cb) { users.getUser(cb); });
    ASSERT_TRUE(got.result->isSuccess());
    EXPECT_TRUE(got.onMain);
    EXPECT_EQ(got.result->value().name, "Ann");

    const auto tagged = call<User>([&](auto cb) { users.addTags({"vip", "a b", "c,d"}, cb); });
    EXPECT_EQ(tagged.result->value().tags, (std::vector<std::string>{"vip", "a b", "c,d"}));
    EXPECT_EQ(server.requests("POST", "/api/mobile/user_tags.json").at(0).json(),
              json::parse(R"({"tags": ["vip", "a b", "c,d"]})"));

    const auto untagged = call<User>([&](auto cb) { users.deleteTags({"vip", "a b"}, cb); });
    EXPECT_EQ(untagged.result->value().tags, (std::vector<std::string>{"c,d"}));
    EXPECT_EQ(server.requests("DELETE", "/api/mobile/user_tags/destroy_many.json").at(0).target,
              "/api/mobile/user_tags/destroy_many.json?tags=vip,a%20b");
    const auto none = call<User>([&](auto cb) { users.deleteTags({}, cb); });
    EXPECT_EQ(none.result->value().tags, (std::vector<std::string>{"c,d"}));
    EXPECT_EQ(server.requests("DELETE", "/api/mobile/user_tags/destroy_many.json").at(1).target,
              "/api/mobile/user_tags/destroy_many.json?tags=");

    const auto fields = call<User>([&](auto cb) {
        users.setUserFields({{"flag", true}, {"count", 42}, {"plan", "gold"}}, cb);
    });
    EXPECT_EQ(fields.result->value().user_fields,
              (std::map<std::string, std::string>{{"count", "42"}, {"flag", "true"}, {"plan", "gold"}}));
    EXPECT_EQ(server.requests("PUT", "/api/mobile/users/me.json").at(0).json(),
              json::parse(R"({"user": {"user_fields": {"flag": true, "count": 42, "plan": "gold"}}})"));

    server.setUserFields(json::array({field("plan")}));
    const auto definitions = call<std::vector<UserField>>([&](auto cb) { users.getUserFields(cb); });
    ASSERT_TRUE(definitions.result->isSuccess());
    EXPECT_EQ(definitions.result->value().at(0).key, "plan");
    EXPECT_EQ(server.requests("POST", "/access/sdk/anonymous").size(), 1u)
        << "one login for the whole session";
}

TEST_F(UserProviderTest, A401WipesTheIdentitySoTheNextRequestFailsWithTheLoginError) {
    const UserProvider users(details);
    ASSERT_TRUE(call<User>([&](auto cb) { users.getUser(cb); }).result->isSuccess());
    ASSERT_TRUE(SessionStore("app").store(PropertyValue("device"), "pushToken"));

    server.script("GET", "/api/mobile/users/me.json",
                  {.status = 401, .body = R"({"error": "Unauthorized"})"});
    (void)call<User>([&](auto cb) { users.getUser(cb); });
    EXPECT_EQ(IdentityStore("app").identity(), std::nullopt);
    EXPECT_EQ(IdentityStore("app").oauthToken(), std::nullopt);
    EXPECT_EQ(SessionStore("app").pushToken(), std::nullopt);

    logs->clear();
    const auto requestsBefore = server.requests().size();
    const auto next = call<User>([&](auto cb) { users.getUser(cb); });
    EXPECT_EQ(next.result->error().domain(), "com.velmora.core.access");
    EXPECT_EQ(next.result->error().code(), 100);
    EXPECT_TRUE(logs->contains("[ERROR]: Login error : No identity, aborting access call"));
    EXPECT_TRUE(logs->contains("[ERROR]: Login error : " + next.result->error().description()));
    EXPECT_EQ(server.requests().size(), requestsBefore) << "nothing is sent without an identity";
}

TEST_F(UserProviderTest, AMissingBodyIsCode3000AndAnEmptyOneADecoderError) {
    const UserProvider users(details);
    server.script("GET", "/api/mobile/users/me.json", {.status = 204});
    const auto missing = call<User>([&](auto cb) { users.getUser(cb); });
    EXPECT_EQ(missing.result->error().domain(), "com.velmora.sdk.core");
    EXPECT_EQ(missing.result->error().code(), 3000);

    server.script("GET", "/api/mobile/users/me.json", {.status = 200});
    const auto empty = call<User>([&](auto cb) { users.getUser(cb); });
    EXPECT_EQ(empty.result->error().domain(), "NSCocoaErrorDomain");
}

}  // namespace
}  // namespace velmora::testing
