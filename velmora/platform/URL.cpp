#include "velmora/platform/URL.h"

#include <curl/curl.h>

#include <algorithm>
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

namespace {

// libcurl's own bound on a URL's length.
constexpr std::size_t longestURL = 8'000'000;

// A space or a control byte: never part of a URL.
bool hasJunk(std::string_view text) {
    return std::any_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte <= 0x20 || byte == 0x7f;
    });
}

}  // namespace

std::optional<URL> URL::fromString(std::string_view text) {
    // The junk check is one pass here. libcurl then parses only what stands before the query and the
    // fragment, which it would keep as given anyway, so a long query (an event's payload) is not scanned
    // twice.
    const auto query = text.find_first_of("?#");
    std::unique_ptr<CURLU, void (*)(CURLU*)> handle(curl_url(), curl_url_cleanup);
    if (text.size() > longestURL || hasJunk(text) || !handle ||
        curl_url_set(handle.get(), CURLUPART_URL, std::string(text.substr(0, query)).c_str(), 0) !=
            CURLUE_OK) {
        return std::nullopt;
    }
    URL url;
    url.scheme_ = part(handle.get(), CURLUPART_SCHEME);
    url.host_ = part(handle.get(), CURLUPART_HOST);
    if (url.scheme_.empty() || url.host_.empty()) {
        return std::nullopt;
    }
    const auto port = part(handle.get(), CURLUPART_PORT, CURLU_DEFAULT_PORT);
    url.port_ = port.empty() ? 0 : std::stoi(port);
    url.hasUserInfo_ =
        !part(handle.get(), CURLUPART_USER).empty() || !part(handle.get(), CURLUPART_PASSWORD).empty();
    url.text_ = text;
    return url;
}

std::optional<URL> URL::appending(std::string_view suffix) const {
    if (suffix.empty() || suffix.front() != '/' || text_.find_first_of("?#") != std::string::npos ||
        text_.size() + suffix.size() > longestURL || hasJunk(suffix)) {
        return std::nullopt;
    }
    URL url = *this;
    url.text_ += suffix;
    return url;
}

std::string URL::origin() const {
    return scheme_ + "://" + host_ + ":" + std::to_string(port_);
}

}  // namespace velmora::platform
