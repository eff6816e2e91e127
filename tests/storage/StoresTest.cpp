#include "velmora/storage/Stores.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"

namespace velmora::testing {
namespace {

using platform::UserDefaults;
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

TEST_F(StoresTest, SessionStoreWritesThroughToDiskAndLogsEachStep) {
    const SessionStore store("app");
    EXPECT_TRUE(store.store(PropertyValue("tok"), "pushToken"));
    EXPECT_EQ(store.pushToken(), "tok");
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.session", "app"),
              PropertyValue(PropertyValue::Dictionary{{"pushToken", "tok"}}));

    // An empty value removes the key, and still synchronizes and logs.
    store.updatePushToken(std::nullopt);
    EXPECT_EQ(store.pushToken(), std::nullopt);
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.session", "app"),
              PropertyValue(PropertyValue::Dictionary{}));
    EXPECT_EQ(logs->lines(), (std::vector<std::string>{
                                 "[DEBUG]: storing tok with key pushToken in session store with app id: app.",
                                 "[DEBUG]: successfully stored pushToken in session store.",
                                 "[DEBUG]: storing nil with key pushToken in session store with app id: app.",
                                 "[DEBUG]: successfully stored pushToken in session store.",
                             }));

    // A token of another kind is no token.
    EXPECT_TRUE(store.store(PropertyValue(42), "pushToken"));
    EXPECT_EQ(store.pushToken(), std::nullopt);
    EXPECT_EQ(store.value("pushToken"), PropertyValue(42));
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

TEST_F(StoresTest, ANonDictionaryUnderTheAppIdReadsAsEmptyAndIsReplacedOnTheNextStore) {
    UserDefaults::suite(SessionStore::suite)->set("app", "not a dictionary");
    const SessionStore store("app");
    EXPECT_TRUE(store.storage().empty());
    EXPECT_EQ(store.value("anything"), std::nullopt);
    EXPECT_TRUE(store.store(PropertyValue(1), "key"));
    EXPECT_EQ(UserDefaults::suite(SessionStore::suite)->object("app"),
              PropertyValue(PropertyValue::Dictionary{{"key", 1}}));
}

TEST_F(StoresTest, SettingsStoreKeepsTheDocumentAndWhenAnyAppIdLastStoredOne) {
    const SettingsStore store("app");
    const auto before = Date::now();
    EXPECT_LE(std::abs(store.updatedAt().timeIntervalSince(before)), 1.0) << "nothing stored: now";
    EXPECT_EQ(store.data(), std::nullopt);

    store.setData(std::nullopt);
    EXPECT_TRUE(logs->lines().empty()) << "writing nothing does nothing";

    const auto document = Data::fromString(R"({"core":{}})");
    store.setData(document);
    EXPECT_EQ(store.settings(), document);
    EXPECT_EQ(logs->lines(), (std::vector<std::string>{
                                 "[DEBUG]: storing settings with app id: app.",
                                 "[DEBUG]: successfully stored settings with app id: app.",
                                 "[DEBUG]: Settings cached.",
                             }));
    const auto stamped = persistedValue(file(), "com.velmora.core.settings", "updated_at");
    ASSERT_TRUE(stamped && stamped->is<Date>());
    EXPECT_EQ(store.updatedAt(), *stamped->getIf<Date>());
    EXPECT_GE(store.updatedAt(), before);

    // The stamp is shared by all app ids; the document is not.
    const SettingsStore other("other");
    EXPECT_EQ(other.updatedAt(), store.updatedAt());
    EXPECT_EQ(other.settings(), std::nullopt);
}

TEST_F(StoresTest, EachClearRemovesExactlyItsShareOfTheState) {
    const Stores stores("app");
    auto fill = [&] {
        UserDefaults::suite(IdentityStore::suite)->set("app", PropertyValue::Dictionary{{"uuid", "U"}});
        ASSERT_TRUE(stores.sessionStore().store(PropertyValue("tok"), "pushToken"));
        ASSERT_TRUE(stores.settingStore().storeSettings(Data::fromString("{}")));
        ASSERT_TRUE(stores.accountStore()
                        .store(ApplicationConfiguration("app", "client", "https://a.example"))
                        .isSuccess());
        fillCache();
    };
    auto state = [&] {
        return std::vector<bool>{
            !stores.identityStore().storage().empty(), stores.sessionStore().pushToken().has_value(),
            stores.settingStore().settings().has_value(), fs::exists(velmoraCache()),
            stores.accountStore().storedAccount(ApplicationConfiguration("app", "x", "https://a.example"))};
    };
    fill();
    stores.clearSession();
    EXPECT_EQ(state(), (std::vector<bool>{false, false, true, false, true}));

    fill();
    stores.clearSettingsAndSession();
    EXPECT_EQ(state(), (std::vector<bool>{true, false, false, true, true}));

    fill();
    stores.clearAll();
    EXPECT_EQ(state(), (std::vector<bool>{false, false, false, false, true}));
    EXPECT_EQ(persistedValue(file(), "com.velmora.core.settings", "app"), std::nullopt);
}

TEST_F(StoresTest, ClearingTheCacheDirectoryLogsOnlyRealFailures) {
    const CoreCacheDirectoryManager manager;
    ASSERT_EQ(manager.cacheDirectoryURL(), velmoraCache());

    manager.remove(manager.cacheDirectoryURL());
    EXPECT_EQ(
        logs->lines(),
        (std::vector<std::string>{
            "[ERROR]: Attempt to clear cache errored: The folder \u201cvelmora\u201d doesn\u2019t exist."}));

    logs->clear();
    fs::create_directories(velmoraCache() / ".state");
    std::ofstream(velmoraCache() / ".hidden") << "x";
    manager.remove(manager.cacheDirectoryURL());
    EXPECT_TRUE(fs::exists(velmoraCache() / ".hidden")) << "only hidden entries: left in place";
    EXPECT_TRUE(logs->lines().empty());

    fillCache();
    manager.remove(manager.cacheDirectoryURL());
    EXPECT_FALSE(fs::exists(velmoraCache()));
    EXPECT_TRUE(logs->lines().empty());
}

TEST_F(StoresTest, AHostWithoutACachesDirectoryHasNoCacheDirectory) {
    environment.cachesDirectory.reset();
    reinstallEnvironment();
    const Stores stores("app");
    EXPECT_EQ(stores.cacheDirectory(), std::nullopt);
    stores.clearSession();
    EXPECT_TRUE(
        logs->contains("[ERROR]: Attempt to clear cache errored: Cache director URL is nil. "
                       "NSSearchPathForDirectoriesInDomains may have returned nil."));
}

TEST(StoresDeathTest, ASuiteThePlatformRefusesIsFatal) {
    platform::Environment::install(platform::Environment::linuxDefaults("velmora-tests"));
    EXPECT_DEATH(AppStorable("", "app"), "Fatal error: failed to load suite named \n");
}

}  // namespace
}  // namespace velmora::testing
