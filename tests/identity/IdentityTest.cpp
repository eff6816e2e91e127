#include "velmora/identity/Identity.h"

#include <gtest/gtest.h>

namespace velmora::testing {
namespace {

using nlohmann::json;

TEST(IdentityTest, DecodingTriesAnonymousThenJwtThenGivesUpWithUnknownType) {
    // An anonymous member that does not decode falls through to the JWT; a null reads as absent. A JWT
    // without token is unknownType, not a missing key; so are a mistyped token and other shapes.
    const char* const unknownType = R"(["VelmoraCoreSDK.Identity.IdentityError", 0])";
    // clang-format off
    const std::pair<const char*, const char*> cases[] = {
        {R"({"anonymous": {"name": "Ann"}, "jwt": {"token": "T"}})", R"({"anonymous": {"name": "Ann"}})"},
        {R"({"anonymous": {"name": 5}, "jwt": {"token": "T"}})", R"({"jwt": {"token": "T"}})"},
        {R"({"anonymous": {}})", R"({"anonymous": {}})"},
        {R"({"anonymous": {"name": null, "email": "e", "guid": "G"}})",
         R"({"anonymous": {"email": "e", "guid": "G"}})"},
        {R"({"jwt": {"token": ""}})", R"({"jwt": {"token": ""}})"},
        {R"({"jwt": {}})", unknownType}, {R"({"jwt": {"token": 1}})", unknownType}, {"{}", unknownType},
        {R"({"user": {"token": "T"}})", unknownType}, {R"(["jwt"])", unknownType}};
    // clang-format on
    for (const auto& [text, decoded] : cases) {
        const auto result = Identity::fromJson(json::parse(text));
        const auto got =
            result.isError() ? json{result.error().domain(), result.error().code()} : result.value().toJson();
        EXPECT_EQ(got, json::parse(decoded)) << text;
    }
    EXPECT_TRUE(Identity::decode(Data::fromString("{not json")).isError());
}

// What an identity writes (present fields only) is checked by the decoding table above, and that it reads
// back the same by replaying the identity decoder's fuzz corpus. The access call's body names the GUID
// differently.
TEST(IdentityTest, TheAccessBodyNestsUnderUserAndNamesTheGuidSdkGuid) {
    EXPECT_EQ(json(IdentityContainer<AnonymousDecorator>{{"G", "Ann", "a@b.example"}}),
              json::parse(R"({"user": {"sdk_guid": "G", "name": "Ann", "email": "a@b.example"}})"));
}

TEST(IdentityTest, EqualityComparesNameAndEmailOrTheTokenAndNeverTheGuid) {
    const Anonymous annWithGuid{"Ann", "ann@one.example", "1"};
    const auto ann = [](const char* name) { return Identity::createAnonymous(name, std::nullopt); };
    const struct {
        Identity a, b;
        bool equal;
    } rows[] = {
        {Identity(annWithGuid), Identity::createAnonymous("Ann", "ann@one.example"), true},
        {ann("Ann"), Identity::createAnonymous("Ann", ""), false},
        {Identity::createAnonymous("Ann", "ann@one.example"),
         Identity::createAnonymous("Ann", "Ann@one.example"), false},
        {Identity::createAnonymous(), Identity::createJwt(""), false},
        {Identity::createJwt("T"), Identity::createJwt("t"), false},
        // Canonical equivalence: precomposed and decomposed, a singleton (angstrom sign), mark order.
        {Identity::createJwt("caf\u00e9"), Identity::createJwt("cafe\u0301"), true},
        {ann("\u212b"), ann("A\u030a"), true},
        {ann("a\u0323\u0301"), ann("a\u0301\u0323"), true},
        // A compatibility form is another text, and so is a different mark.
        {Identity::createJwt("\ufb01"), Identity::createJwt("fi"), false},
        {Identity::createJwt("cafe\u0301"), Identity::createJwt("cafe\u0300"), false},
        // Bytes that are not UTF-8 equal only themselves.
        {Identity::createJwt("\xff"), Identity::createJwt("\xff"), true},
        {Identity::createJwt("\xff"), Identity::createJwt("\xfe"), false},
    };
    for (std::size_t i = 0; i < std::size(rows); ++i) {
        EXPECT_EQ(rows[i].a == rows[i].b, rows[i].equal) << "row " << i;
        EXPECT_EQ(rows[i].b == rows[i].a, rows[i].equal) << "row " << i << ", reversed";
    }
}

}  // namespace
}  // namespace velmora::testing
