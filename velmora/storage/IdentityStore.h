#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/identity/Identity.h"
#include "velmora/storage/AppStorable.h"

namespace velmora {

class GUIDProvider {
  public:
    virtual ~GUIDProvider() = default;
    virtual std::optional<std::string> guid() const = 0;
};

class UserDetails : public GUIDProvider {
  public:
    // Empty text when no identity has been stored.
    virtual std::string uuid() const = 0;
    virtual std::optional<std::int64_t> userId() const = 0;
};

// Everything known about the current end user between launches, per app id: the identity, the installation
// GUID (anonymous users), a UUID renewed with every new identity, the access token and the user id.
class IdentityStore : public AppStorable, public UserDetails {
  public:
    static constexpr std::string_view suite = "com.velmora.core.identity";
    static constexpr std::string_view identityKey = "identity";
    static constexpr std::string_view guidKey = "guid";
    static constexpr std::string_view uuidKey = "uuid";
    static constexpr std::string_view authTokenKey = "auth_token";
    static constexpr std::string_view userIdKey = "user_id";

    explicit IdentityStore(std::string appId) : AppStorable(suite, std::move(appId)) {}

    // Reads never fail: missing or malformed values read as absent.
    std::optional<Identity> identity() const;
    std::optional<std::string> guid() const override;
    std::string uuid() const override;
    std::optional<std::string> oauthToken() const;
    std::optional<std::int64_t> userId() const override;

    // A different identity: new UUID, a new GUID for anonymous users (none for JWT users), no user id.
    // False when it could not be stored.
    bool store(const Identity& identity) const;
    // An equal identity: only the identity itself is rewritten; GUID, UUID, token and user id stay.
    bool storeIdentityOnly(const Identity& identity) const;
    void storeGuid(const std::optional<std::string>& guid) const;
    void update(std::string_view key, const PropertyValue& value) const;

    // The UUID of the stored identity, without the log line uuid() writes when there is none.
    std::optional<std::string> currentUuid() const;
    // A login's token and user id, stored together, and only while the identity the login was made for
    // (known by its UUID) is still the stored one. False when another identity has replaced it.
    bool storeAccess(const PropertyValue& token, const PropertyValue& userId,
                     const std::optional<std::string>& forUuid) const;

  private:
    std::optional<std::string> storedText(std::string_view key) const;
    static void putIdentity(PropertyValue::Dictionary& dictionary, const Identity& identity);
    bool logIdentityStored(bool stored) const;
};

}  // namespace velmora
