#include "velmora/blips/BlipsProvider.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SettingsStore.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

class BlipsProviderTest : public LibraryTest {
  protected:
    BlipsProviderTest() {
        details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
        identity = std::make_shared<IdentityStore>("app");
        identity->store(Identity::createAnonymous("Ann", std::nullopt));
    }

    BlipsProvider provider() const {
        return BlipsProvider(details, identity, std::make_shared<SettingsProvider>(details));
    }
    void storePermissions(bool required, bool behavioural) {
        auto document = AccountServer::defaultSettings();
        document["blips"]["permissions"] = {
            {"required", required}, {"behavioural", behavioural}, {"trailmark", false}};
        ASSERT_TRUE(SettingsStore("app").storeSettings(Data::fromString(document.dump())));
    }
    static UserAction pushOn() {
        return UserAction{"2.0.0", "PushOn", "core_sdk", "CoreSDK", std::nullopt, std::nullopt};
    }

    Watchdog watchdog{60s, "blips provider test"};
    AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details;
    std::shared_ptr<IdentityStore> identity;
};

TEST_F(BlipsProviderTest, OnlyPermittedGroupsAreSentAndEventsNeverLogIn) {
    storePermissions(true, false);
    identity->update(IdentityStore::authTokenKey, "secret");
    provider().send(UserAction{"1.0", "Tapped", "app", "UI", "label", json{{"n", 1}}},
                    BlipsGroup::behavioural);
    provider().send(pushOn(), BlipsGroup::required);
    ASSERT_TRUE(logs->waitFor("[DEBUG]: Blip was blipped successfully"));

    const auto sent = server.requests("GET", "/embeddable_blip");
    ASSERT_EQ(sent.size(), 1u) << "the behavioural event is dropped";
    EXPECT_EQ(sent[0].header("Authorization"), std::nullopt);
    EXPECT_EQ(sent[0].header("Client-Identifier"), "client");
    EXPECT_TRUE(server.requests("POST", "/access/sdk/anonymous").empty());
    const auto event = server.state()["events"].at(0);
    EXPECT_EQ(event["uuid"], identity->uuid());
    EXPECT_EQ(event["schemaVersion"], "1");
    EXPECT_EQ(event["userAction"]["action"], "PushOn");
    EXPECT_TRUE(logs->linesStartingWith("[DEBUG]: Unable to blip").empty());
}

TEST_F(BlipsProviderTest, TheBase64GoesIntoTheQueryUnescaped) {
    const auto url = BlipsProvider::blipURL(Data::fromString("\xfb\xff"), *details);
    EXPECT_EQ(url.value().absoluteString(), server.url() + "/embeddable_blip?data=+/8=");
}

TEST_F(BlipsProviderTest, NoStoredSettingsMeanNoPermissionAndTransportFailuresAreLogged) {
    provider().send(pushOn(), BlipsGroup::required);
    EXPECT_TRUE(logs->contains("[DEBUG]: Returning default settings for BlipsSettings. No data in cache."));

    storePermissions(true, true);
    server.script("GET", "/embeddable_blip", {.status = 200, .drop = true});
    provider().send(PageView{"1.0", "web", "https://h", "Help", "fr", std::nullopt}, BlipsGroup::behavioural);
    ASSERT_TRUE(server.waitForRequests(1));
    for (int i = 0;
         i < 200 && logs->linesStartingWith("[DEBUG]: Unable to blip Error Domain=NSURLErrorDomain").empty();
         ++i) {
        std::this_thread::sleep_for(25ms);
    }
    EXPECT_EQ(
        logs->linesStartingWith("[DEBUG]: Unable to blip Error Domain=NSURLErrorDomain Code=-1005").size(),
        1u);
    EXPECT_EQ(server.requests("GET", "/embeddable_blip").size(), 1u)
        << "only the permitted page view went out";
}

}  // namespace
}  // namespace velmora::testing
