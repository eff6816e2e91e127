#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <set>

#include "velmora/platform/Base64.h"
#include "velmora/platform/DateFormatter.h"
#include "velmora/platform/Uuid.h"
#include "velmora/support/DateStringParser.h"

namespace velmora::testing {
namespace {

using platform::base64Decode;
using platform::base64Encode;

TEST(Base64Test, MatchesTheRfc4648VectorsBothWaysRoundTripsEveryByteAndRejectsMalformedText) {
    const std::pair<const char*, const char*> vectors[] = {
        {"", ""},
        {"f", "Zg=="},
        {"fo", "Zm8="},
        {"foo", "Zm9v"},
        {"foob", "Zm9vYg=="},
        {"fooba", "Zm9vYmE="},
        {"foobar", "Zm9vYmFy"},
    };
    for (const auto& [plain, encoded] : vectors) {
        EXPECT_EQ(base64Encode(std::string_view(plain)), encoded);
        const auto decoded = base64Decode(encoded);
        ASSERT_TRUE(decoded.has_value()) << encoded;
        EXPECT_EQ(decoded->toString(), plain);
    }
    std::string all;
    for (int i = 0; i < 256; ++i) {
        all += static_cast<char>(i);
    }
    for (std::size_t length = 0; length <= all.size(); length += 37) {
        const auto slice = all.substr(all.size() - length);
        EXPECT_EQ(base64Decode(base64Encode(slice))->toString(), slice);
    }
    for (const char* bad :
         {"Zg=", "Zg", "Zg=a", "Z===", "====", "Zm9v YmFy", "Zm9v\nYmFy", "Zm9-", "Zm9v====", "Zg==Zg=="}) {
        EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
    }
}

TEST(UuidTest, IsUpperCaseVersion4TextAndFreshEachTime) {
    const std::regex shape("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const auto uuid = platform::uuidString();
        ASSERT_TRUE(std::regex_match(uuid, shape)) << uuid;
        seen.insert(uuid);
    }
    EXPECT_EQ(seen.size(), 2000u);
}

TEST(DateFormatterTest, FormatsInGmtParsesWhatItFormatsAndRejectsTextOffThePattern) {
    const auto& millis = DateStringParser::withMilliseconds();
    const auto& seconds = DateStringParser::withoutMilliseconds();
    // 2026-11-21 19:29:28 UTC, plus 5 ms.
    const auto date = Date::fromMillisecondsSince1970(1'795'289'368'005);
    EXPECT_EQ(millis.string(date), "2026-11-21T19:29:28.005Z");
    EXPECT_EQ(seconds.string(date), "2026-11-21T19:29:28Z");
    EXPECT_EQ(millis.string(Date::fromMillisecondsSince1970(0)), "1970-01-01T00:00:00.000Z");
    EXPECT_EQ(millis.string(Date::fromMillisecondsSince1970(-1)), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(seconds.string(Date::fromMillisecondsSince1970(951'782'400'000)), "2000-02-29T00:00:00Z");

    std::mt19937_64 random(7);
    std::uniform_int_distribution<std::int64_t> range(-2'208'988'800'000, 4'102'444'800'000);  // 1900..2100
    for (int i = 0; i < 5000; ++i) {
        const auto any = Date::fromMillisecondsSince1970(range(random));
        ASSERT_EQ(millis.date(millis.string(any)), any) << millis.string(any);
    }
    EXPECT_EQ(seconds.date("2024-02-29T23:59:59Z"), Date::fromMillisecondsSince1970(1'709'251'199'000));

    for (const char* bad : {
             "2026-11-21T19:29:28Z ",     // trailing text
             "2026-11-21T19:29:28",       // no Z
             "2026-11-21 19:29:28Z",      // space for T
             "2026-11-21T19:29:28.005Z",  // milliseconds where none belong
             "2026-11-1T19:29:28Z",       // short field
             "2026-13-01T00:00:00Z",      // month 13
             "2026-02-29T00:00:00Z",      // not a leap year
             "1900-02-29T00:00:00Z",      // century rule
             "2026-04-31T00:00:00Z",      // April has 30 days
             "2026-11-21T24:00:00Z",      // hour 24
             "2026-11-21T19:60:00Z",      // minute 60
             "+026-11-21T19:29:28Z",      // sign in a field
             "",
         }) {
        EXPECT_FALSE(seconds.date(bad).has_value()) << bad;
    }
    EXPECT_FALSE(millis.date("2026-11-21T19:29:28.05Z").has_value());
    EXPECT_FALSE(millis.date("2026-11-21T19:29:28Z").has_value());
}

}  // namespace
}  // namespace velmora::testing
