#include "velmora/network/LoginInterceptors.h"

#include <map>
#include <mutex>
#include <optional>

#include "velmora/support/CoreLogger.h"

namespace velmora {

namespace {

// One access call in flight per app id: chains that find no token while it runs wait for its outcome
// instead of each minting a token of its own, which a rate-limited access endpoint would refuse.
struct PendingLogin {
    platform::DispatchGroup done;  // entered by the chain that makes the call, left when it answered
    std::mutex mutex;
    std::optional<Result<Access>> outcome;
};

std::mutex& pendingLoginsMutex() {
    static auto* mutex = new std::mutex();  // leaked, like every static a library thread may use at exit
    return *mutex;
}

std::map<std::string, std::shared_ptr<PendingLogin>>& pendingLogins() {
    static auto* logins = new std::map<std::string, std::shared_ptr<PendingLogin>>();
    return *logins;
}

}  // namespace

Result<platform::URLRequest> LoginRequestInterceptor::intercept(Result<platform::URLRequest> request,
                                                                const platform::DispatchGroup&) {
    if (identityStore_.oauthToken()) {
        return request;
    }
    std::shared_ptr<PendingLogin> login;
    bool first = false;
    {
        std::lock_guard lock(pendingLoginsMutex());
        auto& slot = pendingLogins()[identityStore_.appId()];
        if (!slot) {
            slot = std::make_shared<PendingLogin>();
            slot->done.enter();
            first = true;
        }
        login = slot;
    }
    if (first) {
        // The answer comes on the main queue while the chains wait; the token is stored before any of them
        // goes on, unless the identity it was asked for has been replaced meanwhile.
        accessProvider_->getAccess(
            [login, store = identityStore_, forUuid = identityStore_.currentUuid()](Result<Access> access) {
                if (access.isSuccess()) {
                    (void)store.storeAccess(access.value().authentication.access_token,
                                            access.value().authentication.user_id, forUuid);
                }
                {
                    std::lock_guard lock(pendingLoginsMutex());
                    if (const auto it = pendingLogins().find(store.appId());
                        it != pendingLogins().end() && it->second == login) {
                        pendingLogins().erase(it);
                    }
                }
                {
                    std::lock_guard lock(login->mutex);
                    login->outcome = std::move(access);
                }
                login->done.leave();
            });
    }
    login->done.wait();
    std::lock_guard lock(login->mutex);
    if (login->outcome && login->outcome->isError()) {
        // Every chain that waited fails with the login's error and logs it, as if it had made the call.
        CoreLogger::error("Login error : " + login->outcome->error().description());
        return Result<platform::URLRequest>::error(login->outcome->error());
    }
    return request;
}

namespace {

Result<platform::URLRequest> withBearer(Result<platform::URLRequest> request,
                                        const std::optional<std::string>& token) {
    if (!token || request.isError()) {
        return request;
    }
    auto authorised = std::move(request).value();
    authorised.setValue("Bearer " + *token, "Authorization");
    return Result<platform::URLRequest>::success(std::move(authorised));
}

}  // namespace

Result<platform::URLRequest> AuthRequestInterceptor::intercept(Result<platform::URLRequest> request,
                                                               const platform::DispatchGroup&) {
    return withBearer(std::move(request), identityStore_.oauthToken());
}

Result<platform::URLRequest> BearerTokenInterceptor::intercept(Result<platform::URLRequest> request,
                                                               const platform::DispatchGroup&) {
    return withBearer(std::move(request), token_);
}

}  // namespace velmora
