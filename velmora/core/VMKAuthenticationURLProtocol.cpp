#include "velmora/core/VMKAuthenticationURLProtocol.h"

#include <utility>

#include "velmora/core/HelpCenterUtil.h"

namespace velmora {

using platform::URLRequest;

bool VMKAuthenticationURLProtocol::canInit(const URLRequest& request) {
    if (property(handledKey, request)) {
        return false;
    }
    return HelpCenterUtil::velmoraURL() && HelpCenterUtil::hasAuth() &&
           HelpCenterUtil::isAccountPage(request.url) && !request.value("Authorization");
}

URLRequest VMKAuthenticationURLProtocol::canonicalRequest(const URLRequest& request) {
    return HelpCenterUtil::canonicalRequest(request);
}

void VMKAuthenticationURLProtocol::startLoading() {
    auto copy = request();
    setProperty(true, handledKey, copy);
    connection_ = platform::URLConnection::start(
        std::move(copy), std::static_pointer_cast<VMKAuthenticationURLProtocol>(shared_from_this()));
}

void VMKAuthenticationURLProtocol::stopLoading() {
    if (const auto running = std::exchange(connection_, nullptr)) {
        running->cancel();
    }
}

// Stored nowhere: the page was loaded with the user's token.
void VMKAuthenticationURLProtocol::didReceiveResponse(
    platform::URLConnection&, const std::shared_ptr<const platform::HTTPURLResponse>& response) {
    client()->didReceiveResponse(*this, response, platform::URLCacheStoragePolicy::notAllowed);
}

void VMKAuthenticationURLProtocol::didReceiveData(platform::URLConnection&, const Data& data) {
    client()->didLoadData(*this, data);
}

void VMKAuthenticationURLProtocol::didFinishLoading(platform::URLConnection&) {
    client()->didFinishLoading(*this);
}

void VMKAuthenticationURLProtocol::didFailWithError(platform::URLConnection&, const Error& error) {
    client()->didFailWithError(*this, error);
}

}  // namespace velmora
