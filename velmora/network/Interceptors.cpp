#include "velmora/network/AccountInterceptors.h"

#include "velmora/network/NetworkClient.h"
#include "velmora/platform/Uuid.h"

namespace velmora {

platform::DispatchQueue interceptorQueue() {
    return platform::DispatchQueue("com.velmora.core.interceptor-queue." + platform::uuidString());
}

Result<platform::URLRequest> ClientIdentifierInterceptor::intercept(Result<platform::URLRequest> request,
                                                                    const platform::DispatchGroup&) {
    if (request.isError()) {
        return request;
    }
    auto prepared = std::move(request).value();
    prepared.setValue(accountDetails_->clientId(), "Client-Identifier");
    return Result<platform::URLRequest>::success(std::move(prepared));
}

std::string ClientIdentifierInterceptor::description() const {
    return "ClientIdentifierInterceptor(clientId: " + accountDetails_->clientId() + ")";
}

void InvalidResponseInterceptor::intercept(const std::optional<Data>&,
                                           const std::shared_ptr<const platform::HTTPURLResponse>& response,
                                           const std::optional<Error>&) {
    if (response && response->statusCode() == 401) {
        (void)identityStore_.defaults()->transaction([&] {
            sessionStore_.clear();
            identityStore_.clear();
        });
        NetworkClient::defaultClient().removeCachedResponses();
    }
}

}  // namespace velmora
