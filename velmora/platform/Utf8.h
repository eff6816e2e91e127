#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace velmora::platform {

// Whether the bytes are well-formed UTF-8: no overlong forms, surrogates or values past U+10FFFF.
bool isValidUtf8(std::string_view text);

// The text in Normalization Form C; absent when the bytes are not well-formed UTF-8.
std::optional<std::string> normalizedNfc(std::string_view text);

// Whether two texts are canonically equivalent, as a user would read them: a precomposed and a decomposed
// "é" are the same, a compatibility form ("ﬁ" and "fi") is not. Bytes that are not UTF-8 equal only
// themselves.
bool canonicallyEqual(std::string_view a, std::string_view b);

}  // namespace velmora::platform
