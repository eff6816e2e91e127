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

platform::URLRequest HelpCenterUtil::canonicalRequest(const platform::URLRequest& request) {
    if (const auto token = storedToken(Velmora::instance())) {
        auto copy = request;
        copy.setValue("Bearer " + *token, "Authorization");
        return copy;
    }
    // A request's description is its URL.
    CoreLogger::verbose("Unable to add header to request: " + request.url.absoluteString());
    return request;
}

}  // namespace velmora
