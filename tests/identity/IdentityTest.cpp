#include "velmora/identity/Identity.h"

#include <gtest/gtest.h>

namespace velmora::testing {
namespace {

using nlohmann::json;

Result<Identity> decode(const char* text) {
    return Identity::fromJson(json::parse(text));
}

TEST(IdentityTest, DecodingTriesAnonymousThenJwtThenGivesUpWithUnknownType) {
    // An anonymous member that does not decode falls through to the JWT; a null reads as absent.
    for (const auto& [text, decoded] : std::initializer_list<std::pair<const char*, const char*>>{
             {R"({"anonymous": {"name": "Ann"}, "jwt": {"token": "T"}})",
              R"({"anonymous": {"name": "Ann"}})"},
             {R"({"anonymous": {"name": 5}, "jwt": {"token": "T"}})", R"({"jwt": {"token": "T"}})"},
             {R"({"anonymous": {}})", R"({"anonymous": {}})"},
             {R"({"anonymous": {"name": null, "email": "e", "guid": "G"}})",
              R"({"anonymous": {"email": "e", "guid": "G"}})"},
             {R"({"jwt": {"token": ""}})", R"({"jwt": {"token": ""}})"}}) {
        EXPECT_EQ(decode(text).value().toJson(), json::parse(decoded)) << text;
    }

    // A JWT without token is unknownType, not a missing key; so are a mistyped token and other shapes.
    for (const char* text :
         {R"({"jwt": {}})", R"({"jwt": {"token": 1}})", "{}", R"({"user": {"token": "T"}})", R"(["jwt"])"}) {
        const auto result = decode(text);
        ASSERT_TRUE(result.isError()) << text;
        EXPECT_EQ(std::pair(result.error().domain(), result.error().code()),
                  std::pair(std::string("VelmoraCoreSDK.Identity.IdentityError"), std::int64_t{0}))
            << text;
    }
    EXPECT_TRUE(Identity::decode(Data::fromString("{not json")).isError());
}

// That what is written reads back the same is checked by replaying the identity decoder's fuzz corpus.
TEST(IdentityTest, EncodingWritesOnlyPresentFields) {
    EXPECT_EQ(Identity(Anonymous{"Ann", std::nullopt, "G"}).toJson(),
              json::parse(R"({"anonymous": {"name": "Ann", "guid": "G"}})"));
    // The access call's body names the GUID differently and nests under "user".
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
