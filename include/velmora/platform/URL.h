#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "velmora/Export.h"

namespace velmora::platform {

// An absolute URL, checked by libcurl's parser. The text is kept exactly as given: the library never
// normalises what the host configured (a trailing "/" on the account URL stays a double slash).
class VELMORA_EXPORT URL {
  public:
    // Nothing when the text is not an absolute URL with a scheme and a host.
    static std::optional<URL> fromString(std::string_view text);
    // This URL with `suffix` added to its text, without parsing the whole again: when this URL has no query
    // or fragment and the suffix begins a path (so the scheme, host and port stay what they are). Nothing
    // when that is not so, or when fromString would refuse the text.
    std::optional<URL> appending(std::string_view suffix) const;

    const std::string& absoluteString() const { return text_; }
    const std::string& scheme() const { return scheme_; }
    const std::string& host() const { return host_; }
    // The port given in the URL, or the scheme's default.
    int port() const { return port_; }
    // "scheme://host:port": two URLs with the same origin may share credentials.
    std::string origin() const;
    // Whether a user name or password stands before the host.
    bool hasUserInfo() const { return hasUserInfo_; }

    friend bool operator==(const URL& a, const URL& b) { return a.text_ == b.text_; }

  private:
    URL() = default;
    std::string text_;
    std::string scheme_;
    std::string host_;
    int port_ = 0;
    bool hasUserInfo_ = false;
};

}  // namespace velmora::platform
