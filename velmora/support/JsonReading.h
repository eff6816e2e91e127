#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

namespace velmora {

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
