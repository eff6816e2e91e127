// Values and their text forms: results and errors, formats, Base64, UUIDs, dates and binary property lists.
#include <gtest/gtest.h>

#include <numeric>
#include <random>
#include <regex>
#include <set>
#include <string>
#include <tuple>
#include <vector>

#include "tests/support/Printers.h"
#include "velmora/platform/Base64.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/PropertyList.h"
#include "velmora/platform/Result.h"
#include "velmora/platform/Uuid.h"
#include "velmora/support/DateStringParser.h"

namespace velmora::testing {
namespace {

using namespace platform;

// map, to another type, on a success and on an error, is checked through AccessRecordsTest's decoding.
TEST(ResultTest, FlatMapTransformsSuccessesAndPassesTheFirstErrorThrough) {
    using R = Result<int>;
    const auto failure = Error("com.velmora.tests", 7), odd = Error("d", 1);
    const auto ok = R::success(20), bad = R::error(failure);
    const auto half = [&](int v) { return v % 2 ? R::error(odd) : R::success(v / 2); };
    // With an error, the first one wins and the transform never runs.
    EXPECT_EQ(std::tuple(ok.flatMap(half), R::success(3).flatMap(half), bad.flatMap(half)),
              std::tuple(R::success(10), R::error(odd), R::error(failure)));
}

TEST(ResultDeathTest, ReadingTheValueOfAnErrorIsAProgrammingError) {
    Environment::install(Environment::linuxDefaults("velmora-tests"));
    EXPECT_DEATH((void)Result<int>::error(Error("com.velmora.tests", 5)).value(),
                 "Fatal error: Result: value\\(\\) read on an error: Error Domain=com.velmora.tests");
}

TEST(ErrorTest, TheDescriptionShowsDomainCodeAndUserInfoAndOnlyADictionaryIsUserInfo) {
    const auto described = Error("com.velmora.sdk.core", 2000,
                                 {{"NSLocalizedDescription", "not found"}, {"HTTP Status code", 404}});
    EXPECT_EQ(described.description(),
              "Error Domain=com.velmora.sdk.core Code=2000 \"not found\" "
              "UserInfo={\"HTTP Status code\":404,\"NSLocalizedDescription\":\"not found\"}");
    EXPECT_TRUE(Error("d", 1, nlohmann::json::array({1, 2})).userInfo().empty())
        << "dropped, not kept half-usable";
}

TEST(FormatTest, ArgumentsReplacePlaceholdersInOrderAndStayLiteral) {
    EXPECT_EQ(format("a %@ b %@", "%@", "x"), "a %@ b x") << "a placeholder inside an argument stays";
    EXPECT_EQ(format("%@%@ ratio %@", 12, true, 1.5), "12true ratio 1.5");
    EXPECT_EQ(format("100%% of %@, 50% kept, missing %@", "it"), "100% of it, 50% kept, missing (null)");
    EXPECT_EQ(format("trailing %"), "trailing %");
}

TEST(Base64Test, MatchesTheRfc4648VectorsBothWaysRoundTripsEveryByteAndRejectsMalformedText) {
    const char* vectors[] = {"", "Zg==", "Zm8=", "Zm9v", "Zm9vYg==", "Zm9vYmE=", "Zm9vYmFy"};  // of "foobar"
    for (std::size_t length = 0; length < 7; ++length) {
        const auto plain = std::string("foobar").substr(0, length);
        EXPECT_EQ(base64Encode(std::string_view(plain)), vectors[length]);
        EXPECT_EQ(base64Decode(vectors[length]).value_or(Data::fromString("?")).toString(), plain);
    }
    std::string all(256, '\0');
    std::iota(all.begin(), all.end(), '\0');
    EXPECT_EQ(base64Decode(base64Encode(all))->toString(), all);
    for (const char* bad :
         {"Zg=", "Zg", "Zg=a", "Z===", "====", "Zm9v YmFy", "Zm9v\nYmFy", "Zm9-", "Zm9v====", "Zg==Zg=="}) {
        EXPECT_FALSE(base64Decode(bad).has_value()) << bad;
    }
}

TEST(UuidTest, IsUpperCaseVersion4TextAndFreshEachTime) {
    const std::regex shape("^[0-9A-F]{8}-[0-9A-F]{4}-4[0-9A-F]{3}-[89AB][0-9A-F]{3}-[0-9A-F]{12}$");
    std::set<std::string> seen;
    for (int i = 0; i < 2000; ++i) {
        const auto uuid = *seen.insert(uuidString()).first;
        ASSERT_TRUE(std::regex_match(uuid, shape)) << uuid;
    }
    EXPECT_EQ(seen.size(), 2000u);
}

TEST(DateFormatterTest, FormatsInGmtParsesWhatItFormatsAndRejectsTextOffThePattern) {
    const auto& millis = DateStringParser::withMilliseconds();
    const auto& seconds = DateStringParser::withoutMilliseconds();
    // A plain date is formatted by both through BlipRecordsTest's timestamp and UserRecordsTest's fields.
    EXPECT_EQ(millis.string(Date::fromMillisecondsSince1970(-1)), "1969-12-31T23:59:59.999Z");
    EXPECT_EQ(seconds.string(Date::fromMillisecondsSince1970(951'782'400'000)), "2000-02-29T00:00:00Z");

    std::mt19937_64 random(7);
    std::uniform_int_distribution<std::int64_t> range(-2'208'988'800'000, 4'102'444'800'000);  // 1900..2100
    for (int i = 0; i < 5000; ++i) {
        const auto any = Date::fromMillisecondsSince1970(range(random));
        ASSERT_EQ(millis.date(millis.string(any)), any) << millis.string(any);
    }
    EXPECT_EQ(seconds.date("2024-02-29T23:59:59Z"), Date::fromMillisecondsSince1970(1'709'251'199'000));

    // Off the pattern, or days, hours and minutes that do not exist (29 February in 2026 and in 1900).
    for (const char* bad : {"2026-11-21T19:29:28Z ", "2026-11-21T19:29:28", "2026-11-21 19:29:28Z",
                            "2026-11-21T19:29:28.005Z", "2026-11-1T19:29:28Z", "2026-13-01T00:00:00Z",
                            "2026-02-29T00:00:00Z", "1900-02-29T00:00:00Z", "2026-04-31T00:00:00Z",
                            "2026-11-21T24:00:00Z", "2026-11-21T19:60:00Z", "+026-11-21T19:29:28Z", ""}) {
        EXPECT_FALSE(seconds.date(bad).has_value()) << bad;
    }
    EXPECT_FALSE(millis.date("2026-11-21T19:29:28.05Z") || millis.date("2026-11-21T19:29:28Z"));
}

// Assembles a binary property list from raw objects, one-byte offsets and references, top object 0.
Data bplist(const std::vector<std::string>& objects) {
    std::string out = "bplist00", offsets;
    for (const auto& object : objects) {
        offsets += static_cast<char>(out.size());
        out += object;
    }
    const auto tableOffset = out.size();
    out += offsets + std::string(6, '\0') + "\x01\x01";  // offset and reference sizes
    for (const std::size_t value : {objects.size(), std::size_t{0}, tableOffset}) {  // each below 256
        out += std::string(7, '\0') + static_cast<char>(value);
    }
    return Data::fromString(out);
}

std::string utf16(std::initializer_list<unsigned> units) {
    std::string out(1, static_cast<char>(0x60 | units.size()));
    for (const unsigned unit : units) {
        out += {static_cast<char>(unit >> 8), static_cast<char>(unit & 0xFF)};
    }
    return out;
}

// What the writer writes is read back by UserDefaultsTest, whose values of every kind go through it.
TEST(PropertyListTest, ReadsWellFormedHandMadeListsAndRefusesMalformedOnesInsteadOfCrashingOrLooping) {
    std::vector<std::string> laughs;
    for (int level = 0; level < 60; ++level) {
        laughs.push_back(std::string("\xA2") + static_cast<char>(level + 1) + static_cast<char>(level + 1));
    }
    laughs.push_back("\x09");

    const std::tuple<const char*, Data, std::optional<PropertyValue>> cases[] = {
        {"UTF-16 with a surrogate pair", bplist({utf16({0x00E9, 0xD83D, 0xDE00})}), "\u00e9\U0001F600"},
        {"shared object, not a cycle", bplist({"\xA2\x01\x01", "\x10\x07"}), PropertyValue::Array{7, 7}},
        {"eight-byte integer", bplist({"\x13\xff\xff\xff\xff\xff\xff\xff\xfe"}), std::int64_t{-2}},
        {"array containing itself", bplist({std::string("\xA1\x00", 2)}), std::nullopt},
        {"dictionary whose value is itself", bplist({std::string("\xD1\x01\x00", 3), "\x51k"}), std::nullopt},
        {"2^60 nodes through shared references", bplist(laughs), std::nullopt},
        {"NUL in an ASCII string", bplist({std::string("Sa\0b", 4)}), std::nullopt},
        {"NUL in a UTF-16 string", bplist({utf16({0x0061, 0x0000})}), std::nullopt},
        {"lone high surrogate", bplist({utf16({0xD83D})}), std::nullopt},
        {"lone low surrogate", bplist({utf16({0xDE00, 0x0061})}), std::nullopt},
        {"byte above ASCII in an ASCII string", bplist({"\x51\xe9"}), std::nullopt},
        {"non-string dictionary key", bplist({"\xD1\x01\x01", "\x10\x01"}), std::nullopt},
        {"reference past the table", bplist({"\xA1\x05"}), std::nullopt},
        {"string running past the table", bplist({"_\x10\177abc"}), std::nullopt},
        {"set", bplist({"\xC1\x01", "\x09"}), std::nullopt},
        {"bad magic", Data::fromString("bplist01" + std::string(40, '\0')), std::nullopt},
        {"too short for a trailer", Data::fromString("bplist00"), std::nullopt},
    };
    for (const auto& [what, bytes, value] : cases) {
        EXPECT_EQ(decodeBinaryPropertyList(bytes), value) << what;
    }
}

}  // namespace
}  // namespace velmora::testing
