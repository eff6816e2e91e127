#pragma once

#include <optional>
#include <ostream>

#include "velmora/platform/PropertyList.h"

// Lets failed assertions print values as text instead of bytes.
namespace velmora::platform {
inline void PrintTo(const PropertyValue& value, std::ostream* out) {
    *out << textOf(value);
}
inline void PrintTo(const std::optional<PropertyValue>& value, std::ostream* out) {
    *out << textOf(value);
}
}  // namespace velmora::platform
