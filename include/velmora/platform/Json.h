#pragma once

#include <cstddef>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "velmora/Export.h"

namespace velmora::platform {

// How deeply JSON may nest wherever it enters the library, from the network, the disk or the host. Real
// answers nest a few levels; the limit keeps copying, printing and comparing values (which recurse) far
// from the end of any thread's stack.
inline constexpr std::size_t maximumJsonDepth = 512;

// The text parsed, or a discarded value (is_discarded()) when it is not JSON or nests deeper than the limit.
VELMORA_EXPORT nlohmann::json parseJson(std::string_view text);

// The value as compact text; bytes that are not UTF-8 (from a host or a server) become U+FFFD rather than
// an exception.
VELMORA_EXPORT std::string dumpJson(const nlohmann::json& value);

// Whether the value nests no deeper than the limit; measured without recursion.
VELMORA_EXPORT bool isWithinJsonDepth(const nlohmann::json& value);

}  // namespace velmora::platform
