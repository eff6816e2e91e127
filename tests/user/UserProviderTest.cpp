#include "velmora/user/UserProvider.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/ServerTest.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using nlohmann::json;
using namespace std::chrono_literals;

json field(const std::string& key) {
    auto definition = json::parse(R"({"id": 7, "url": "https://a.example/f/7.json", "type": "dropdown",
        "title": "Plan", "raw_title": "{{plan}}", "description": "d", "raw_description": "rd", "position": 1,
        "active": true, "system": false, "regexp_for_validation": "", "created_at": "2026-01-02T03:04:05Z",
        "updated_at": "2026-02-03T04:05:06Z", "custom_field_options": [
            {"id": 1, "name": "Gold", "raw_name": "Gold", "url": "u", "value": "gold", "position": 0}]})");
    definition["key"] = key;
    return definition;
}

TEST(UserRecordsTest, UsersDecodeLenientlyAndWriteTheAccountsFormBack) {
    const auto read = [](const char* text) { return decodeUserContainer(Data::fromString(text)).value(); };
    EXPECT_EQ(read(R"({"user": {}})").toJson(),
              json::parse(R"({"id": -1, "name": "", "agent": false, "tags": [], "user_fields": {},
                              "photo": {"content_url": ""}})"));
    // A mistyped member falls back alone; field values are kept as text.
    const auto user = read(R"({"user": {"id": 42, "name": 5, "agent": true, "tags": ["a", 1],
        "photo": {"content_url": "https://p"},
        "user_fields": {"flag": true, "count": 42, "plan": "gold", "ratio": 1.5, "list": [1, "x"],
                        "none": null}}})");
    EXPECT_EQ(user.toJson(), json::parse(R"({"id": 42, "name": "", "agent": true, "tags": [],
        "user_fields": {"count": "42", "flag": "true", "list": "[1,\"x\"]", "none": "null", "plan": "gold",
                        "ratio": "1.5"},
        "photo": {"content_url": "https://p"}})"));

    const auto written = json::parse(R"({"id": 42, "name": "Ann", "agent": false, "tags": ["a", "b c"],
                                         "user_fields": {"plan": "gold"}, "photo": {"content_url": "https://p"}})");
    EXPECT_EQ(User::fromJson(written).toJson(), written);
    EXPECT_EQ(UserField::fromJson(field("plan")).value().toJson(), field("plan"));
}

// The decoded values are checked through the C interface's session (type, dates, options). Integers beyond
// the signed 64-bit range never wrap: the lenient user falls back, the strict field fails.
TEST(UserRecordsTest, FieldDefinitionsDecodeStrictlyAsAWholeAndIntegersOutsideSigned64BitsAreRefused) {
    for (const auto* patch :
         {R"([{"op": "remove", "path": "/title"}])",
          R"([{"op": "remove", "path": "/custom_field_options/0/raw_name"}])",
          R"([{"op": "replace", "path": "/type", "value": "colour"}])",
          R"([{"op": "replace", "path": "/created_at", "value": "2026-01-02 03:04:05"}])"}) {
        const json fields = {{"user_fields", {field("ok"), field("b").patch(json::parse(patch))}}};
        EXPECT_TRUE(decodeUserFields(Data::fromString(fields.dump())).isError()) << patch;
    }
    for (const std::string id : {"9223372036854775807", "-9223372036854775808", "9223372036854775808"}) {
        const bool fits = id != "9223372036854775808";
        EXPECT_EQ(User::fromJson({{"id", json::parse(id)}}).id, fits ? id : "-1") << id;
        const auto patch = R"([{"op": "replace", "path": "/id", "value": )" + id + "}]";
        EXPECT_EQ(UserField::fromJson(field("plan").patch(json::parse(patch))).isSuccess(), fits) << id;
    }
}

class UserProviderTest : public ServerTest {
  protected:
    UserProviderTest() { identity->store(Identity::createAnonymous("Ann", std::nullopt)); }

    Result<User> getUser() const {
        return await<Result<User>>([&](auto cb) { users.getUser(cb); });
    }
    const UserProvider users{details};
};

// What comes back is checked through the C interface's session; here, what goes out.
TEST_F(UserProviderTest, TagsAndFieldsGoOutInTheAccountsForm) {
    Awaited<Result<User>> tagged;
    users.addTags({"vip", "a b", "c,d"}, tagged.callback());
    EXPECT_TRUE(tagged.wait().isSuccess() && tagged.onMain()) << "a success, on the main queue";
    EXPECT_EQ(server.requests("POST", "/api/mobile/user_tags.json").at(0).json(),
              json::parse(R"({"tags": ["vip", "a b", "c,d"]})"));

    // Tags go into the query with the URL host characters escaped, commas joining them.
    (void)await<Result<User>>([&](auto cb) { users.deleteTags({"vip", "a b", "caf\u00e9", "50%"}, cb); });
    (void)await<Result<User>>([&](auto cb) { users.deleteTags({}, cb); });
    const auto deletes = server.requests("DELETE", "/api/mobile/user_tags/destroy_many.json");
    EXPECT_EQ(deletes.at(0).target, "/api/mobile/user_tags/destroy_many.json?tags=vip,a%20b,caf%C3%A9,50%25");
    EXPECT_EQ(deletes.at(1).target, "/api/mobile/user_tags/destroy_many.json?tags=");

    (void)await<Result<User>>([&](auto cb) {
        users.setUserFields({{"flag", true}, {"count", 42}, {"plan", "gold"}}, cb);
    });
    EXPECT_EQ(server.requests("PUT", "/api/mobile/users/me.json").at(0).json(),
              json::parse(R"({"user": {"user_fields": {"flag": true, "count": 42, "plan": "gold"}}})"));
}

TEST_F(UserProviderTest, A401WipesTheSessionAMissingBodyIsCode3000AndAnEmptyOneADecoderError) {
    ASSERT_TRUE(getUser().isSuccess());
    ASSERT_TRUE(SessionStore("app").store(PropertyValue("device"), "pushToken"));
    server.script("GET", "/api/mobile/users/me.json",
                  {.status = 401, .body = R"({"error": "Unauthorized"})"});
    (void)getUser();
    EXPECT_TRUE(!identity->identity() && !identity->oauthToken() && !SessionStore("app").pushToken());

    // A 401 for a token no longer stored (the host set another identity meanwhile) leaves the new one.
    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    ASSERT_TRUE(getUser().isSuccess());
    server.script("GET", "/api/mobile/users/me.json", {.status = 401, .delay = 300ms});
    Awaited<Result<User>> stale;
    users.getUser(stale.callback());
    std::this_thread::sleep_for(100ms);
    identity->clear();
    identity->store(Identity::createAnonymous("Bob", std::nullopt));
    (void)stale.wait();
    EXPECT_TRUE(identity->identity().has_value()) << "Bob's identity stays";

    server.script("GET", "/api/mobile/users/me.json", {.status = 204});
    const auto missing = getUser().error();
    EXPECT_EQ(std::pair(missing.domain(), missing.code()),
              std::pair(std::string("com.velmora.sdk.core"), std::int64_t{3000}));

    server.script("GET", "/api/mobile/users/me.json", {.status = 200});
    EXPECT_EQ(getUser().error().domain(), "NSCocoaErrorDomain") << "an empty body fails in the decoder";
}

}  // namespace
}  // namespace velmora::testing
