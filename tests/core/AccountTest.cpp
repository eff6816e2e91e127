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
    const AccountStore store;
    EXPECT_FALSE(store.storedAccount(details)) << "nothing recorded: no match";
    ASSERT_TRUE(store.store(details).isSuccess());
    EXPECT_EQ(persistedValue(*environment.dataDirectory / "UserDefaults.sqlite", "com.velmora.core.account",
                             "account-id"),
              PropertyValue("aHR0cHM6Ly9hY21lLnZlbG1vcmEuY29tYXBwLTE="));
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

TEST_F(AccountTest, DetailsThatAreNotTextAreNeverRecordedButANewAccountOfThemStillWipesTheStorage) {
    const auto details =
        std::make_shared<ApplicationConfiguration>("app", "client", "https://acme.velmora.com");
    ASSERT_TRUE(AccountStore().store(*details).isSuccess());
    const auto stores = std::make_shared<Stores>("app");
    ASSERT_TRUE(stores->sessionStore().store(PropertyValue("tok"), "pushToken"));

    const auto broken = std::make_shared<ApplicationConfiguration>("app\xff", "client", "u");
    EXPECT_EQ(broken->base64(), std::nullopt);
    EXPECT_TRUE(AccountStore().store(*broken).isError());
    NewAccountStorageStrategy(broken, stores).execute();
    EXPECT_EQ(stores->sessionStore().pushToken(), std::nullopt);
    EXPECT_TRUE(AccountStore().storedAccount(*details)) << "the old record stays";

    EXPECT_TRUE(platform::isValidUtf8("plain caf\u00e9 \U0001F600"));
    for (const char* bad : {"\xc0\xaf", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xe2\x82", "\x80"}) {
        EXPECT_FALSE(platform::isValidUtf8(bad))
            << "overlong, surrogate, too large, truncated or stray continuation";
    }
}

}  // namespace
}  // namespace velmora::testing
