#include "velmora/storage/IdentityStore.h"

#include <gtest/gtest.h>

#include <regex>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"

namespace velmora::testing {
namespace {

class IdentityStoreTest : public LibraryTest {
  protected:
    std::optional<PropertyValue> persisted(const std::string& key) {
        const auto dictionary = persistedValue(*environment.dataDirectory / "UserDefaults.sqlite",
                                               "com.velmora.core.identity", "app");
        const auto* entries = dictionary ? dictionary->getIf<PropertyValue::Dictionary>() : nullptr;
        if (entries == nullptr || !entries->contains(key)) {
            return std::nullopt;
        }
        return entries->at(key);
    }

    const IdentityStore store{"app"};
};

bool isUuid(const std::optional<std::string>& text) {
    static const std::regex shape("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
    return text && std::regex_match(*text, shape);
}

TEST_F(IdentityStoreTest, StoringANewIdentityRenewsTheUuidAndGivesOnlyAnonymousUsersAGuid) {
    EXPECT_EQ(store.uuid(), "");
    EXPECT_EQ(logs->lines(), (std::vector<std::string>{"[DEBUG]: No UUID found. Have you set an identity?"}));

    store.update(IdentityStore::authTokenKey, "token-1");
    store.update(IdentityStore::userIdKey, 42);
    store.store(Identity::createAnonymous("Ann", std::nullopt));
    const auto firstGuid = store.guid();
    const auto firstUuid = store.uuid();
    EXPECT_TRUE(isUuid(firstGuid));
    EXPECT_TRUE(isUuid(firstUuid));
    EXPECT_NE(firstGuid, firstUuid);
    EXPECT_EQ(store.userId(), std::nullopt) << "every store forgets the user id";
    EXPECT_EQ(store.oauthToken(), "token-1") << "the token is cleared by the session clearing, not by store";
    EXPECT_EQ(store.identity(), Identity::createAnonymous("Ann", std::nullopt));

    store.store(Identity::createAnonymous("Bob", std::nullopt));
    EXPECT_TRUE(isUuid(store.guid()));
    EXPECT_NE(store.guid(), firstGuid);
    EXPECT_NE(store.uuid(), firstUuid);

    store.store(Identity::createJwt("T"));
    EXPECT_EQ(store.guid(), std::nullopt);
    EXPECT_TRUE(isUuid(store.uuid()));
    EXPECT_EQ(persisted("guid"), std::nullopt);
    EXPECT_EQ(persisted("uuid"), PropertyValue(store.uuid()));
    EXPECT_EQ(persisted("identity"), PropertyValue(Data::fromString(R"({"jwt":{"token":"T"}})")));

    EXPECT_TRUE(logs->contains("[DEBUG]: stored identity with app id: app."));
    EXPECT_TRUE(logs->contains("[DEBUG]: updated auth_token on identity with app id: app."));
    EXPECT_TRUE(logs->contains("[DEBUG]: updated user_id on identity with app id: app."));
}

TEST_F(IdentityStoreTest, StoringTheIdentityOnlyKeepsEverythingElse) {
    store.store(Identity::createAnonymous("Ann", "ann@one.example"));
    store.update(IdentityStore::authTokenKey, "tok");
    store.update(IdentityStore::userIdKey, 0);
    const auto guid = store.guid();
    const auto uuid = store.uuid();

    Anonymous withOtherGuid = Anonymous::withName("Ann", "ann@one.example");
    withOtherGuid.guid = "SOMETHING-ELSE";
    store.storeIdentityOnly(Identity(withOtherGuid));
    EXPECT_EQ(store.guid(), guid);
    EXPECT_EQ(store.uuid(), uuid);
    EXPECT_EQ(store.oauthToken(), "tok");
    EXPECT_EQ(store.userId(), 0) << "zero is a user id, not its absence";
    EXPECT_EQ(persisted("user_id"), PropertyValue(0));
    ASSERT_TRUE(store.identity().has_value());
    EXPECT_EQ(store.identity()->anonymous()->guid, "SOMETHING-ELSE") << "the identity itself is rewritten";

    store.storeGuid(std::nullopt);
    EXPECT_EQ(store.guid(), std::nullopt);
    store.storeGuid("OLD-GUID");
    EXPECT_EQ(persisted("guid"), PropertyValue("OLD-GUID"));
}

TEST_F(IdentityStoreTest, MalformedValuesReadAsAbsent) {
    platform::UserDefaults::suite(IdentityStore::suite)
        ->set("app", PropertyValue::Dictionary{{"identity", Data::fromString(R"({"jwt": {}})")},
                                               {"guid", 7},
                                               {"uuid", Data()},
                                               {"auth_token", true},
                                               {"user_id", "42"}});
    EXPECT_EQ(store.identity(), std::nullopt);
    EXPECT_EQ(store.guid(), std::nullopt);
    EXPECT_EQ(store.uuid(), "");
    EXPECT_EQ(store.oauthToken(), std::nullopt);
    EXPECT_EQ(store.userId(), std::nullopt);

    platform::UserDefaults::suite(IdentityStore::suite)
        ->set("app", PropertyValue::Dictionary{{"identity", "text"}});
    EXPECT_EQ(store.identity(), std::nullopt);

    // An identity that cannot be encoded is not stored at all, rather than stored as garbage.
    store.store(Identity::createJwt("T"));
    store.storeIdentityOnly(Identity::createJwt("\xff"));
    EXPECT_EQ(store.identity(), std::nullopt);
    EXPECT_TRUE(isUuid(store.uuid()));
}

}  // namespace
}  // namespace velmora::testing
