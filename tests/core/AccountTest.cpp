#include "velmora/support/AccountDetails.h"

#include <gtest/gtest.h>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "velmora/core/AccountStorageStrategy.h"
#include "velmora/platform/Utf8.h"

namespace velmora::testing {
namespace {

class AccountTest : public LibraryTest {};

TEST_F(AccountTest, TheAccountKeyJoinsUrlAndAppIdAndIgnoresTheClientId) {
    const ApplicationConfiguration details("app-1", "client-1", "https://acme.velmora.com");
    EXPECT_EQ(details.base64(), "aHR0cHM6Ly9hY21lLnZlbG1vcmEuY29tYXBwLTE=");

    const AccountStore store;
    EXPECT_FALSE(store.storedAccount(details)) << "nothing recorded: no match";
    ASSERT_TRUE(store.store(details).isSuccess());
    EXPECT_TRUE(
        store.storedAccount(ApplicationConfiguration("app-1", "another client", "https://acme.velmora.com")));
    EXPECT_TRUE(
        store.storedAccount(ApplicationConfiguration("1", "client-1", "https://acme.velmora.comapp-")))
        << "URL a + app id bc is the same account as URL ab + app id c";
    EXPECT_FALSE(
        store.storedAccount(ApplicationConfiguration("app-2", "client-1", "https://acme.velmora.com")));

    platform::UserDefaults::suite(AccountStore::suite)->set("account-id", 7);
    EXPECT_FALSE(store.storedAccount(details)) << "a record that is not text matches nothing";
}

TEST_F(AccountTest, DetailsThatAreNotTextCannotBeRecorded) {
    const ApplicationConfiguration broken("app\xff", "client", "https://acme.velmora.com");
    EXPECT_EQ(broken.base64(), std::nullopt);
    const auto result = AccountStore().store(broken);
    ASSERT_TRUE(result.isError());
    EXPECT_EQ(result.error().domain(), "VelmoraCoreSDK.AccountStoreError");
    EXPECT_EQ(result.error().code(), 0);

    EXPECT_TRUE(platform::isValidUtf8("plain caf\u00e9 \U0001F600"));
    for (const char* bad : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
        EXPECT_FALSE(platform::isValidUtf8(bad))
            << "overlong, surrogate, too large, truncated or stray continuation";
    }
}

TEST_F(AccountTest, ANewAccountWipesTheOldOneAndIsRecordedWhileAnExistingOneKeepsEverything) {
    const auto stores = std::make_shared<Stores>("app");
    const auto details =
        std::make_shared<ApplicationConfiguration>("app", "client", "https://acme.velmora.com");
    ASSERT_TRUE(stores->sessionStore().store(PropertyValue("tok"), "pushToken"));
    logs->clear();

    ExistingAccountStorageStrategy(details, stores).execute();
    EXPECT_EQ(stores->sessionStore().pushToken(), "tok");
    EXPECT_EQ(logs->lines(),
              (std::vector<std::string>{"[DEBUG]: Initialized with existing stored details."}));

    logs->clear();
    NewAccountStorageStrategy(details, stores).execute();
    EXPECT_EQ(stores->sessionStore().pushToken(), std::nullopt);
    EXPECT_TRUE(AccountStore().storedAccount(*details));
    EXPECT_EQ(persistedValue(*environment.dataDirectory / "UserDefaults.sqlite", "com.velmora.core.account",
                             "account-id"),
              PropertyValue(*details->base64()));
    const auto lines = logs->lines();
    ASSERT_FALSE(lines.empty());
    EXPECT_EQ(lines.front(), "[DEBUG]: Initialized with a different SDK configuration. Clearing storage.");

    // Details that cannot be recorded: storage is still wiped, the old record stays, nothing is logged about
    // it.
    ASSERT_TRUE(stores->sessionStore().store(PropertyValue("tok"), "pushToken"));
    NewAccountStorageStrategy(std::make_shared<ApplicationConfiguration>("\xff", "c", "u"), stores).execute();
    EXPECT_EQ(stores->sessionStore().pushToken(), std::nullopt);
    EXPECT_TRUE(AccountStore().storedAccount(*details));
}

}  // namespace
}  // namespace velmora::testing
