#include "velmora/blips/BlipsProvider.h"

#include <gtest/gtest.h>

#include "tests/support/ServerTest.h"
#include "velmora/platform/DeviceFacts.h"
#include "velmora/storage/SettingsStore.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

constexpr double MiB = 1024.0 * 1024.0;

class BlipRecordsTest : public LibraryTest {
  protected:
    struct Fixed : platform::LinuxDeviceFacts {
        std::string systemVersion() const override { return "17.1"; }
        std::string machineIdentifier() const override { return std::string("iPhone14,2\0x", 12); }
        std::optional<std::uint64_t> residentMemoryBytes() const override { return 300 * 1024 * 1024; }
        std::optional<std::uint64_t> physicalMemoryBytes() const override { return 3000ull * 1024 * 1024; }
        std::optional<double> batteryLevel() const override { return std::nullopt; }
        std::vector<std::string> preferredLanguages() const override { return {}; }
    };

    BlipRecordsTest() {
        environment.deviceFacts = std::make_shared<Fixed>();
        reinstallEnvironment();
    }

    inline static const Date fiveMillisPast = Date::fromMillisecondsSince1970(1'795'289'368'005);
};

TEST_F(BlipRecordsTest, DeviceFactsAreReadAfreshAsTextByTheirFixedRulesOfUnitsAndRounding) {
    const auto info = DeviceInfo::current();
    // The model skips zero bytes instead of ending there; the free space read is within the total.
    EXPECT_EQ(std::tie(info.os, info.model, info.memory_used, info.memory_total, info.battery_level,
                       info.sys_locale),
              std::tuple("17.1", "iPhone14,2x", "300", "3072", "-100", "-1"));
    EXPECT_GT(std::stoll(info.disk_total), 0);
    EXPECT_GE(std::stoll(info.disk_total), std::stoll(info.disk_used));

    environment.documentsDirectory = root / "missing";
    reinstallEnvironment();
    EXPECT_EQ(std::pair(DeviceInfo::current().disk_total, DeviceInfo::current().disk_used),
              std::pair(std::string("-1"), std::string("-1")));
    // The fixed rules of units and rounding; disk figures are truncated.
    EXPECT_EQ(
        std::tuple(DeviceUtil::roundedTotalMemory(2943 * MiB), DeviceUtil::roundedTotalMemory(100 * MiB),
                   DeviceUtil::usedMebibytes(1024 * MiB, 1'048'575), DeviceUtil::batteryPercent(0.5)),
        std::tuple("2816", "-1", "1023", "50"));
}

TEST_F(BlipRecordsTest, EachKindOfEventCarriesOnlyWhatItHasWithItsKeysInTheStatedOrder) {
    const auto action =
        BlipRequest::makeUserAction("app", "UUID", "2.0.0", "core_sdk", "1", fiveMillisPast, std::nullopt,
                                    "CoreSDK", "PushOn", std::nullopt, std::nullopt);
    EXPECT_TRUE(
        action.data().value().toString().starts_with(R"({"appId":"app","uuid":"UUID","version":"2.0.0")"))
        << "keys go out in their stated order";
    auto encoded = json::parse(action.data().value().view());
    EXPECT_FALSE(encoded.contains("userId") || encoded.contains("url") || encoded.contains("pageView"));
    // The timestamp; how many members the action, its value (no label, no payload) and its device have.
    EXPECT_EQ(json({encoded["timestamp"], encoded["userAction"].size(), encoded["userAction"]["value"].size(),
                    encoded["userAction"]["value"]["device"].size()}),
              json({"2026-11-21T19:29:28.005Z", 3, 1, 10}));

    const auto page = BlipRequest::makePageView("app", "UUID", "1.0", "web", "1", fiveMillisPast, 0, "Help",
                                                "fr", "https://h", json{{"article", 7}});
    encoded = json::parse(page.data().value().view());
    EXPECT_FALSE(encoded.contains("userAction"));
    EXPECT_EQ(json({encoded["userId"], encoded["url"], encoded["pageView"]["navigatorLanguage"],
                    encoded["pageView"]["value"]["payload"]}),
              json({0, "https://h", "fr", json{{"article", 7}}}));
    const auto notText = BlipRequest::makePageView("app", "UUID", "1", "c", "1", fiveMillisPast, std::nullopt,
                                                   "\xff", "fr", "u", std::nullopt);
    EXPECT_TRUE(notText.data().isError()) << "text that is not UTF-8 cannot be sent";
}

class BlipsProviderTest : public ServerTest {
  protected:
    BlipsProviderTest() { identity->store(Identity::createAnonymous("Ann", std::nullopt)); }

    // The default document (required events on, trailmark off) with behavioural events on or off.
    void storePermissions(bool behavioural) {
        auto document = mock::AccountServer::defaultSettings();
        document["blips"]["permissions"]["behavioural"] = behavioural;
        ASSERT_TRUE(SettingsStore("app").storeSettings(Data::fromString(document.dump())));
    }

    const BlipsProvider provider{details, identity, std::make_shared<SettingsProvider>(details)};
};

// Events never log in (VelmoraTest's relaunch sends its init event with no token and makes no other request);
// here, that a token held is not sent with them either.
TEST_F(BlipsProviderTest, OnlyPermittedGroupsAreSentAndEventsNeverLogIn) {
    storePermissions(false);
    identity->update(IdentityStore::authTokenKey, "secret");
    provider.send(UserAction{"1.0", "Tapped", "app", "UI", "label", json{{"n", 1}}}, BlipsGroup::behavioural);
    provider.send(coreSdkEvent("PushOn"), BlipsGroup::required);
    ASSERT_TRUE(eventually([&] { return logs->contains("[DEBUG]: Blip was blipped successfully"); }));

    const auto sent = server.requests("GET", "/embeddable_blip");
    ASSERT_EQ(sent.size(), 1u) << "the behavioural event is dropped";
    EXPECT_EQ(sent[0].header("Authorization"), std::nullopt);
    EXPECT_EQ(sent[0].header("Client-Identifier"), "client");
    EXPECT_EQ(server.events("PushOn").at(0)["uuid"], identity->uuid());

    EXPECT_EQ(BlipsProvider::blipURL(Data::fromString("\xfb\xff"), *details).value().absoluteString(),
              server.url() + "/embeddable_blip?data=+/8=")
        << "the Base64 goes into the query unescaped";
}

TEST_F(BlipsProviderTest, NoStoredSettingsMeanNoPermissionAndTransportFailuresAreLogged) {
    provider.send(coreSdkEvent("PushOn"), BlipsGroup::required);
    EXPECT_TRUE(logs->contains("[DEBUG]: Returning default settings for BlipsSettings. No data in cache."));

    storePermissions(true);
    server.script("GET", "/embeddable_blip", {.status = 200, .drop = true});
    provider.send(PageView{"1.0", "web", "https://h", "Help", "fr", std::nullopt}, BlipsGroup::behavioural);
    EXPECT_EQ(awaitLinesStartingWith("[DEBUG]: Unable to blip Error Domain=NSURLErrorDomain Code=-1005"), 1u);
    EXPECT_EQ(server.requests("GET", "/embeddable_blip").size(), 1u)
        << "only the permitted page view went out";
}

}  // namespace
}  // namespace velmora::testing
