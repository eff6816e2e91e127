#pragma once

#include <cstdint>
#include <limits>
#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace velmora {

// Whether the value is an integer a signed 64-bit integer holds. The parser keeps larger ones unsigned, and
// reading those as signed would wrap them (2^64-1 would read as -1).
inline bool isInt64(const nlohmann::json& value) {
    return value.is_number_integer() &&
           !(value.is_number_unsigned() &&
             value.get<std::uint64_t>() >
                 static_cast<std::uint64_t>(std::numeric_limits<std::int64_t>::max()));
}

// Reads an optional text member: a missing member and null both leave `out` empty. False when the member is
// there with another type, which fails the decoding of the whole object.
inline bool readOptionalString(const nlohmann::json& object, const char* key,
                               std::optional<std::string>& out) {
    const auto it = object.find(key);
    if (it == object.end() || it->is_null()) {
        out.reset();
        return true;
    }
    if (!it->is_string()) {
        return false;
    }
    out = it->get<std::string>();
    return true;
}

}  // namespace velmora
