#include "velmora/push/PushRegistrationProvider.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

class PushRegistrationTest : public LibraryTest {
  protected:
    PushRegistrationTest() {
        details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
        identity = std::make_shared<IdentityStore>("app");
        identity->store(Identity::createAnonymous("Ann", std::nullopt));
    }

    PushRegistrationProvider provider() const {
        return PushRegistrationProvider(
            details, identity, BlipsProvider(details, identity, std::make_shared<SettingsProvider>(details)),
            std::make_shared<SessionStore>("app"));
    }
    Result<PushRegistrationResponse> registerDevice(const std::string& identifier, bool channel = false) {
        Awaited<Result<PushRegistrationResponse>> result;
        channel ? provider().registerForPushWithUAChannelId(identifier, "en-gb", result.callback())
                : provider().registerForPush(identifier, "en-gb", result.callback());
        return result.wait();
    }
    Watchdog watchdog{60s, "push registration test"};
    AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details;
    std::shared_ptr<IdentityStore> identity;
};

TEST_F(PushRegistrationTest, RegisteringTheSameIdentifierTwiceMakesOneRequestAndTwoPushOnEvents) {
    EXPECT_EQ(registerDevice("device-token").value().identifier, "device-token");
    EXPECT_EQ(SessionStore("app").pushToken(), "device-token");
    EXPECT_EQ(registerDevice("device-token").value().identifier, "device-token");
    EXPECT_TRUE(logs->contains(
        "[DEBUG]: Skipping registration because device is already registered with this identifier."));

    const auto posted = server.requests("POST", "/api/mobile/push_notification_devices.json");
    ASSERT_EQ(posted.size(), 1u);
    EXPECT_EQ(posted[0].body,
              R"({"push_notification_device":{"identifier":"device-token","device_type":"iphone",)"
              R"("locale":"en-gb","sdk_guid":")" +
                  *identity->guid() + R"("}})");
    EXPECT_TRUE(server.waitForEvents("PushOn", 2));

    EXPECT_EQ(registerDevice("channel-1", true).value().identifier, "channel-1");
    EXPECT_NE(server.requests("POST", "/api/mobile/push_notification_devices.json")
                  .at(1)
                  .body.find(R"("locale":"en-gb","token_type":"urban_airship_channel_id","sdk_guid":)"),
              std::string::npos);
}

TEST_F(PushRegistrationTest, ARejectedRegistrationIsCode2000WithTheStatusAndKeepsTheStoredIdentifier) {
    ASSERT_TRUE(registerDevice("old").isSuccess());
    server.script("POST", "/api/mobile/push_notification_devices.json",
                  {.status = 404, .body = R"({"error": "NotFound"})"});
    const auto rejected = registerDevice("new");
    ASSERT_TRUE(rejected.isError());
    EXPECT_EQ(rejected.error().domain(), "com.velmora.sdk.core");
    EXPECT_EQ(rejected.error().code(), 2000);
    EXPECT_EQ(rejected.error().userInfo().at("HTTP Status code"), 404);
    EXPECT_EQ(rejected.error().localizedDescription(), "not found");
    EXPECT_EQ(SessionStore("app").pushToken(), "old");
}

TEST_F(PushRegistrationTest, UnregisteringClearsTheIdentifierAndSendsPushOffOnlyWhenThereIsOne) {
    provider().unregisterForPush();
    EXPECT_TRUE(logs->contains(
        "[DEBUG]: unregisterForPush() was called with no stored push identifier, cannot unregister"));
    EXPECT_TRUE(server.requests().empty());

    ASSERT_TRUE(registerDevice("device-token").isSuccess());
    provider().unregisterForPush();
    ASSERT_TRUE(logs->waitFor("[DEBUG]: Push unregistration successful"));
    EXPECT_EQ(server.requests("DELETE", "/api/mobile/push_notification_devices/device-token.json").size(),
              1u);
    EXPECT_EQ(SessionStore("app").pushToken(), std::nullopt);
    EXPECT_TRUE(server.waitForEvents("PushOff", 1));
    EXPECT_TRUE(server.state()["devices"].empty());
}

// The stored identifier changes only when the account has taken the change.
TEST_F(PushRegistrationTest, ANewIdentifierReplacesTheStoredOneAndAFailedUnregistrationKeepsIt) {
    ASSERT_TRUE(registerDevice("old").isSuccess());
    EXPECT_EQ(registerDevice("new").value().identifier, "new");
    EXPECT_EQ(SessionStore("app").pushToken(), "new");

    server.script("DELETE", "/api/mobile/push_notification_devices/new.json", {.drop = true});
    provider().unregisterForPush();
    const std::string failed =
        "[DEBUG]: Push unregistration failed with Error Domain=NSURLErrorDomain Code=-1005 ";
    for (int i = 0; i < 500 && logs->linesStartingWith(failed).empty(); ++i) {
        std::this_thread::sleep_for(10ms);
    }
    EXPECT_EQ(logs->linesStartingWith(failed).size(), 1u);
    EXPECT_EQ(SessionStore("app").pushToken(), "new");
    EXPECT_FALSE(server.waitForEvents("PushOff", 1, 300ms));
}

}  // namespace
}  // namespace velmora::testing
