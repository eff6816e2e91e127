// Every function of the C interface given a NULL, mistyped or invalid argument: no crash, its failure value,
// and either an error in the interface's domain (when the caller asked for one) or one line in the log.
#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <vector>

#include "tests/support/LibraryTest.h"
#include "velmora/VelmoraC.h"
#include "velmora/capi/Interface.h"

namespace velmora::testing {
namespace {

constexpr std::int64_t logged = 0;  // the function has no outError: the refusal is a log line
constexpr std::int64_t null = VMKErrorCodeNullArgument;
constexpr std::int64_t invalid = VMKErrorCodeInvalidArgument;
const char* const notUtf8 = "\xff";
const VMKLogLevel noLevel = static_cast<VMKLogLevel>(7);
const VMKBlipsGroup required = VMKBlipsGroupRequired, noGroup = static_cast<VMKBlipsGroup>(3);

struct Row {
    const char* function;
    std::int64_t code;
    std::function<bool(VMKError**)> call;  // true when the function returned its failure value
};

// clang-format off
// A call that must refuse with `code` through its outError, the argument appended to the ones given.
#define WITH_ERROR(function, code, ...) \
    Row { #function, code, [&](VMKError** e) { return !function(__VA_ARGS__, e); } }
// A call without outError that must refuse with a log line.
#define LOGGED(function, ...) \
    Row { #function, logged, [&](VMKError**) { return !function(__VA_ARGS__); } }
// A handle of another type (a mistake a binding can make) for the one a Release takes.
#define WRONG_KIND(release, Type, other) \
    Row { #release, logged, [&](VMKError**) { return release(reinterpret_cast<Type*>(other)), true; } }
// clang-format on

using CapiArgumentsTest = LibraryTest;

TEST_F(CapiArgumentsTest, EveryFunctionRefusesWithItsFailureValueAndAnErrorOrALogLine) {
    ASSERT_TRUE(VMKVelmoraInitialize("capi-arguments", "client", "http://127.0.0.1:9", nullptr));
    VMKVelmora* velmora = VMKVelmoraCopyInstance(nullptr);
    VMKUserProvider* users = VMKUserProviderCreate(velmora, nullptr);
    VMKPushProvider* push = VMKPushProviderCreate(velmora, nullptr);
    VMKBlipsProvider* blips = VMKBlipsProviderCreate(velmora, nullptr);
    // The handles, not the C++ classes of the same names.
    ::VMKObjCJwt* jwt = VMKObjCJwtCreate("token", nullptr);
    ::VMKObjCAnonymous* anonymous = VMKObjCAnonymousCreate(nullptr, nullptr, nullptr);
    VMKError* error = nullptr;
    ASSERT_EQ(VMKObjCJwtCreate(nullptr, &error), nullptr);
    VMKUser* user = new VMKUser(User{});
    UserField withOption;
    withOption.custom_field_options = std::vector<UserFieldOption>{UserFieldOption{}};
    VMKUserField* field = new VMKUserField(withOption);
    const char* badTag[] = {notUtf8};
    const char* nullTag[] = {nullptr};
    auto* otherProvider = reinterpret_cast<VMKUserProvider*>(push);
    // clang-format off
    const std::vector<Row> rows{
        LOGGED(VMKErrorGetDomain, nullptr), LOGGED(VMKErrorCopyUserInfoJSON, nullptr),
        LOGGED(VMKErrorCopy, nullptr), WRONG_KIND(VMKErrorRelease, VMKError, user),
        WITH_ERROR(VMKEnvironmentInstall, invalid, notUtf8, nullptr, nullptr),
        WITH_ERROR(VMKCoreLoggerSetLogLevel, invalid, noLevel), LOGGED(VMKCoreLoggerIsLogging, noLevel),
        WITH_ERROR(VMKCoreLoggerLog, null, VMKLogLevelError, nullptr),
        WITH_ERROR(VMKCoreLoggerLog, invalid, noLevel, "text"),
        WITH_ERROR(VMKVelmoraInitialize, null, nullptr, "client", "http://host"),
        WITH_ERROR(VMKVelmoraInitialize, VMKErrorCodeRefused, "app", "client", "ftp://host"),
        WRONG_KIND(VMKVelmoraRelease, VMKVelmora, error), LOGGED(VMKVelmoraGetApplicationId, nullptr),
        WITH_ERROR(VMKVelmoraSetJwtIdentity, null, velmora, nullptr),
        WITH_ERROR(VMKVelmoraSetAnonymousIdentity, invalid, velmora,
                   reinterpret_cast<::VMKObjCAnonymous*>(jwt)),
        WITH_ERROR(VMKVelmoraCopyObjCIdentity, null, velmora, nullptr, &anonymous),
        LOGGED(VMKVelmoraWaitForPendingRequests, -1),
        WITH_ERROR(VMKObjCJwtCreate, invalid, notUtf8), LOGGED(VMKObjCJwtGetToken, nullptr),
        WRONG_KIND(VMKObjCJwtRelease, ::VMKObjCJwt, anonymous), LOGGED(VMKObjCAnonymousGetName, nullptr),
        WITH_ERROR(VMKObjCAnonymousCreate, invalid, notUtf8, nullptr),
        WITH_ERROR(VMKObjCAnonymousCopyUpdatingEmail, invalid, anonymous, notUtf8),
        WITH_ERROR(VMKUserProviderCreate, null, nullptr),
        WITH_ERROR(VMKUserProviderGetUser, null, nullptr, nullptr, nullptr),
        WITH_ERROR(VMKUserProviderAddTags, null, users, nullptr, 1, nullptr, nullptr),
        WITH_ERROR(VMKUserProviderAddTags, invalid, users, badTag, 1, nullptr, nullptr),
        WITH_ERROR(VMKUserProviderDeleteTags, null, users, nullTag, 1, nullptr, nullptr),
        WITH_ERROR(VMKUserProviderSetUserFields, invalid, users, "[1]", nullptr, nullptr),
        WITH_ERROR(VMKUserProviderSetUserFields, invalid, users, "{", nullptr, nullptr),
        WITH_ERROR(VMKUserProviderGetUserFields, invalid, otherProvider, nullptr, nullptr),
        LOGGED(VMKUserGetId, nullptr), LOGGED(VMKUserGetTagCount, nullptr), LOGGED(VMKUserCopy, nullptr),
        LOGGED(VMKUserGetTag, user, 0), LOGGED(VMKUserGetUserFieldKey, user, 0),
        LOGGED(VMKUserGetUserFieldValue, user, nullptr), WRONG_KIND(VMKUserRelease, VMKUser, error),
        LOGGED(VMKUserFieldGetId, nullptr), LOGGED(VMKUserFieldGetPosition, nullptr),
        LOGGED(VMKUserFieldGetOption, field, 1), LOGGED(VMKUserFieldOptionGetId, nullptr),
        LOGGED(VMKUserFieldOptionGetValue, reinterpret_cast<const VMKUserFieldOption*>(field)),
        WITH_ERROR(VMKPushProviderRegisterWithDeviceIdentifier, null, push, nullptr, "en", nullptr, nullptr),
        WITH_ERROR(VMKPushProviderRegisterWithUAIdentifier, invalid, push, "c", notUtf8, nullptr, nullptr),
        WITH_ERROR(VMKPushProviderUnregisterDeviceIdentifier, null, push, nullptr),
        WITH_ERROR(VMKSettingsProviderGetBlipsSettings, invalid,
                   reinterpret_cast<VMKSettingsProvider*>(users), nullptr, nullptr),
        Row{"VMKCoreSettingsGetBrandId", logged,
            [](VMKError**) { return VMKCoreSettingsGetBrandId(nullptr) == -1; }},
        LOGGED(VMKCoreSettingsGetIdentifier, nullptr), LOGGED(VMKBlipsSettingsGetRequired, nullptr),
        WITH_ERROR(VMKBlipsProviderSendUserAction, null, blips, "1", nullptr, "c", "k", "l", "1", required),
        WITH_ERROR(VMKBlipsProviderSendUserAction, invalid, blips, "1", "a", "c", "k", "l", "{", required),
        WITH_ERROR(VMKBlipsProviderSendUserAction, invalid, blips, "1", "a", "c", "k", "l", nullptr, noGroup),
        WITH_ERROR(VMKBlipsProviderSendPageView, invalid, blips, "1", "c", "u", notUtf8, "en", "1", required),
        LOGGED(VMKHelpCenterUtilCanAuthenticateRequest, nullptr, nullptr),
        LOGGED(VMKHelpCenterUtilCanAuthenticateRequest, "http://127.0.0.1:9/hc", R"({"Authorization": 1})"),
        WITH_ERROR(VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON, invalid, "no URL", nullptr),
        WITH_ERROR(VMKHelpCenterUtilCopyCanonicalRequestHeadersJSON, invalid, "http://127.0.0.1:9/", "[]"),
        WITH_ERROR(VMKHelpCenterUtilLoadURL, null, nullptr, nullptr, nullptr),
        WITH_ERROR(VMKHelpCenterUtilLoadURL, invalid, notUtf8, nullptr, nullptr),
    };
    // clang-format on

    for (const auto& row : rows) {
        SCOPED_TRACE(row.function);
        logs->clear();
        VMKError* refusal = nullptr;
        EXPECT_TRUE(row.call(&refusal)) << "did not return its failure value";
        if (row.code != logged) {
            EXPECT_STREQ(VMKErrorGetDomain(refusal), VMKErrorDomainInterface);
            EXPECT_EQ(VMKErrorGetCode(refusal), row.code);
            VMKErrorRelease(refusal);
            EXPECT_TRUE(row.call(nullptr)) << "did not return its failure value without outError";
        }
        // Asked for an error, the function logs nothing; without outError it logs the refusal once.
        EXPECT_EQ(logs->linesStartingWith(std::string(row.function) + ": ").size(), 1u);
    }

    VMKUserProviderRelease(users);
    VMKPushProviderRelease(push);
    VMKBlipsProviderRelease(blips);
    VMKObjCJwtRelease(jwt);
    VMKObjCAnonymousRelease(anonymous);
    VMKErrorRelease(error);
    VMKUserRelease(user);
    VMKUserFieldRelease(field);
    VMKVelmoraRelease(velmora);
    EXPECT_EQ(VMKDebugLiveHandleCount(), 0u);
}

}  // namespace
}  // namespace velmora::testing
