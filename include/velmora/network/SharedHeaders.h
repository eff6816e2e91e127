#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/platform/URLRequest.h"

namespace velmora {

enum class HttpMethod { get, post, delete_, put };

VELMORA_EXPORT std::string_view rawValue(HttpMethod method);
// Exact, upper-case matches only: "get" is no method.
VELMORA_EXPORT std::optional<HttpMethod> httpMethodFromRawValue(std::string_view raw);

struct VersionConstants {
    static constexpr double VelmoraCoreSDKVersionNumber = 2.0;
    static constexpr std::string_view VelmoraCoreSDKVersionString = "2.0.0";
};

// The headers every request of the library's session carries.
class VELMORA_EXPORT SharedHeaders {
  public:
    // "Velmora-SDK/<version> iOS/<system version> Variant/<variant>": receivers parse this exact shape.
    static std::string userAgentHeader(std::string_view sdkVersion, std::string_view sdkVariant);
    // "mobile/<system name>/sdk/<variant>", all lower case.
    static std::string clientHeader(std::string_view variant);
    static platform::HTTPHeaderFields sharedHeaders(std::string_view sdkVersion, std::string_view sdkVariant);
};

// {"Accept-Language": first preferred language, lower case}, or nothing when there is none.
VELMORA_EXPORT std::map<std::string, std::string> acceptLanguageHeader();

}  // namespace velmora
