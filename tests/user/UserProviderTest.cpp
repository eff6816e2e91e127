#include "velmora/user/UserProvider.h"

#include <gtest/gtest.h>

#include "tests/support/ServerTest.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

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
    const auto empty = decodeUserContainer(Data::fromString(R"({"user": {}})")).value();
    EXPECT_EQ(empty.id, "-1");
    EXPECT_TRUE(empty.name.empty() && empty.content_url.empty() && !empty.agent);
    EXPECT_TRUE(empty.tags.empty() && empty.user_fields.empty());

    const auto user = decodeUserContainer(Data::fromString(
        R"({"user": {"id": 42, "name": 5, "agent": true, "tags": ["a", 1], "photo": {"content_url": "https://p"},
            "user_fields": {"flag": true, "count": 42, "plan": "gold", "ratio": 1.5, "list": [1, "x"], "none": null}}})"));
    ASSERT_TRUE(user.isSuccess());
    EXPECT_EQ(user.value().id, "42");
    EXPECT_EQ(user.value().name, "") << "a mistyped member falls back alone";
    EXPECT_TRUE(user.value().agent && user.value().tags.empty());
    EXPECT_EQ(user.value().content_url, "https://p");
    EXPECT_EQ(
        json(user.value().user_fields),
        json::parse(R"({"count": "42", "flag": "true", "list": "[1,\"x\"]", "none": "null", "plan": "gold",
                              "ratio": "1.5"})"));

    const auto written = json::parse(R"({"id": 42, "name": "Ann", "agent": false, "tags": ["a", "b c"],
                                         "user_fields": {"plan": "gold"}, "photo": {"content_url": "https://p"}})");
    EXPECT_EQ(User::fromJson(written).toJson(), written);
    EXPECT_EQ(UserField::fromJson(field("plan")).value().toJson(), field("plan"));
}

// The decoded values are checked through the C interface's session (type, dates, options).
TEST(UserRecordsTest, FieldDefinitionsDecodeStrictlyAsAWhole) {
    EXPECT_EQ(UserField::fromJson(field("plan")).value().id, "7");
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
}

// Integers beyond the signed 64-bit range never wrap: the lenient user falls back, the strict field fails.
TEST(UserRecordsTest, IntegersOutsideSigned64BitsAreRefusedNotWrapped) {
    struct Case {
        const char* id;
        const char* userId;  // as the user keeps it
        bool fieldDecodes;
    };
    for (const auto& c : {Case{"9223372036854775807", "9223372036854775807", true},
                          Case{"-9223372036854775808", "-9223372036854775808", true},
                          Case{"9223372036854775808", "-1", false}}) {
        EXPECT_EQ(User::fromJson(json::parse(std::string(R"({"id": )") + c.id + "}")).id, c.userId) << c.id;
        auto definition = field("plan");
        definition["id"] = json::parse(c.id);
        EXPECT_EQ(UserField::fromJson(definition).isSuccess(), c.fieldDecodes) << c.id;
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
    EXPECT_TRUE(tagged.wait().isSuccess());
    EXPECT_TRUE(tagged.onMain());
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
    EXPECT_EQ(identity->identity(), std::nullopt);
    EXPECT_EQ(identity->oauthToken(), std::nullopt);
    EXPECT_EQ(SessionStore("app").pushToken(), std::nullopt);

    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    server.script("GET", "/api/mobile/users/me.json", {.status = 204});
    const auto missing = getUser();
    EXPECT_EQ(missing.error().domain(), "com.velmora.sdk.core");
    EXPECT_EQ(missing.error().code(), 3000);

    server.script("GET", "/api/mobile/users/me.json", {.status = 200});
    EXPECT_EQ(getUser().error().domain(), "NSCocoaErrorDomain") << "an empty body fails in the decoder";
}

}  // namespace
}  // namespace velmora::testing
