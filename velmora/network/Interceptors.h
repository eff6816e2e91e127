#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "velmora/Export.h"
#include "velmora/core/AccountDetails.h"
#include "velmora/identity/IdentityStore.h"
#include "velmora/platform/Dispatch.h"
#include "velmora/platform/Result.h"
#include "velmora/platform/URLRequest.h"
#include "velmora/storage/SessionStore.h"

namespace velmora {

// Prepares a request before it leaves, or stops it with an error. Gets the chain's current result: an
// interceptor that receives an error returns it unchanged.
class VELMORA_EXPORT RequestInterceptor {
  public:
    virtual ~RequestInterceptor() = default;
    virtual Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                                   const platform::DispatchGroup& group) = 0;
    // How the chain's log lines name this interceptor.
    virtual std::string description() const = 0;
};

// Sees every chunk of every answer to the requests it is attached to.
class VELMORA_EXPORT HTTPResponseInterceptor {
  public:
    virtual ~HTTPResponseInterceptor() = default;
    virtual void intercept(const std::optional<Data>& data,
                           const std::shared_ptr<const platform::HTTPURLResponse>& response,
                           const std::optional<Error>& error) = 0;
};

struct VELMORA_EXPORT Interceptors {
    std::vector<std::shared_ptr<RequestInterceptor>> requestInterceptors;
    std::vector<std::shared_ptr<HTTPResponseInterceptor>> responseInterceptors;
    platform::DispatchQueue interceptorQueue;
    platform::DispatchGroup interceptorGroup;
};

// A new serial queue for one request's chain: "com.velmora.core.interceptor-queue." and a fresh UUID.
VELMORA_EXPORT platform::DispatchQueue interceptorQueue();

// Sets "Client-Identifier" to the account's client id.
class VELMORA_EXPORT ClientIdentifierInterceptor : public RequestInterceptor {
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
// every chunk of such an answer.
class VELMORA_EXPORT InvalidResponseInterceptor : public HTTPResponseInterceptor {
  public:
    explicit InvalidResponseInterceptor(const std::string& appId)
        : sessionStore_(appId), identityStore_(appId) {}
    void intercept(const std::optional<Data>& data,
                   const std::shared_ptr<const platform::HTTPURLResponse>& response,
                   const std::optional<Error>& error) override;

  private:
    SessionStore sessionStore_;
    IdentityStore identityStore_;
};

}  // namespace velmora
