#include "velmora/identity/Identity.h"

#include <gtest/gtest.h>

namespace velmora::testing {
namespace {

using nlohmann::json;

Result<Identity> decode(const char* text) {
    return Identity::fromJson(json::parse(text));
}

void expectUnknownType(const Result<Identity>& result, const char* what) {
    ASSERT_TRUE(result.isError()) << what;
    EXPECT_EQ(result.error().domain(), "VelmoraCoreSDK.Identity.IdentityError") << what;
    EXPECT_EQ(result.error().code(), 0) << what;
}

TEST(IdentityTest, DecodingTriesAnonymousThenJwtThenGivesUpWithUnknownType) {
    const auto both = decode(R"({"anonymous": {"name": "Ann"}, "jwt": {"token": "T"}})");
    ASSERT_TRUE(both.isSuccess());
    ASSERT_NE(both.value().anonymous(), nullptr);
    EXPECT_EQ(both.value().anonymous()->name, "Ann");

    // An anonymous member that does not decode falls through to the JWT.
    const auto badAnonymous = decode(R"({"anonymous": {"name": 5}, "jwt": {"token": "T"}})");
    ASSERT_TRUE(badAnonymous.isSuccess());
    EXPECT_EQ(badAnonymous.value(), Identity::createJwt("T"));

    const auto empty = decode(R"({"anonymous": {}})");
    ASSERT_TRUE(empty.isSuccess());
    const auto& anonymous = *empty.value().anonymous();
    EXPECT_FALSE(anonymous.name || anonymous.email || anonymous.guid);
    EXPECT_EQ(empty.value().toJson(), json::parse(R"({"anonymous": {}})"));

    const auto nulls = decode(R"({"anonymous": {"name": null, "email": "e", "guid": "G"}})");
    ASSERT_TRUE(nulls.isSuccess());
    EXPECT_EQ(nulls.value().anonymous()->name, std::nullopt);
    EXPECT_EQ(nulls.value().anonymous()->guid, "G");

    EXPECT_EQ(decode(R"({"jwt": {"token": ""}})").value(), Identity::createJwt(""));

    expectUnknownType(decode(R"({"jwt": {}})"), "a JWT without token is unknownType, not a missing key");
    expectUnknownType(decode(R"({"jwt": {"token": 1}})"), "token of another type");
    expectUnknownType(decode(R"({})"), "empty object");
    expectUnknownType(decode(R"({"user": {"token": "T"}})"), "access-call form");
    expectUnknownType(decode(R"(["jwt"])"), "not an object");
    EXPECT_TRUE(Identity::decode(Data::fromString("{not json")).isError());
}

TEST(IdentityTest, EncodingWritesOnlyPresentFieldsAndRoundTrips) {
    Anonymous withGuid = Anonymous::withName("Ann", std::nullopt);
    withGuid.guid = "G";
    for (const auto& identity :
         {Identity(withGuid), Identity::createAnonymous(), Identity::createJwt("a.b.c")}) {
        const auto encoded = identity.encode();
        ASSERT_TRUE(encoded.isSuccess());
        const auto decoded = Identity::decode(encoded.value());
        ASSERT_TRUE(decoded.isSuccess());
        EXPECT_EQ(decoded.value().toJson(), identity.toJson());
    }
    EXPECT_EQ(Identity(withGuid).toJson(), json::parse(R"({"anonymous": {"name": "Ann", "guid": "G"}})"));
    // The access call's body names the GUID differently and nests under "user".
    EXPECT_EQ(json(IdentityContainer<AnonymousDecorator>{{"G", "Ann", "a@b.example"}}),
              json::parse(R"({"user": {"sdk_guid": "G", "name": "Ann", "email": "a@b.example"}})"));
}

TEST(IdentityTest, EqualityComparesNameAndEmailOrTheTokenAndNeverTheGuid) {
    Anonymous annWithGuid = Anonymous::withName("Ann", "ann@one.example");
    annWithGuid.guid = "1";
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
        {Identity::createJwt("T"), Identity::createJwt("T"), true},
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
