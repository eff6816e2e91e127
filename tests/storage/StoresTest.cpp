#include "velmora/storage/Stores.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "velmora/core/AccountStorageStrategy.h"
#include "velmora/platform/Utf8.h"

namespace velmora::testing {
namespace {

using platform::UserDefaults;
using Dictionary = PropertyValue::Dictionary;
namespace fs = std::filesystem;

class StoresTest : public LibraryTest {
  protected:
    fs::path file() const { return *environment.dataDirectory / "UserDefaults.sqlite"; }
    fs::path velmoraCache() const { return *environment.cachesDirectory / "velmora"; }
    void fillCache() {
        fs::create_directories(velmoraCache() / "images");
        std::ofstream(velmoraCache() / "images" / "a.png") << "png";
    }
};

TEST_F(StoresTest, SessionStoreReplacesANonDictionaryWritesThroughToDiskAndLogsEachStep) {
    UserDefaults::suite(SessionStore::suite)->set("app", "not a dictionary");
    const SessionStore store("app");
    EXPECT_TRUE(store.storage().empty());
    EXPECT_TRUE(store.store(PropertyValue("tok"), "pushToken"));
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.session", "app"),
              PropertyValue(Dictionary{{"pushToken", "tok"}}));

    store.updatePushToken(std::nullopt);  // an empty value removes the key, and still synchronizes
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.session", "app"), PropertyValue(Dictionary{}));
    EXPECT_TRUE(logs->contains("[DEBUG]: storing nil with key pushToken in session store with app id: app."));

    EXPECT_TRUE(store.store(PropertyValue(42), "pushToken"));
    EXPECT_EQ(store.pushToken(), std::nullopt) << "a token of another kind is no token";
}

TEST_F(StoresTest, AStoreThatCannotReachTheDiskIsReportedAndChangesNothing) {
    std::ofstream(root / "in-the-way") << "a file where the data directory should be";
    environment.dataDirectory = root / "in-the-way" / "data";
    reinstallEnvironment();
    const SessionStore store("app");
    EXPECT_FALSE(store.store(PropertyValue("v"), "k"));
    EXPECT_TRUE(logs->contains("[DEBUG]: failed to store k in session store."));
    EXPECT_EQ(store.value("k"), std::nullopt) << "what was not stored is not shown either";

    environment.dataDirectory.reset();
    reinstallEnvironment();
    const SessionStore inMemory("app");
    EXPECT_TRUE(inMemory.store(PropertyValue("v"), "k")) << "without a data directory, memory is the store";
    EXPECT_EQ(inMemory.value("k"), PropertyValue("v"));
}

TEST_F(StoresTest, SettingsStoreKeepsTheDocumentAndWhenAnyAppIdLastStoredOne) {
    const SettingsStore store("app");
    const auto before = Date::now();
    EXPECT_LE(std::abs(store.updatedAt().timeIntervalSince(before)), 1.0) << "nothing stored: now";
    store.setData(std::nullopt);
    EXPECT_TRUE(logs->lines().empty()) << "writing nothing does nothing";

    const auto document = Data::fromString(R"({"core":{}})");
    store.setData(document);
    EXPECT_EQ(store.settings(), document);
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.settings", "updated_at"),
              PropertyValue(store.updatedAt()));
    EXPECT_GE(store.updatedAt(), before);

    // The stamp is shared by all app ids; the document is not.
    EXPECT_EQ(SettingsStore("other").updatedAt(), store.updatedAt());
    EXPECT_EQ(SettingsStore("other").settings(), std::nullopt);
}

