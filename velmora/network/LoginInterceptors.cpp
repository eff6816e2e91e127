#include "velmora/network/LoginInterceptors.h"

#include <map>
#include <mutex>
#include <optional>

#include "velmora/Errors.h"
#include "velmora/platform/CalledOrDropped.h"
#include "velmora/platform/URLSession.h"
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

// Ends the login once: the chains waiting for it go on with its outcome, and the next chain without a token
// makes a new one.
void finish(const std::shared_ptr<PendingLogin>& login, const std::string& appId, Result<Access> outcome) {
    {
        std::lock_guard lock(pendingLoginsMutex());
        if (const auto it = pendingLogins().find(appId); it != pendingLogins().end() && it->second == login) {
            pendingLogins().erase(it);
        }
    }
    {
        std::lock_guard lock(login->mutex);
        if (login->outcome) {
            return;
        }
        login->outcome = std::move(outcome);
    }
    login->done.leave();
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
        // goes on, unless the identity it was asked for has been replaced meanwhile. A host's executor that
        // drops the call unanswered (or throws on it) ends the login with an error.
        const auto appId = identityStore_.appId();
        accessProvider_->getAccess(platform::calledOrDropped<Result<Access>>(
            [login, store = identityStore_, forUuid = identityStore_.currentUuid()](Result<Access> access) {
                if (access.isSuccess()) {
                    (void)store.storeAccess(access.value().authentication.access_token,
                                            access.value().authentication.user_id, forUuid);
                }
                finish(login, store.appId(), std::move(access));
            },
            [login, appId] {
                finish(login, appId,
                       Result<Access>::error(platform::URLError::make(
                           errors::url::cancelled, {}, "the access call ended without an answer")));
            }));
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
