#include "velmora/core/HelpCenterUtil.h"

#include "velmora/core/Velmora.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {
namespace {

std::optional<std::string> storedToken(const std::shared_ptr<Velmora>& velmora) {
    return velmora ? IdentityStore(velmora->accountDetails().applicationId()).oauthToken() : std::nullopt;
}

}  // namespace

std::optional<std::string> HelpCenterUtil::velmoraURL() {
    const auto velmora = Velmora::instance();
    return velmora ? std::optional(velmora->accountDetails().accountUrl()) : std::nullopt;
}

bool HelpCenterUtil::hasAuth() {
    const auto token = storedToken(Velmora::instance());
    return token && !token->empty();
}

bool HelpCenterUtil::isAccountPage(const platform::URL& url) {
    const auto account = velmoraURL();
    if (!account || !url.absoluteString().starts_with(*account)) {
        return false;
    }
    // The text prefix alone would also take "https://acme.example.com.other.net" or
    // "https://acme.example.com@other.net" for the account "https://acme.example.com".
    const auto accountUrl = platform::URL::fromString(*account);
    return accountUrl && !url.hasUserInfo() && url.origin() == accountUrl->origin();
}

platform::URLRequest HelpCenterUtil::canonicalRequest(const platform::URLRequest& request) {
    if (const auto token = isAccountPage(request.url) ? storedToken(Velmora::instance()) : std::nullopt) {
        auto copy = request;
        copy.setValue("Bearer " + *token, "Authorization");
        return copy;
    }
    // A request's description is its URL.
    CoreLogger::verbose("Unable to add header to request: " + request.url.absoluteString());
    return request;
}

}  // namespace velmora
