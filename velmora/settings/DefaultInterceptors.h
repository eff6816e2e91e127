#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "velmora/network/ProviderService.h"

namespace velmora {

// The chain of every ordinary request: settings, login, authorisation, client identifier. It lives with the
// settings interceptor it starts with, above the network layer that holds the others and below every
// provider that uses it.
std::vector<std::shared_ptr<RequestInterceptor>> defaultRequestInterceptors(
    const std::shared_ptr<const AccountDetails>& accountDetails);

// A service with the default chain, a 401 handler for the account, and a queue and group of its own: the
// form providers use.
ProviderService makeProviderService(std::shared_ptr<const AccountDetails> environment,
                                    platform::URL urlComponent, bool requiresAuth, HttpMethod httpMethod,
                                    std::map<std::string, std::string> headers, std::optional<Data> body,
                                    platform::DispatchQueue dispatchQueue,
                                    Reporter reporter = Reporter::none(),
                                    std::shared_ptr<CachedHTTPURLResponseDelegate> cachingDelegate = nullptr);

}  // namespace velmora
