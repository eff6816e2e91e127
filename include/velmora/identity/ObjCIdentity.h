#pragma once

#include <memory>
#include <optional>
#include <string>

#include "velmora/Export.h"
#include "velmora/identity/Identity.h"
#include "velmora/platform/Result.h"

namespace velmora {

enum class ObjCIdentityError { incompatibleType };

VELMORA_EXPORT Error toError(ObjCIdentityError error);

// The identity as hosts on the older object runtime hold it. Only the two classes below convert to an
// Identity; a host class of its own deriving from this one is refused.
class VELMORA_EXPORT VMKObjCIdentity {
  public:
    virtual ~VMKObjCIdentity() = default;

    // For the library itself: the Identity this object stands for.
    Result<Identity> unwrap() const;

  protected:
    VMKObjCIdentity() = default;
    VMKObjCIdentity(const VMKObjCIdentity&) = default;
    VMKObjCIdentity& operator=(const VMKObjCIdentity&) = default;
};

class VELMORA_EXPORT VMKObjCJwt : public VMKObjCIdentity {
  public:
    explicit VMKObjCJwt(std::string token) : jwt_{std::move(token)} {}
    explicit VMKObjCJwt(Jwt jwt) : jwt_(std::move(jwt)) {}

    const std::string& token() const { return jwt_.token; }
    const Jwt& jwt() const { return jwt_; }

  private:
    Jwt jwt_;
};

class VELMORA_EXPORT VMKObjCAnonymous : public VMKObjCIdentity {
  public:
    // What hosts make: never a GUID.
    VMKObjCAnonymous(std::optional<std::string> name, std::optional<std::string> email)
        : anonymous_(Anonymous::withName(std::move(name), std::move(email))) {}
    // The current identity handed out by the facade, with the store's GUID.
    explicit VMKObjCAnonymous(Anonymous anonymous) : anonymous_(std::move(anonymous)) {}

    const std::optional<std::string>& name() const { return anonymous_.name; }
    const std::optional<std::string>& email() const { return anonymous_.email; }
    const std::optional<std::string>& guid() const { return anonymous_.guid; }
    const Anonymous& anonymous() const { return anonymous_; }

    // The same name with another e-mail, and no GUID; this object is unchanged.
    std::shared_ptr<VMKObjCAnonymous> update(std::optional<std::string> email) const {
        return std::make_shared<VMKObjCAnonymous>(anonymous_.name, std::move(email));
    }

  private:
    Anonymous anonymous_;
};

// The bridge object for an identity: a new object on every call.
VELMORA_EXPORT std::shared_ptr<VMKObjCIdentity> makeObjCIdentity(const Identity& identity);

}  // namespace velmora