TEST_F(StoresTest, EachClearRemovesExactlyItsShareOfTheState) {
    const Stores stores("app");
    // The account is its URL and app id alone: another client id is the same account.
    const ApplicationConfiguration account("app", "client", "https://a.example"),
        same("app", "x", "https://a.example");
    // Identity, push token, settings, cache directory, account record.
    const std::pair<void (Stores::*)() const, std::vector<bool>> clears[] = {
        {&Stores::clearSession, {false, false, true, false, true}},
        {&Stores::clearSettingsAndSession, {true, false, false, true, true}},
        {&Stores::clearAll, {false, false, false, false, true}}};
    for (const auto& [clear, kept] : clears) {
        UserDefaults::suite(IdentityStore::suite)->set("app", Dictionary{{"uuid", "U"}});
        ASSERT_TRUE(stores.sessionStore().store(PropertyValue("tok"), "pushToken"));
        ASSERT_TRUE(stores.settingStore().storeSettings(Data::fromString("{}")));
        ASSERT_TRUE(stores.accountStore().store(account).isSuccess());
        fillCache();
        (stores.*clear)();
        EXPECT_EQ((std::vector<bool>{!stores.identityStore().storage().empty(),
                                     stores.sessionStore().pushToken().has_value(),
                                     stores.settingStore().settings().has_value(), fs::exists(velmoraCache()),
                                     stores.accountStore().storedAccount(same)}),
                  kept);
    }
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.settings", "app"), std::nullopt);
}

TEST_F(StoresTest, ClearingTheCacheDirectoryLogsOnlyRealFailures) {
    const CoreCacheDirectoryManager manager;
    manager.remove(velmoraCache());
    EXPECT_EQ(logs->lines(), std::vector<std::string>{"[ERROR]: Attempt to clear cache errored: The folder "
                                                      "\u201cvelmora\u201d doesn\u2019t exist."});

    logs->clear();
    fs::create_directories(velmoraCache() / ".state");
    std::ofstream(velmoraCache() / ".hidden") << "x";
    manager.remove(velmoraCache());
    EXPECT_TRUE(fs::exists(velmoraCache() / ".hidden")) << "only hidden entries: left in place";
    fillCache();
    manager.remove(manager.cacheDirectoryURL());
    EXPECT_FALSE(fs::exists(velmoraCache()));
    EXPECT_TRUE(logs->lines().empty());

    environment.cachesDirectory.reset();
    reinstallEnvironment();
    Stores("app").clearSession();
    EXPECT_TRUE(
        logs->contains("[ERROR]: Attempt to clear cache errored: Cache director URL is nil. "
                       "NSSearchPathForDirectoriesInDomains may have returned nil."));
}

// Details that are not text are never recorded, but a new account of them still wipes the storage.
TEST_F(StoresTest, TheAccountKeyJoinsUrlAndAppIdAndDetailsThatAreNotTextAreNeverRecorded) {
    const ApplicationConfiguration details("app-1", "client-1", "https://acme.velmora.com");
    const AccountStore store;
    EXPECT_FALSE(store.storedAccount(details)) << "nothing recorded: no match";
    ASSERT_TRUE(store.store(details).isSuccess());
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.account", "account-id"),
              PropertyValue("aHR0cHM6Ly9hY21lLnZlbG1vcmEuY29tYXBwLTE="));
    EXPECT_TRUE(store.storedAccount(ApplicationConfiguration("1", "c", "https://acme.velmora.comapp-")))
        << "URL a + app id bc is the same account as URL ab + app id c";
    EXPECT_FALSE(store.storedAccount(ApplicationConfiguration("app-2", "c", "https://acme.velmora.com")));

    const auto stores = std::make_shared<Stores>("app");
    ASSERT_TRUE(stores->sessionStore().store(PropertyValue("tok"), "pushToken"));
    const auto broken = std::make_shared<ApplicationConfiguration>("app\xff", "client", "u");
    EXPECT_TRUE(store.store(*broken).isError());
    NewAccountStorageStrategy(broken, stores).execute();
    EXPECT_EQ(stores->sessionStore().pushToken(), std::nullopt);
    EXPECT_TRUE(store.storedAccount(details)) << "the old record stays";

    UserDefaults::suite(AccountStore::suite)->set("account-id", 7);
    EXPECT_FALSE(store.storedAccount(details)) << "a record that is not text matches nothing";

    EXPECT_TRUE(platform::isValidUtf8("plain caf\u00e9 \U0001F600"));
    for (const char* bad : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
        EXPECT_FALSE(platform::isValidUtf8(bad)) << "overlong, surrogate, too large, truncated or stray";
    }
}

TEST(StoresDeathTest, ASuiteThePlatformRefusesIsFatal) {
    platform::Environment::install(platform::Environment::linuxDefaults("velmora-tests"));
    EXPECT_DEATH(AppStorable("", "app"), "Fatal error: failed to load suite named \n");
}

}  // namespace
}  // namespace velmora::testing
