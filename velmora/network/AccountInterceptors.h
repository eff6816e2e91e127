#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "velmora/network/Interceptors.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// Sets "Client-Identifier" to the account's client id.
class ClientIdentifierInterceptor : public RequestInterceptor {
  public:
    explicit ClientIdentifierInterceptor(std::shared_ptr<const AccountDetails> accountDetails)
        : accountDetails_(std::move(accountDetails)) {}
    Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                           const platform::DispatchGroup& group) override;
    std::string description() const override;

  private:
    std::shared_ptr<const AccountDetails> accountDetails_;
};

// A 401 answer means the stored access is no longer good: the session and the identity are wiped, on
// every chunk of such an answer. Unless the request carried a token and another session is stored now (the
// host set another identity, or a later login replaced the token): that one was not refused.
class InvalidResponseInterceptor : public HTTPResponseInterceptor {
  public:
    explicit InvalidResponseInterceptor(const std::string& appId)
        : sessionStore_(appId), identityStore_(appId) {}
    void intercept(const std::optional<Data>& data,
                   const std::shared_ptr<const platform::HTTPURLResponse>& response,
                   const std::optional<Error>& error) override;
    void willSend(const platform::URLRequest& request) override;

  private:
    SessionStore sessionStore_;
    IdentityStore identityStore_;
    // The token of the latest request it was attached to; a host's executor may send one service twice.
    mutable std::mutex mutex_;
    std::optional<std::string> sentToken_;
};

}  // namespace velmora
