#pragma once

#include <string_view>

namespace velmora::platform {

// Whether the bytes are well-formed UTF-8: no overlong forms, surrogates or values past U+10FFFF.
bool isValidUtf8(std::string_view text);

}  // namespace velmora::platform
