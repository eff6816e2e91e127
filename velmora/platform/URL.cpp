#include "velmora/platform/URL.h"

#include <curl/curl.h>

#include <memory>

namespace velmora::platform {
namespace {

std::string part(CURLU* handle, CURLUPart which, unsigned flags = 0) {
    char* value = nullptr;
    if (curl_url_get(handle, which, &value, flags) != CURLUE_OK || value == nullptr) {
        return {};
    }
    std::string text(value);
    curl_free(value);
    return text;
}

}  // namespace

std::optional<URL> URL::fromString(std::string_view text) {
    std::unique_ptr<CURLU, void (*)(CURLU*)> handle(curl_url(), curl_url_cleanup);
    const std::string copy(text);
    if (!handle || copy.find_first_of(" \t\r\n") != std::string::npos ||
        curl_url_set(handle.get(), CURLUPART_URL, copy.c_str(), 0) != CURLUE_OK) {
        return std::nullopt;
    }
    URL url;
    url.text_ = copy;
    url.scheme_ = part(handle.get(), CURLUPART_SCHEME);
    url.host_ = part(handle.get(), CURLUPART_HOST);
    const auto port = part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    url.port_ = port.empty() ? 0 : std::stoi(port);
    url.hasUserInfo_ =
        !part(handle.get(), CURLUPART_USER).empty() || !part(handle.get(), CURLUPART_PASSWORD).empty();
    // libcurl keeps the query and the fragment as given; cut from the text, a long query (an event's
    // payload) is not copied twice more.
    const auto hash = copy.find('#');
    const auto question = copy.find('?');
    if (hash != std::string::npos) {
        url.fragment_ = copy.substr(hash + 1);
    }
    if (question < hash) {
        url.query_ =
            copy.substr(question + 1, hash == std::string::npos ? std::string::npos : hash - question - 1);
    }
    if (url.scheme_.empty() || url.host_.empty()) {
        return std::nullopt;
    }
    return url;
}

std::string URL::origin() const {
    return scheme_ + "://" + host_ + ":" + std::to_string(port_);
}

}  // namespace velmora::platform
