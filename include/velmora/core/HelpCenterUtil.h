#pragma once

#include <optional>
#include <string>

#include "velmora/Export.h"
#include "velmora/platform/URLRequest.h"

namespace velmora {

// What help-centre loading decides from the library's state: whether a page request should carry the end
// user's token, and the request that carries it. A host whose web view has a request hook of its own passes
// each request through canonicalRequest and loads what comes back; others register
// VMKAuthenticationURLProtocol and load through platform::URLConnection.
class VELMORA_EXPORT HelpCenterUtil {
  public:
    // The account URL of the initialised library; nothing before initialize (the read of the instance then
    // logs and notifies as every such read does).
    static std::optional<std::string> velmoraURL();
    // Whether the library is initialised and holds an access token that is not empty.
    static bool hasAuth();
    // Whether the URL is a page of the account: its text begins with the account URL (case-sensitive) and it
    // has the account URL's origin and no user info.
    static bool isAccountPage(const platform::URL& url);
    // For a page of the account while a token is held (an empty one too), a copy of the request with
    // "Authorization" set to "Bearer " and the token; otherwise the request as it is, and a verbose log line
    // saying so. The token never goes to another origin, whatever page a web view asks for.
    static platform::URLRequest canonicalRequest(const platform::URLRequest& request);
};

// The name callers of the older object runtime know it by.
using VMKHelpCenterUtil = HelpCenterUtil;

}  // namespace velmora
