#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "velmora/Errors.h"
#include "velmora/platform/Error.h"

namespace velmora {

// The Error for a case of one of the library's error enumerations: its domain (one of the public constants,
// "VelmoraCoreSDK.<TypeName>"), the case's position as the code, and its localized description when the
// enumeration gives one.
template <class Enumeration>
Error libraryError(std::string_view domain, Enumeration value,
                   std::optional<std::string> localizedDescription) {
    const auto code = static_cast<std::int64_t>(value);
    if (localizedDescription) {
        return Error::withDescription(std::string(domain), code, std::move(*localizedDescription));
    }
    return Error(std::string(domain), code);
}

}  // namespace velmora
