#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "velmora/identity/Identity.h"
#include "velmora/platform/URL.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SettingsStore.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// The access token and user id the access call returns. The user id travels as decimal text.
struct Authentication {
    enum class AuthenticationError { malformedUserId };

    std::string access_token;
    std::int64_t user_id = 0;

    static Result<Authentication> fromJson(const nlohmann::json& json);
    nlohmann::json toJson() const;
};

Error toError(Authentication::AuthenticationError error);

struct Access {
    Authentication authentication;

    // {"authentication": {"access_token": "...", "user_id": "<decimal digits>"}}
    static Result<Access> decode(const Data& data);
    nlohmann::json toJson() const;
};

// Strict base-10: an optional sign, then digits only, within the signed 64-bit range.
std::optional<std::int64_t> parseDecimalInt64(std::string_view text);

// The access endpoint for an identity: account URL + "/access/sdk/anonymous" or "/access/sdk/jwt".
Result<platform::URL> accessURL(const Identity& identity, const AccountDetails& details);

// The access call's body: {"user": {...}} with the store's GUID for anonymous users, the token for JWT users.
// Empty when it cannot be encoded; the call then goes without a body.
std::optional<Data> accessBody(const Identity& identity, const GUIDProvider& guidProvider);

class AccessProviderProtocol {
  public:
    virtual ~AccessProviderProtocol() = default;
    // Calls back exactly once: on the main queue after the call, or at once when there is no identity.
    virtual void getAccess(std::function<void(Result<Access>)> callback) = 0;
};

// Exchanges the stored identity for an access token. Stores nothing: the login interceptor does.
class AccessProvider : public AccessProviderProtocol {
  public:
    explicit AccessProvider(std::shared_ptr<const AccountDetails> environment);

    void getAccess(std::function<void(Result<Access>)> callback) override;

  private:
    std::shared_ptr<const AccountDetails> environment_;
    IdentityStore identityStore_;
    SettingsStore settingsStore_;
};

}  // namespace velmora
