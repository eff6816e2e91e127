#pragma once

#include <memory>
#include <string>

#include "velmora/network/AccessProvider.h"
#include "velmora/network/Interceptors.h"
#include "velmora/storage/IdentityStore.h"

namespace velmora {

// Makes sure an access token exists: with none stored, performs the access call inside the chain, waits for
// it, and stores what it returns. The call is made even after an earlier interceptor failed.
class LoginRequestInterceptor : public RequestInterceptor {
  public:
    LoginRequestInterceptor(IdentityStore identityStore,
                            std::shared_ptr<AccessProviderProtocol> accessProvider)
        : identityStore_(std::move(identityStore)), accessProvider_(std::move(accessProvider)) {}

    Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                           const platform::DispatchGroup& group) override;
    std::string description() const override {
        return "LoginRequestInterceptor(appId: " + identityStore_.appId() + ")";
    }

  private:
    IdentityStore identityStore_;
    std::shared_ptr<AccessProviderProtocol> accessProvider_;
};

// Puts the stored token on the request as "Authorization: Bearer <token>".
class AuthRequestInterceptor : public RequestInterceptor {
  public:
    explicit AuthRequestInterceptor(IdentityStore identityStore) : identityStore_(std::move(identityStore)) {}

    Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                           const platform::DispatchGroup& group) override;
    std::string description() const override {
        return "AuthRequestInterceptor(appId: " + identityStore_.appId() + ")";
    }

  private:
    IdentityStore identityStore_;
};

// Puts a token read earlier on the request: for work on behalf of a user whose session is being cleared
// while the request waits for its turn.
class BearerTokenInterceptor : public RequestInterceptor {
  public:
    explicit BearerTokenInterceptor(std::string token) : token_(std::move(token)) {}

    Result<platform::URLRequest> intercept(Result<platform::URLRequest> request,
                                           const platform::DispatchGroup& group) override;
    std::string description() const override { return "BearerTokenInterceptor"; }

  private:
    std::string token_;
};

}  // namespace velmora
