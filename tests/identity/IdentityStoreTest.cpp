// The stored identity, the earlier generation's records it takes over, and the fuzz corpora replayed.
#include "velmora/storage/IdentityStore.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <regex>

#include "fuzz/Targets.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "velmora/platform/UserDefaults.h"
#include "velmora/storage/LegacyIdentityMigrator.h"

namespace velmora::testing {
namespace {

using platform::PropertyUid;
using platform::UserDefaults;
using Dictionary = PropertyValue::Dictionary;
using Array = PropertyValue::Array;
namespace fs = std::filesystem;

class IdentityStoreTest : public LibraryTest {
  protected:
    fs::path file() const { return *environment.dataDirectory / "UserDefaults.sqlite"; }
    std::optional<PropertyValue> persisted(const std::string& key) const {
        const auto dictionary = persistedValue(file(), "com.velmora.core.identity", "app");
        const auto* entries = dictionary ? dictionary->getIf<Dictionary>() : nullptr;
        return entries != nullptr && entries->contains(key) ? std::optional(entries->at(key)) : std::nullopt;
    }

    const IdentityStore store{"app"};
    const SessionStore sessionStore{"app"};
};

bool isUuid(const std::optional<std::string>& text) {
    static const std::regex shape("^[0-9A-F]{8}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{4}-[0-9A-F]{12}$");
    return text && std::regex_match(*text, shape);
}

TEST_F(IdentityStoreTest, ANewIdentityRenewsTheUuidAndGivesOnlyAnonymousUsersAGuidAnEqualOneKeepsThem) {
    store.update(IdentityStore::authTokenKey, "token-1");
    store.update(IdentityStore::userIdKey, 42);
    store.store(Identity::createAnonymous("Ann", std::nullopt));
    const auto first = std::pair(store.guid(), store.uuid());
    EXPECT_TRUE(isUuid(first.first) && isUuid(first.second) && first.first != first.second);
    // Every store forgets the user id; the token is cleared by the session clearing, not by store.
    EXPECT_EQ(std::tuple(store.userId(), store.oauthToken()), std::tuple(std::nullopt, "token-1"));

    store.store(Identity::createAnonymous("Bob", std::nullopt));
    const auto second = std::pair(store.guid(), store.uuid());
    EXPECT_TRUE(second.first != first.first && second.second != first.second) << "both renewed";

    // An equal identity rewrites only itself.
    store.update(IdentityStore::userIdKey, 0);
    store.storeIdentityOnly(Identity(Anonymous{"Bob", std::nullopt, "SOMETHING-ELSE"}));
    EXPECT_EQ(std::tuple(store.guid(), store.uuid(), store.oauthToken(), store.userId(), persisted("user_id"),
                         store.identity()->anonymous()->guid),
              std::tuple(second.first, second.second, "token-1", 0, PropertyValue(0), "SOMETHING-ELSE"))
        << "zero is a user id, not its absence";

    store.store(Identity::createJwt("T"));
    EXPECT_EQ(persisted("guid"), std::nullopt);
    EXPECT_EQ(persisted("uuid"), PropertyValue(store.uuid()));
    EXPECT_EQ(persisted("identity"), PropertyValue(Data::fromString(R"({"jwt":{"token":"T"}})")));
}

TEST_F(IdentityStoreTest, MalformedValuesReadAsAbsentAndAnUnencodableIdentityIsNotStored) {
    const auto suite = UserDefaults::suite(IdentityStore::suite);
    suite->set("app", Dictionary{{"identity", Data::fromString(R"({"jwt": {}})")},
                                 {"guid", 7},
                                 {"uuid", Data()},
                                 {"auth_token", true},
                                 {"user_id", "42"}});
    EXPECT_TRUE(!store.identity() && !store.guid() && store.uuid().empty() && !store.oauthToken() &&
                !store.userId());
    suite->set("app", Dictionary{{"identity", "text"}});
    EXPECT_EQ(store.identity(), std::nullopt);

    store.store(Identity::createJwt("T"));
    store.storeIdentityOnly(Identity::createJwt("\xff"));
    EXPECT_EQ(std::tuple(store.identity(), isUuid(store.uuid())), std::tuple(std::nullopt, true));
}

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

using LegacyIdentityMigratorTest = IdentityStoreTest;

// Only the same identity takes the records over (only an anonymous one its GUID; values of the wrong type are
// skipped one by one); the records are deleted all the same, on disk.
TEST_F(LegacyIdentityMigratorTest, OnlyTheSameIdentityTakesTheRecordsOverAndTheyAreDeletedAllTheSame) {
    struct Legacy {  // what the earlier generation left behind
        std::optional<PropertyValue> archive = std::nullopt, guid = std::nullopt;
        std::optional<PropertyValue> oauth = PropertyValue("old-token"), userId = PropertyValue(77);
        std::optional<PropertyValue> pushToken = PropertyValue("old-device");
    };
    // The token, the user id, the GUID and the push token.
    using Carried = std::tuple<std::optional<std::string>, std::optional<std::int64_t>,
                               std::optional<std::string>, std::optional<std::string>>;
    const auto jwt = VMKJwtIdentity("T").archivedData();
    const auto anonymous = VMKAnonymousIdentity("N", "E").archivedData();
    // The identities they hold.
    const auto jwtT = Identity::createJwt("T"), anonNE = Identity::createAnonymous("N", "E");
    const struct {
        const char* what;
        Legacy legacy;
        Identity identity;
        Carried carried;  // all empty: nothing was taken over, and the check says so
    } cases[] = {
        {"same JWT", {.archive = jwt, .guid = "G"}, jwtT, {"old-token", 77, std::nullopt, "old-device"}},
        {"same anonymous", {.archive = anonymous, .guid = "G"}, anonNE, {"old-token", 77, "G", "old-device"}},
        {"values of the wrong type",
         {.archive = VMKAnonymousIdentity(std::nullopt, std::nullopt).archivedData(),
          .guid = "G",
          .oauth = 12,
          .userId = "12",
          .pushToken = Data::fromString("raw")},
         Identity::createAnonymous(),
         {std::nullopt, std::nullopt, "G", std::nullopt}},
        {"another JWT", {.archive = jwt}, Identity::createJwt("U"), {}},
        {"another email", {.archive = anonymous, .guid = "G"}, Identity::createAnonymous("N", "F"), {}},
        {"anonymous without its GUID", {.archive = anonymous}, anonNE, {}},
        {"unreadable archive", {.archive = Data::fromString("junk")}, jwtT, {}}};
    const ApplicationConfiguration app("app", "client", "https://a.example");
    for (const auto& c : cases) {
        SCOPED_TRACE(c.what);
        store.clear(), sessionStore.clear();
        // On disk, as a later launch finds them; then deleted on disk, as the next launch reads them.
        const std::tuple<const char*, const char*, std::optional<PropertyValue>> records[] = {
            {"velmora-tests", "vmk-identity", c.legacy.archive},
            {"velmora-tests", "vmK-auth-guid", c.legacy.guid},
            {"velmora-tests", "vmk-oauth", c.legacy.oauth},
            {"velmora-tests", "vmk-user-id", c.legacy.userId},
            {"com.velmora.push", "device-token", c.legacy.pushToken}};
        for (const auto& [suite, key, value] : records) {
            if (value) {
                const auto defaults = UserDefaults::suite(suite);  // "velmora-tests": the standard defaults
                defaults->set(key, *value);
                ASSERT_TRUE(defaults->synchronize());
            }
        }
        EXPECT_EQ(LegacyIdentityMigrator(app, c.identity).checkedAndMigratedIdentity(),
                  c.carried != Carried{});
        EXPECT_EQ((Carried{store.oauthToken(), store.userId(), store.guid(), sessionStore.pushToken()}),
                  c.carried);
        for (const auto& [suite, key, value] : records) {
            EXPECT_EQ(persistedValue(file(), suite, key), std::nullopt) << key;
        }
        EXPECT_FALSE(LegacyIdentityMigrator(app, c.identity).checkedAndMigratedIdentity())
            << "the records are gone after the first check";
    }
}

// That what is written reads back, archiver and all, is checked by LegacyIdentityMigratorTest's cases.
TEST(KeyedArchiveTest, TheWrittenShapeIsTheRuntimesMutableStringsAndNullsReadAndMalformedArchivesReadAsNone) {
    const auto top =
        *platform::decodeBinaryPropertyList(VMKAnonymousIdentity("N", std::nullopt).archivedData())
             ->getIf<Dictionary>();
    EXPECT_EQ(top.at("$objects").getIf<Array>()->at(1).getIf<Dictionary>()->at("email"),
              PropertyValue(PropertyUid{0}))
        << "an absent member refers to $null";

    // A mutable string is archived as an object of its own class.
    const auto identity = VMKIdentity::unarchiveObjectWithData(archive(
        {"$null", Dictionary{{"$class", PropertyUid{4}}, {"name", PropertyUid{2}}, {"email", PropertyUid{0}}},
         Dictionary{{"NS.string", "Ann"}, {"$class", PropertyUid{3}}}, classRecord("NSMutableString"),
         classRecord("VMKAnonymousIdentity")}));
    const auto* anonymous = dynamic_cast<const VMKAnonymousIdentity*>(identity.get());
    ASSERT_NE(anonymous, nullptr);
    EXPECT_EQ(std::tuple(anonymous->name, anonymous->email), std::tuple("Ann", std::nullopt));

    // Malformed archives read as no identity.
    const auto good = VMKJwtIdentity("T").archivedData();
    const std::pair<const char*, Data> broken[] = {
        {"truncated", Data(good.data(), good.size() / 2)},
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
    const auto looped = VMKIdentity::unarchiveObjectWithData(
        archive({"$null", Dictionary{{"$class", PropertyUid{3}}, {"token", PropertyUid{2}}},
                 Dictionary{{"NS.string", PropertyUid{2}}}, classRecord("VMKJwtIdentity")}));
    ASSERT_NE(looped, nullptr);
    EXPECT_EQ(dynamic_cast<const VMKJwtIdentity&>(*looped).token, std::nullopt);
}

// Every seed and former finding goes through its target again (which aborts on a broken invariant).
TEST(FuzzRegressionTest, SeedsAndFormerFindingsAllPassTheirTargets) {
    std::size_t replayed = 0;
    for (const char* set : {"corpus", "regressions"}) {
        for (const auto& directory : fs::directory_iterator(fs::path(VELMORA_FUZZ_DIR) / set)) {
            const auto target = fuzz::targetNamed(directory.path().filename().string());
            ASSERT_NE(target, nullptr) << "no fuzz target for " << directory.path();
            for (const auto& input : fs::directory_iterator(directory.path())) {
                if (!input.path().filename().string().starts_with(".")) {
                    const auto bytes = readFile(input.path());
                    target(reinterpret_cast<const std::uint8_t*>(bytes.data()), bytes.size());
                    ++replayed;
                }
            }
        }
    }
    EXPECT_GE(replayed, 22u) << "the seed corpora went missing";
}

}  // namespace
}  // namespace velmora::testing
