#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "velmora/platform/Data.h"

namespace velmora::platform {

// Standard base64 (RFC 4648 section 4) with padding and no line breaks.
std::string base64Encode(const void* bytes, std::size_t size);
inline std::string base64Encode(std::string_view text) {
    return base64Encode(text.data(), text.size());
}
inline std::string base64Encode(const Data& data) {
    return base64Encode(data.data(), data.size());
}

// Strict: padding is required and any character outside the alphabet (whitespace too) makes it fail.
std::optional<Data> base64Decode(std::string_view text);

}  // namespace velmora::platform
