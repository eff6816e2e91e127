#include "velmora/network/AccountInterceptors.h"

#include "velmora/network/NetworkClient.h"
#include "velmora/platform/Uuid.h"
#include "velmora/support/CoreLogger.h"

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
    if (!response || response->statusCode() != 401) {
        return;
    }
    const auto sent = [this] {
        std::lock_guard lock(mutex_);
        return sentToken_;
    }();
    bool stale = false;
    (void)identityStore_.defaults()->transaction([&] {
        // Nothing stored (a chunk before this one cleared it): cleared again, as every chunk of a 401 is.
        stale = sent && identityStore_.identity() && identityStore_.oauthToken() != sent;
        if (!stale) {
            sessionStore_.clear();
            identityStore_.clear();
        }
    });
    if (stale) {
        CoreLogger::debug(
            "A 401 answered an access token that is no longer stored: the session stored now "
            "is kept");
        return;
    }
    NetworkClient::defaultClient().removeCachedResponses();
}

void InvalidResponseInterceptor::willSend(const platform::URLRequest& request) {
    constexpr std::string_view bearer = "Bearer ";
    const auto authorization = request.value("Authorization");
    std::lock_guard lock(mutex_);
    sentToken_ = authorization && authorization->starts_with(bearer)
                     ? std::optional(authorization->substr(bearer.size()))
                     : std::nullopt;
}

}  // namespace velmora
