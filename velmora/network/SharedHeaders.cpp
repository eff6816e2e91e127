#include "velmora/network/SharedHeaders.h"

#include <algorithm>
#include <cctype>

#include "velmora/platform/DeviceFacts.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/HTTPText.h"

namespace velmora {

std::string_view rawValue(HttpMethod method) {
    switch (method) {
        case HttpMethod::get:
            return "GET";
        case HttpMethod::post:
            return "POST";
        case HttpMethod::delete_:
            return "DELETE";
        case HttpMethod::put:
            return "PUT";
    }
    return "GET";
}

std::optional<HttpMethod> httpMethodFromRawValue(std::string_view raw) {
    for (const auto method : {HttpMethod::get, HttpMethod::post, HttpMethod::delete_, HttpMethod::put}) {
        if (rawValue(method) == raw) {
            return method;
        }
    }
    return std::nullopt;
}

std::string SharedHeaders::userAgentHeader(std::string_view sdkVersion, std::string_view sdkVariant) {
    return platform::format("Velmora-SDK/%@ iOS/%@ Variant/%@", sdkVersion,
                            platform::DeviceFacts::current()->systemVersion(), sdkVariant);
}

std::string SharedHeaders::clientHeader(std::string_view variant) {
    return platform::lowercased(
        platform::format("mobile/%@/sdk/%@", platform::DeviceFacts::current()->systemName(), variant));
}

platform::HTTPHeaderFields SharedHeaders::sharedHeaders(std::string_view sdkVersion,
                                                        std::string_view sdkVariant) {
    return {{"Content-Type", "application/json"},
            {"Accept", "application/json"},
            {"User-Agent", userAgentHeader(sdkVersion, sdkVariant)},
            {"X-Velmora-Client", clientHeader(sdkVariant)},
            {"X-Velmora-Client-Version", std::string(sdkVersion)}};
}

std::map<std::string, std::string> acceptLanguageHeader() {
    const auto languages = platform::DeviceFacts::current()->preferredLanguages();
    if (languages.empty()) {
        return {};
    }
    return {{"Accept-Language", platform::lowercased(languages.front())}};
}

}  // namespace velmora
