#include "velmora/identity/ObjCIdentity.h"

#include "velmora/Errors.h"
#include "velmora/support/LibraryError.h"

namespace velmora {

Error toError(ObjCIdentityError error) {
    return libraryError(errors::objCIdentityDomain, error, std::nullopt);
}

Result<Identity> VMKObjCIdentity::unwrap() const {
    if (const auto* anonymous = dynamic_cast<const VMKObjCAnonymous*>(this)) {
        return Result<Identity>::success(Identity(anonymous->anonymous()));
    }
    if (const auto* jwt = dynamic_cast<const VMKObjCJwt*>(this)) {
        return Result<Identity>::success(Identity(jwt->jwt()));
    }
    return Result<Identity>::error(toError(ObjCIdentityError::incompatibleType));
}

std::shared_ptr<VMKObjCIdentity> makeObjCIdentity(const Identity& identity) {
    if (const auto* anonymous = identity.anonymous()) {
        return std::make_shared<VMKObjCAnonymous>(*anonymous);
    }
    return std::make_shared<VMKObjCJwt>(*identity.jwt());
}

}  // namespace velmora
