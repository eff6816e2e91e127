#include "velmora/push/PushRegistrationProvider.h"

#include <gtest/gtest.h>

#include "tests/support/ServerTest.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

constexpr const char* devices = "/api/mobile/push_notification_devices.json";

class PushRegistrationTest : public ServerTest {
  protected:
    PushRegistrationTest() { identity->store(Identity::createAnonymous("Ann", std::nullopt)); }

    Result<PushRegistrationResponse> registerDevice(const std::string& identifier, bool channel = false) {
        return await<Result<PushRegistrationResponse>>([&](auto cb) {
            channel ? provider.registerForPushWithUAChannelId(identifier, "en-gb", cb)
                    : provider.registerForPush(identifier, "en-gb", cb);
        });
    }
    static std::optional<std::string> storedIdentifier() { return SessionStore("app").pushToken(); }

    const PushRegistrationProvider provider{
        details, identity, BlipsProvider(details, identity, std::make_shared<SettingsProvider>(details)),
        std::make_shared<SessionStore>("app")};
};

TEST_F(PushRegistrationTest, RegisteringTheSameIdentifierTwiceMakesOneRequestAndTwoPushOnEvents) {
    EXPECT_EQ(registerDevice("device-token").value().identifier, "device-token");
    EXPECT_EQ(registerDevice("device-token").value().identifier, "device-token");
    EXPECT_TRUE(server.waitForEvents("PushOn", 2));
    EXPECT_EQ(registerDevice("channel-1", true).value().identifier, "channel-1");
    // The device once, then the channel: the members in the order the account documents them.
    const auto posted = server.requests("POST", devices);
    ASSERT_EQ(posted.size(), 2u);
    const auto guid = R"(","sdk_guid":")" + *identity->guid() + R"("}})";
    EXPECT_EQ(std::pair(posted[0].body, posted[1].body),
              std::pair(R"({"push_notification_device":{"identifier":"device-token","device_type":"iphone",)"
                        R"("locale":"en-gb)" +
                            guid,
                        R"({"push_notification_device":{"identifier":"channel-1","device_type":"iphone",)"
                        R"("locale":"en-gb","token_type":"urban_airship_channel_id)" +
                            guid));
}

TEST_F(PushRegistrationTest, TheStoredIdentifierChangesOnlyWhenTheAccountHasTakenTheChange) {
    provider.unregisterForPush();
    ASSERT_TRUE(registerDevice("old").isSuccess());  // a stray unregistration would have been sent by now
    EXPECT_TRUE(std::ranges::none_of(server.requests(), [](const auto& r) { return r.method == "DELETE"; }))
        << "no stored identifier: nothing to unregister";
    server.script("POST", devices, {.status = 404, .body = R"({"error": "NotFound"})"});
    EXPECT_EQ(registerDevice("new").error().localizedDescription(), "not found");  // the rest: C session
    EXPECT_EQ(storedIdentifier(), "old");
    EXPECT_EQ(registerDevice("new").value().identifier, "new");
    EXPECT_EQ(storedIdentifier(), "new");

    server.script("DELETE", "/api/mobile/push_notification_devices/new.json", {.drop = true});
    provider.unregisterForPush();
    EXPECT_EQ(awaitLinesStartingWith(
                  "[DEBUG]: Push unregistration failed with Error Domain=NSURLErrorDomain Code=-1005 "),
              1u);
    EXPECT_EQ(storedIdentifier(), "new");
    EXPECT_FALSE(server.waitForEvents("PushOff", 1, std::chrono::milliseconds(300)));

    provider.unregisterForPush();
    ASSERT_TRUE(eventually([&] { return logs->contains("[DEBUG]: Push unregistration successful"); }));
    EXPECT_EQ(storedIdentifier(), std::nullopt);
    EXPECT_TRUE(server.waitForEvents("PushOff", 1));
}

}  // namespace
}  // namespace velmora::testing
