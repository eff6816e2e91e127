#include "velmora/storage/LegacyIdentityMigrator.h"

#include <gtest/gtest.h>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "velmora/platform/UserDefaults.h"

namespace velmora::testing {
namespace {

using platform::PropertyUid;
using platform::UserDefaults;
using Dictionary = PropertyValue::Dictionary;
using Array = PropertyValue::Array;

class LegacyIdentityMigratorTest : public LibraryTest {
  protected:
    struct Legacy {
        std::optional<Data> archive = std::nullopt;
        std::optional<std::string> guid = std::nullopt;
        std::optional<std::string> oauth = "old-token";
        std::optional<std::int64_t> userId = 77;
        std::optional<std::string> pushToken = "old-device";
    };

    // What the earlier generation left behind, on disk as a later launch finds it.
    void plant(const Legacy& legacy) {
        const auto standard = UserDefaults::standard();
        if (legacy.archive)
            standard->set("vmk-identity", *legacy.archive);
        if (legacy.guid)
            standard->set("vmK-auth-guid", *legacy.guid);
        if (legacy.oauth)
            standard->set("vmk-oauth", *legacy.oauth);
        if (legacy.userId)
            standard->set("vmk-user-id", *legacy.userId);
        ASSERT_TRUE(standard->synchronize());
        if (legacy.pushToken) {
            const auto push = UserDefaults::suite("com.velmora.push");
            push->set("device-token", *legacy.pushToken);
            ASSERT_TRUE(push->synchronize());
        }
    }

    bool migrate(const Identity& identity) {
        return LegacyIdentityMigrator(ApplicationConfiguration("app", "client", "https://a.example"),
                                      identity)
            .checkedAndMigratedIdentity();
    }

    void expectLegacyGone() {
        const auto file = *environment.dataDirectory / "UserDefaults.sqlite";
        for (const char* key : {"vmk-identity", "vmK-auth-guid", "vmk-oauth", "vmk-user-id"}) {
            EXPECT_EQ(UserDefaults::standard()->object(key), std::nullopt) << key;
            EXPECT_EQ(persistedValue(file, "velmora-tests", key), std::nullopt) << key << " on disk";
        }
        EXPECT_EQ(UserDefaults::suite("com.velmora.push")->object("device-token"), std::nullopt);
        EXPECT_EQ(persistedValue(file, "com.velmora.push", "device-token"), std::nullopt);
    }

    // Plants `legacy` and checks that `identity` takes none of it over, and that it is deleted all the same.
    void expectRefused(const char* what, const Legacy& legacy, const Identity& identity) {
        SCOPED_TRACE(what);
        plant(legacy);
        EXPECT_FALSE(migrate(identity));
        EXPECT_EQ(identityStore.oauthToken(), std::nullopt);
        EXPECT_EQ(identityStore.userId(), std::nullopt);
        EXPECT_EQ(identityStore.guid(), std::nullopt);
        EXPECT_EQ(sessionStore.pushToken(), std::nullopt);
        expectLegacyGone();
    }

