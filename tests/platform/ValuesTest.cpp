#include <gtest/gtest.h>

#include <string>

#include "velmora/platform/Environment.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/Result.h"

namespace velmora::testing {
namespace {

using platform::format;

TEST(ResultTest, MapAndFlatMapTransformSuccessesAndPassErrorsThrough) {
    const auto failure = Error("com.velmora.tests", 7);
    const auto ok = Result<int>::success(20);
    const auto bad = Result<int>::error(failure);

    EXPECT_EQ(ok.map([](int v) { return std::to_string(v * 2); }).value(), "40");
    EXPECT_EQ(bad.map([](int v) { return std::to_string(v * 2); }).error(), failure);

    const auto half = [](int v) {
        return v % 2 == 0 ? Result<int>::success(v / 2) : Result<int>::error(Error("com.velmora.tests", 1));
    };
    EXPECT_EQ(ok.flatMap(half).value(), 10);
    EXPECT_EQ(Result<int>::success(3).flatMap(half).error().code(), 1);
    EXPECT_EQ(bad.flatMap(half).error(), failure) << "the first error wins; the transform never runs";
}

TEST(ResultDeathTest, ReadingTheValueOfAnErrorIsAProgrammingError) {
    platform::Environment::install(platform::Environment::linuxDefaults("velmora-tests"));
    const auto bad = Result<int>::error(Error("com.velmora.tests", 5));
    EXPECT_DEATH((void)bad.value(),
                 "Fatal error: Result: value\\(\\) read on an error: Error Domain=com.velmora.tests");
}

TEST(ErrorTest, TheDescriptionShowsDomainCodeAndUserInfoAndOnlyADictionaryIsUserInfo) {
    const auto described = Error("com.velmora.sdk.core", 2000,
                                 {{"NSLocalizedDescription", "not found"}, {"HTTP Status code", 404}});
    EXPECT_EQ(described.description(),
              "Error Domain=com.velmora.sdk.core Code=2000 \"not found\" "
              "UserInfo={\"HTTP Status code\":404,\"NSLocalizedDescription\":\"not found\"}");

    // User info that is not a dictionary cannot be honoured; it is dropped rather than kept half-usable.
    EXPECT_TRUE(Error("d", 1, nlohmann::json::array({1, 2})).userInfo().empty());
}

TEST(FormatTest, ArgumentsReplacePlaceholdersInOrderAndStayLiteral) {
    // A placeholder inside an argument is not expanded again.
    EXPECT_EQ(format("a %@ b %@", "%@", "x"), "a %@ b x");
    EXPECT_EQ(format("%@%@", 12, true), "12true");
    EXPECT_EQ(format("ratio %@", 1.5), "ratio 1.5");
    EXPECT_EQ(format("missing %@ and %@", "one"), "missing one and (null)");
    EXPECT_EQ(format("100%% of %@, 50% kept", "it"), "100% of it, 50% kept");
    EXPECT_EQ(format("trailing %"), "trailing %");
}

}  // namespace
}  // namespace velmora::testing
