#include "velmora/blips/BlipRecords.h"

#include <gtest/gtest.h>

#include "tests/support/LibraryTest.h"
#include "velmora/platform/DeviceFacts.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

constexpr double MiB = 1024.0 * 1024.0;

TEST(DeviceUtilTest, UnitsAndRoundingFollowTheirFixedRules) {
    EXPECT_EQ(DeviceUtil::roundedTotalMemory(3000 * MiB), "3072");
    EXPECT_EQ(DeviceUtil::roundedTotalMemory(2943 * MiB), "2816");
    EXPECT_EQ(DeviceUtil::roundedTotalMemory(100 * MiB), "-1");
    EXPECT_EQ(DeviceUtil::mebibytes(1024 * MiB), "1024");
    EXPECT_EQ(DeviceUtil::usedMebibytes(1024 * MiB, 1'048'575), "1023")
        << "disk figures are truncated, not rounded";
    EXPECT_EQ(DeviceUtil::batteryPercent(std::nullopt), "-100");
    EXPECT_EQ(DeviceUtil::batteryPercent(0.5), "50");
}

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

TEST_F(BlipRecordsTest, DeviceFactsAreReadAfreshAsText) {
    const auto info = DeviceInfo::current();
    EXPECT_EQ(info.os, "17.1");
    EXPECT_EQ(info.model, "iPhone14,2x") << "zero bytes are skipped, not an end";
    EXPECT_EQ(info.memory_used, "300");
    EXPECT_EQ(info.memory_total, "3072");
    EXPECT_EQ(info.battery_level, "-100");
    EXPECT_EQ(info.sys_locale, "-1");
    EXPECT_GT(std::stoll(info.disk_total), 0);
    EXPECT_GE(std::stoll(info.disk_total), std::stoll(info.disk_used));
    EXPECT_GE(std::stoll(info.disk_used), 0) << "the free space read is within the total";

    environment.documentsDirectory = root / "missing";
    reinstallEnvironment();
    EXPECT_EQ(DeviceInfo::current().disk_total, "-1");
    EXPECT_EQ(DeviceInfo::current().disk_used, "-1");
}

TEST_F(BlipRecordsTest, AUserActionWithoutLabelOrPayloadCarriesOnlyTheDevice) {
    const auto request =
        BlipRequest::makeUserAction("app", "UUID", "2.0.0", "core_sdk", "1", fiveMillisPast, std::nullopt,
                                    "CoreSDK", "PushOn", std::nullopt, std::nullopt);
    const auto encoded = json::parse(request.data().value().view());
    EXPECT_EQ(encoded["timestamp"], "2026-11-21T19:29:28.005Z");
    EXPECT_FALSE(encoded.contains("userId"));
    EXPECT_FALSE(encoded.contains("url"));
    EXPECT_FALSE(encoded.contains("pageView"));
    const auto& action = encoded["userAction"];
    EXPECT_EQ(action.size(), 3u);
    EXPECT_EQ(action["category"], "CoreSDK");
    EXPECT_EQ(action["action"], "PushOn");
    ASSERT_EQ(action["value"].size(), 1u);
    EXPECT_EQ(action["value"]["device"].size(), 10u);
    EXPECT_EQ(action["value"]["device"]["manufacturer"], "Apple");
    EXPECT_TRUE(
        request.data().value().toString().starts_with(R"({"appId":"app","uuid":"UUID","version":"2.0.0")"))
        << "keys go out in their stated order";
}

TEST_F(BlipRecordsTest, APageViewCarriesItsUrlUserIdAndPayload) {
    const auto request = BlipRequest::makePageView("app", "UUID", "1.0", "web", "1", fiveMillisPast, 0,
                                                   "Help", "fr", "https://h", json{{"article", 7}});
    const auto encoded = json::parse(request.data().value().view());
    EXPECT_EQ(encoded["userId"], 0);
    EXPECT_EQ(encoded["url"], "https://h");
    EXPECT_FALSE(encoded.contains("userAction"));
    EXPECT_EQ(encoded["pageView"]["value"]["payload"], json({{"article", 7}}));
    EXPECT_EQ(encoded["pageView"]["navigatorLanguage"], "fr");

    EXPECT_EQ(blipsGroupFromRawValue(2), BlipsGroup::trailmark);
    EXPECT_EQ(blipsGroupFromRawValue(3), std::nullopt);
    EXPECT_TRUE(BlipRequest::makePageView("app", "UUID", "1", "c", "1", fiveMillisPast, std::nullopt, "\xff",
                                          "fr", "u", std::nullopt)
                    .data()
                    .isError())
        << "text that is not UTF-8 cannot be sent";
}

}  // namespace
}  // namespace velmora::testing