    const IdentityStore identityStore{"app"};
    const SessionStore sessionStore{"app"};
};

// Archives as the earlier generation's platform wrote them, and ways they can be broken.
Data archive(Array objects, PropertyValue root = PropertyUid{1}, std::string archiver = "NSKeyedArchiver") {
    return platform::encodeBinaryPropertyList(Dictionary{{"$version", 100000},
                                                         {"$archiver", std::move(archiver)},
                                                         {"$top", Dictionary{{"root", std::move(root)}}},
                                                         {"$objects", std::move(objects)}});
}
PropertyValue classRecord(const char* name) {
    return Dictionary{{"$classname", name}, {"$classes", Array{name, "NSObject"}}};
}

TEST_F(LegacyIdentityMigratorTest, TheSameIdentityCarriesEverythingOverAndOnlyAnAnonymousOneItsGuid) {
    const auto carriedOver = [&](const Data& legacy, const Identity& identity,
                                 const std::optional<std::string>& guid) {
        SCOPED_TRACE(identity.toJson().dump());
        identityStore.clear();
        sessionStore.clear();
        plant({.archive = legacy, .guid = "OLD-GUID"});
        EXPECT_TRUE(migrate(identity));
        EXPECT_EQ(identityStore.oauthToken(), "old-token");
        EXPECT_EQ(identityStore.userId(), 77);
        EXPECT_EQ(sessionStore.pushToken(), "old-device");
        EXPECT_EQ(identityStore.guid(), guid) << "only anonymous identities take the old GUID";
        expectLegacyGone();
        EXPECT_FALSE(migrate(identity)) << "the legacy data is gone after the first check";
    };
    carriedOver(VMKJwtIdentity("T").archivedData(), Identity::createJwt("T"), std::nullopt);
    carriedOver(VMKAnonymousIdentity("N", "E").archivedData(), Identity::createAnonymous("N", "E"),
                "OLD-GUID");
}

TEST_F(LegacyIdentityMigratorTest, AnotherOrUnreadableIdentityCarriesNothingOverAndIsDeletedAllTheSame) {
    const auto anonymous = VMKAnonymousIdentity("N", "E").archivedData();
    expectRefused("another JWT", {.archive = VMKJwtIdentity("T").archivedData()}, Identity::createJwt("U"));
    expectRefused("another email", {.archive = anonymous, .guid = "OLD-GUID"},
                  Identity::createAnonymous("N", "other@e.example"));
    expectRefused("anonymous without its GUID", {.archive = anonymous}, Identity::createAnonymous("N", "E"));
    const auto foreign = archive({"$null", Dictionary{{"$class", PropertyUid{3}}, {"token", PropertyUid{2}}},
                                  "T", classRecord("NSDate")});
    expectRefused("archive of a foreign class", {.archive = foreign}, Identity::createJwt("T"));
}

TEST_F(LegacyIdentityMigratorTest, ValuesOfTheWrongTypeAreSkippedOneByOne) {
    plant({.archive = VMKAnonymousIdentity(std::nullopt, std::nullopt).archivedData(),
           .guid = "G",
           .oauth = {},
           .userId = {},
           .pushToken = {}});
    UserDefaults::standard()->set("vmk-oauth", 12);
    UserDefaults::standard()->set("vmk-user-id", "12");
    UserDefaults::suite("com.velmora.push")->set("device-token", Data::fromString("raw"));
    EXPECT_TRUE(migrate(Identity::createAnonymous()));
    EXPECT_EQ(identityStore.oauthToken(), std::nullopt);
    EXPECT_EQ(identityStore.userId(), std::nullopt);
    EXPECT_EQ(sessionStore.pushToken(), std::nullopt);
    EXPECT_EQ(identityStore.guid(), "G");
    expectLegacyGone();
}

TEST(KeyedArchiveTest, TheWrittenShapeIsTheRuntimesAndMutableStringsAndNullsRead) {
    const auto written =
        platform::decodeBinaryPropertyList(VMKAnonymousIdentity("N", std::nullopt).archivedData());
    ASSERT_TRUE(written.has_value());
    const auto& top = *written->getIf<Dictionary>();
    EXPECT_EQ(top.at("$archiver"), PropertyValue("NSKeyedArchiver"));
    EXPECT_EQ(top.at("$top"), PropertyValue(Dictionary{{"root", PropertyUid{1}}}));
    const auto& objects = *top.at("$objects").getIf<Array>();
    EXPECT_EQ(objects.at(0), PropertyValue("$null"));
    const auto& root = *objects.at(1).getIf<Dictionary>();
    EXPECT_EQ(root.at("email"), PropertyValue(PropertyUid{0}));

    // A mutable string is archived as an object of its own class.
    const auto mutableName = archive(
        {"$null", Dictionary{{"$class", PropertyUid{4}}, {"name", PropertyUid{2}}, {"email", PropertyUid{0}}},
         Dictionary{{"NS.string", "Ann"}, {"$class", PropertyUid{3}}}, classRecord("NSMutableString"),
         classRecord("VMKAnonymousIdentity")});
    const auto identity = VMKIdentity::unarchiveObjectWithData(mutableName);
    const auto* anonymous = dynamic_cast<const VMKAnonymousIdentity*>(identity.get());
    ASSERT_NE(anonymous, nullptr);
    EXPECT_EQ(anonymous->name, "Ann");
    EXPECT_EQ(anonymous->email, std::nullopt);
}

TEST(KeyedArchiveTest, MalformedArchivesReadAsNoIdentity) {
    const auto good = VMKJwtIdentity("T").archivedData();
    ASSERT_NE(VMKIdentity::unarchiveObjectWithData(good), nullptr);

    const std::pair<const char*, Data> broken[] = {
        {"truncated", Data(good.data(), good.size() / 2)},
        {"empty", Data()},
        {"not a property list", Data::fromString("NSKeyedArchiver token T")},
        {"foreign class", archive({"$null", Dictionary{{"$class", PropertyUid{3}}, {"token", PropertyUid{2}}},
                                   "T", classRecord("NSDate")})},
        {"class record is the root itself",
         archive({"$null", Dictionary{{"$class", PropertyUid{1}}, {"token", "T"}}})},
        {"dangling member",
         archive({"$null", Dictionary{{"$class", PropertyUid{2}}, {"token", PropertyUid{99}}},
                  classRecord("VMKJwtIdentity")})},
        {"root out of range", archive({"$null"}, PropertyUid{5})},
        {"root not a reference", archive({"$null", classRecord("VMKJwtIdentity")}, "root")},
        {"another archiver",
         archive({"$null", Dictionary{{"$class", PropertyUid{2}}}, classRecord("VMKJwtIdentity")},
                 PropertyUid{1}, "NSArchiver")},
        {"class name not text",
         archive({"$null", Dictionary{{"$class", PropertyUid{2}}}, Dictionary{{"$classname", 5}}})},
        {"objects not an array",
         platform::encodeBinaryPropertyList(Dictionary{{"$archiver", "NSKeyedArchiver"},
                                                       {"$top", Dictionary{{"root", PropertyUid{1}}}},
                                                       {"$objects", Dictionary{}}})},
    };
    for (const auto& [what, bytes] : broken) {
        EXPECT_EQ(VMKIdentity::unarchiveObjectWithData(bytes), nullptr) << what;
    }

    // A string whose NS.string refers back to itself ends instead of looping.
    const auto loop = archive({"$null", Dictionary{{"$class", PropertyUid{3}}, {"token", PropertyUid{2}}},
                               Dictionary{{"NS.string", PropertyUid{2}}}, classRecord("VMKJwtIdentity")});
    const auto looped = VMKIdentity::unarchiveObjectWithData(loop);
    ASSERT_NE(looped, nullptr);
    EXPECT_EQ(dynamic_cast<const VMKJwtIdentity&>(*looped).token, std::nullopt);
}

}  // namespace
}  // namespace velmora::testing
