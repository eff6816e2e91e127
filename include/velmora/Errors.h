#pragma once

#include <cstdint>
#include <string_view>

// The error domains and codes a host may meet in a Result's Error, as named constants to match on. The
// library creates its errors from these same constants. A leaf: every layer may include it.
namespace velmora::errors {

// What the library's providers report about the account's answers.
inline constexpr std::string_view coreDomain = "com.velmora.sdk.core";
// The access call (login) failed: a non-2xx answer or none. The user info carries "HTTP Status code" and the
// members of the account's error body. Every request that needed the login fails with it.
inline constexpr std::int64_t accessFailed = 1000;
// A push registration got a non-2xx answer ("HTTP Status code" in the user info) or no body.
inline constexpr std::int64_t pushRegistrationFailed = 2000;
// A user request got no body.
inline constexpr std::int64_t userNoData = 3000;
// The user-info key of the HTTP status of a failed answer.
inline constexpr std::string_view httpStatusCodeKey = "HTTP Status code";

// No identity is stored, so there is nobody to log in: set one with Velmora::setIdentity.
inline constexpr std::string_view accessDomain = "com.velmora.core.access";
inline constexpr std::int64_t noIdentity = 100;

// Decoding and encoding of JSON, with the codes of the platform's decoder.
inline constexpr std::string_view decodingDomain = "NSCocoaErrorDomain";
inline constexpr std::int64_t notJson = 3840;         // a stored identity that is not JSON
inline constexpr std::int64_t dataCorrupted = 4864;   // malformed, or a member of the wrong type
inline constexpr std::int64_t valueNotFound = 4865;   // a required member is missing
inline constexpr std::int64_t encodingFailed = 4866;  // a value that cannot be encoded (text not UTF-8)

// Transport failures, with the platform's URL-loading codes. HTTP statuses are never transport errors.
inline constexpr std::string_view urlDomain = "NSURLErrorDomain";
namespace url {
inline constexpr std::int64_t unknown = -1;
inline constexpr std::int64_t cancelled = -999;
inline constexpr std::int64_t badURL = -1000;
inline constexpr std::int64_t timedOut = -1001;
inline constexpr std::int64_t cannotFindHost = -1003;
inline constexpr std::int64_t cannotConnectToHost = -1004;
inline constexpr std::int64_t networkConnectionLost = -1005;
inline constexpr std::int64_t httpTooManyRedirects = -1007;
inline constexpr std::int64_t badServerResponse = -1011;
inline constexpr std::int64_t secureConnectionFailed = -1200;
inline constexpr std::int64_t serverCertificateUntrusted = -1202;
// A redirect from https to http: never followed.
inline constexpr std::int64_t secureConnectionRequired = -1022;
// An answer larger than Environment::http.maximumResponseBytes.
inline constexpr std::int64_t dataLengthExceedsMaximum = -1103;
}  // namespace url

// File-system failures; the code is the errno value.
inline constexpr std::string_view posixDomain = "NSPOSIXErrorDomain";

// The library's own error enumerations: "VelmoraCoreSDK.<Type>", the case's position as the code.
inline constexpr std::string_view authenticationDomain = "VelmoraCoreSDK.Authentication.AuthenticationError";
inline constexpr std::int64_t malformedUserId = 0;  // the access answer's user id is not a 64-bit integer
inline constexpr std::string_view identityDomain = "VelmoraCoreSDK.Identity.IdentityError";
inline constexpr std::int64_t unknownIdentityType = 0;
inline constexpr std::string_view objCIdentityDomain = "VelmoraCoreSDK.ObjCIdentityError";
inline constexpr std::int64_t incompatibleIdentityType = 0;  // a bridge identity of a class of the host's
inline constexpr std::string_view cacheManagerDomain = "VelmoraCoreSDK.CacheManagerError";
inline constexpr std::int64_t nilCacheURL = 0;
inline constexpr std::string_view accountStoreDomain = "VelmoraCoreSDK.AccountStoreError";
inline constexpr std::int64_t base64EncodingFailed = 0;
inline constexpr std::string_view sdkDomain = "VelmoraCoreSDK.SDKError";

}  // namespace velmora::errors
