#include "velmora/support/AccountDetails.h"

#include "velmora/platform/Base64.h"
#include "velmora/platform/Utf8.h"

namespace velmora {

std::optional<std::string> AccountDetails::base64() const {
    const std::string joined = accountUrl() + applicationId();
    if (!platform::isValidUtf8(joined)) {
        return std::nullopt;
    }
    return platform::base64Encode(joined);
}

}  // namespace velmora
