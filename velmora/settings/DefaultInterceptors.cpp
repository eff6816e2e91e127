#include "velmora/settings/DefaultInterceptors.h"

#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/LoginInterceptors.h"
#include "velmora/settings/SettingsRequestInterceptor.h"

namespace velmora {

std::vector<std::shared_ptr<RequestInterceptor>> defaultRequestInterceptors(
    const std::shared_ptr<const AccountDetails>& accountDetails) {
    const auto& appId = accountDetails->applicationId();
    return {
        std::make_shared<SettingsRequestInterceptor>(SettingsStore(appId),
                                                     std::make_shared<SettingsProvider>(accountDetails),
                                                     IntervalValidator{3600, Date::now()}),
        std::make_shared<LoginRequestInterceptor>(IdentityStore(appId),
                                                  std::make_shared<AccessProvider>(accountDetails)),
        std::make_shared<AuthRequestInterceptor>(IdentityStore(appId)),
        std::make_shared<ClientIdentifierInterceptor>(accountDetails),
    };
}

ProviderService makeProviderService(std::shared_ptr<const AccountDetails> environment,
                                    platform::URL urlComponent, bool requiresAuth, HttpMethod httpMethod,
                                    std::map<std::string, std::string> headers, std::optional<Data> body,
                                    platform::DispatchQueue dispatchQueue, Reporter reporter,
                                    std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate) {
    Interceptors interceptors{defaultRequestInterceptors(environment),
                              {std::make_shared<InvalidResponseInterceptor>(environment->applicationId())},
                              interceptorQueue(),
                              platform::DispatchGroup()};
    return ProviderService(std::move(environment), std::move(urlComponent), requiresAuth, httpMethod,
                           std::move(headers), std::move(body), std::move(dispatchQueue),
                           std::move(interceptors), std::move(reporter), std::move(cachingDelegate));
}

}  // namespace velmora
