#pragma once

#include <memory>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/platform/URLConnection.h"
#include "velmora/platform/URLProtocol.h"

namespace velmora {

// Loads the account's help-centre pages with the end user's token. Once the host registers it
// (platform::URLProtocol::registerClass<VMKAuthenticationURLProtocol>(); the library never does), it claims
// every request under the account URL (a plain, case-sensitive prefix of the URL text) that carries no
// "Authorization" while the user has a token, sends a marked copy with "Authorization: Bearer <token>", and
// hands the answer back unchanged, never to be cached. Each page request is claimed once and sent once.
class VELMORA_EXPORT VMKAuthenticationURLProtocol : public platform::URLProtocol,
                                                    public platform::URLConnectionDelegate {
  public:
    // Set to true on the copy this protocol sends, so that the copy is not claimed again.
    static constexpr std::string_view handledKey = "VMK_HELP_CENTER_URL_PROTOCOL_HANDLED_KEY";

    using URLProtocol::URLProtocol;

    static bool canInit(const platform::URLRequest& request);
    static platform::URLRequest canonicalRequest(const platform::URLRequest& request);

    void startLoading() override;
    void stopLoading() override;

    // The connection loading the marked copy, from startLoading until stopLoading.
    const std::shared_ptr<platform::URLConnection>& connection() const { return connection_; }

    void didReceiveResponse(platform::URLConnection& connection,
                            const std::shared_ptr<const platform::HTTPURLResponse>& response) override;
    void didReceiveData(platform::URLConnection& connection, const Data& data) override;
    void didFinishLoading(platform::URLConnection& connection) override;
    void didFailWithError(platform::URLConnection& connection, const Error& error) override;

  private:
    std::shared_ptr<platform::URLConnection> connection_;
};

}  // namespace velmora
