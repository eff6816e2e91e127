#pragma once

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/identity/Identity.h"
#include "velmora/platform/KeyedArchive.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// The identity classes of the library's earlier generation. Their names are recorded in the archives that
// generation left behind, so they are kept exactly.
class VMKIdentity {
  public:
    virtual ~VMKIdentity() = default;
    virtual std::string_view className() const = 0;
    virtual void encodeWithCoder(platform::KeyedEncoder& coder) const = 0;

    // The archive of this object, in the shape the earlier generation wrote.
    Data archivedData() const;
    // The archived identity; empty when the archive is malformed or holds an object of another class.
    static std::shared_ptr<VMKIdentity> unarchiveObjectWithData(const Data& archive);
};

class VMKJwtIdentity : public VMKIdentity {
  public:
    explicit VMKJwtIdentity(std::optional<std::string> jwtToken = std::nullopt)
        : token(std::move(jwtToken)) {}
    explicit VMKJwtIdentity(const platform::KeyedDecoder& coder) : token(coder.decodeString("token")) {}

    std::string_view className() const override { return "VMKJwtIdentity"; }
    void encodeWithCoder(platform::KeyedEncoder& coder) const override { coder.encode(token, "token"); }

    std::optional<std::string> token;
};

class VMKAnonymousIdentity : public VMKIdentity {
  public:
    VMKAnonymousIdentity(std::optional<std::string> anonymousName, std::optional<std::string> anonymousEmail)
        : name(std::move(anonymousName)), email(std::move(anonymousEmail)) {}
    explicit VMKAnonymousIdentity(const platform::KeyedDecoder& coder)
        : name(coder.decodeString("name")), email(coder.decodeString("email")) {}

    std::string_view className() const override { return "VMKAnonymousIdentity"; }
    void encodeWithCoder(platform::KeyedEncoder& coder) const override {
        coder.encode(name, "name");
        coder.encode(email, "email");
    }

    std::optional<std::string> name;
    std::optional<std::string> email;
};

class IdentityMigration {
  public:
    virtual ~IdentityMigration() = default;
    virtual std::optional<std::string> getMigratedJwtIdentifier() const = 0;
    virtual std::optional<std::string> getMigratedAnonymousName() const = 0;
    virtual std::optional<std::string> getMigratedAnonymousEmail() const = 0;
};

// Reads the archived identity under "vmk-identity" in the standard user defaults as soon as it is made.
class VMKIdentityMigrator : public IdentityMigration {
  public:
    VMKIdentityMigrator() { runMigration(); }

    void runMigration();

    std::optional<std::string> getMigratedJwtIdentifier() const override;
    std::optional<std::string> getMigratedAnonymousName() const override;
    std::optional<std::string> getMigratedAnonymousEmail() const override;

    std::shared_ptr<VMKIdentity> identity;
};

// Carries the identity, token, user id, push token and GUID of the earlier generation over to this one when
// the identity being set is the one it had stored, and deletes that generation's data in every case.
class LegacyIdentityMigrator {
  public:
    static constexpr std::string_view identityKey = "vmk-identity";
    static constexpr std::string_view guidKey = "vmK-auth-guid";
    static constexpr std::string_view oauthTokenKey = "vmk-oauth";
    static constexpr std::string_view userIdKey = "vmk-user-id";
    static constexpr std::string_view token = "token";
    static constexpr std::string_view name = "name";
    static constexpr std::string_view email = "email";
    static constexpr std::string_view legacyPushSuiteName = "com.velmora.push";
    static constexpr std::string_view deviceTokenKey = "device-token";

    LegacyIdentityMigrator(const AccountDetails& accountDetails, Identity identityBeingSet)
        : identityStore(accountDetails.applicationId()),
          sessionStore(accountDetails.applicationId()),
          newIdentity(std::move(identityBeingSet)) {}

    // True when the earlier generation's identity equals the new one and its data was carried over.
    bool checkedAndMigratedIdentity() const;

    IdentityStore identityStore;
    SessionStore sessionStore;
    Identity newIdentity;

  private:
    std::optional<Identity> getLegacyIdentity() const;
    std::optional<std::int64_t> getLegacyUserId() const;
    std::optional<std::string> getLegacyOauthToken() const;
    std::optional<std::string> getLegacySdkGuid() const;
    std::optional<std::string> getLegacyPushToken() const;
    void clearLegacyStorage() const;
};

}  // namespace velmora
