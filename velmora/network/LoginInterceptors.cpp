#include "velmora/network/LoginInterceptors.h"

#include <mutex>

#include "velmora/support/CoreLogger.h"

namespace velmora {

Result<platform::URLRequest> LoginRequestInterceptor::intercept(Result<platform::URLRequest> request,
                                                                const platform::DispatchGroup& group) {
    if (identityStore_.oauthToken()) {
        return request;
    }
    // The callback comes on the main queue while this thread waits; the box is what they share.
    struct Box {
        explicit Box(Result<platform::URLRequest> incoming) : result(std::move(incoming)) {}
        std::mutex mutex;
        Result<platform::URLRequest> result;
    };
    const auto box = std::make_shared<Box>(std::move(request));
    group.enter();
    accessProvider_->getAccess([box, group, store = identityStore_](Result<Access> access) {
        if (access.isSuccess()) {
            store.update(IdentityStore::authTokenKey, access.value().authentication.access_token);
            store.update(IdentityStore::userIdKey, access.value().authentication.user_id);
        } else {
            {
                std::lock_guard lock(box->mutex);
                box->result = Result<platform::URLRequest>::error(access.error());
            }
            CoreLogger::error("Login error : " + access.error().description());
        }
        group.leave();
    });
    group.wait();
    std::lock_guard lock(box->mutex);
    return std::move(box->result);
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
