#pragma once

#include <chrono>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"
#include "velmora/platform/Data.h"
#include "velmora/platform/URL.h"

namespace velmora::platform {

// Header names compare without regard to case, as HTTP defines them.
struct VELMORA_EXPORT CaseInsensitiveLess {
    using is_transparent = void;
    bool operator()(std::string_view a, std::string_view b) const;
};
using HTTPHeaderFields = std::map<std::string, std::string, CaseInsensitiveLess>;

struct VELMORA_EXPORT URLRequest {
    explicit URLRequest(URL requestUrl) : url(std::move(requestUrl)) {}

    URL url;
    std::string httpMethod = "GET";
    HTTPHeaderFields allHTTPHeaderFields;
    std::optional<Data> httpBody;
    // Seconds without progress before the request fails; empty: the environment's time-out.
    std::optional<double> timeoutInterval;
    // When the whole exchange must be over; empty: the environment's request deadline from when it starts.
    std::optional<std::chrono::steady_clock::time_point> deadline;
    // Values URL protocols attach to the request (URLProtocol::property); they travel with its copies and
    // are never sent.
    std::map<std::string, nlohmann::json, std::less<>> protocolProperties;

    void setValue(std::string value, std::string_view field) {
        allHTTPHeaderFields.insert_or_assign(std::string(field), std::move(value));
    }
    std::optional<std::string> value(std::string_view field) const;
};

class VELMORA_EXPORT HTTPURLResponse {
  public:
    HTTPURLResponse(URL responseUrl, int status, HTTPHeaderFields headers);

    const URL& url() const { return url_; }
    int statusCode() const { return statusCode_; }
    const HTTPHeaderFields& allHeaderFields() const { return headers_; }
    std::optional<std::string> value(std::string_view field) const;
    // From "Content-Type": the media type in lower case, and its charset.
    const std::optional<std::string>& mimeType() const { return mimeType_; }
    const std::optional<std::string>& textEncodingName() const { return textEncodingName_; }

    // The standard reason text for a status, in lower case ("not found", "no error").
    static std::string localizedString(int statusCode);

  private:
    URL url_;
    int statusCode_;
    HTTPHeaderFields headers_;
    std::optional<std::string> mimeType_;
    std::optional<std::string> textEncodingName_;
};

enum class URLCacheStoragePolicy { allowed, allowedInMemoryOnly, notAllowed };

// A response with its body, as a cache keeps it.
struct VELMORA_EXPORT CachedURLResponse {
    std::shared_ptr<const HTTPURLResponse> response;
    Data data;
    URLCacheStoragePolicy storagePolicy = URLCacheStoragePolicy::allowed;
    // Whatever the one who stored it wants kept beside it; null when nothing.
    nlohmann::json userInfo = nullptr;
};

}  // namespace velmora::platform
