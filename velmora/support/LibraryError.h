#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "velmora/platform/Error.h"

namespace velmora {

// The Error for a case of one of the library's error enumerations: domain "VelmoraCoreSDK.<TypeName>",
// the case's position as the code, and its localized description when the enumeration gives one.
template <class Enumeration>
Error libraryError(std::string_view typeName, Enumeration value,
                   std::optional<std::string> localizedDescription) {
    const auto code = static_cast<std::int64_t>(value);
    std::string domain = "VelmoraCoreSDK." + std::string(typeName);
    if (localizedDescription) {
        return Error::withDescription(std::move(domain), code, std::move(*localizedDescription));
    }
    return Error(std::move(domain), code);
}

}  // namespace velmora
