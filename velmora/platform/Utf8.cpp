#include "velmora/platform/Utf8.h"

#include <cstdint>
#include <cstdlib>
#include <memory>

#include <utf8proc.h>

namespace velmora::platform {

bool isValidUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto lead = static_cast<std::uint8_t>(text[i]);
        std::size_t length = 0;
        std::uint32_t codePoint = 0;
        if (lead < 0x80) {
            ++i;
            continue;
        } else if ((lead & 0xE0) == 0xC0) {
            length = 2;
            codePoint = lead & 0x1F;
        } else if ((lead & 0xF0) == 0xE0) {
            length = 3;
            codePoint = lead & 0x0F;
        } else if ((lead & 0xF8) == 0xF0) {
            length = 4;
            codePoint = lead & 0x07;
        } else {
            return false;
        }
        if (i + length > text.size()) {
            return false;
        }
        for (std::size_t k = 1; k < length; ++k) {
            const auto next = static_cast<std::uint8_t>(text[i + k]);
            if ((next & 0xC0) != 0x80) {
                return false;
            }
            codePoint = (codePoint << 6) | (next & 0x3F);
        }
        const std::uint32_t smallest[] = {0, 0, 0x80, 0x800, 0x10000};
        if (codePoint < smallest[length] || codePoint > 0x10FFFF ||
            (codePoint >= 0xD800 && codePoint <= 0xDFFF)) {
            return false;
        }
        i += length;
    }
    return true;
}

namespace {

struct FreeDeleter {
    void operator()(void* memory) const { std::free(memory); }
};

}  // namespace

std::optional<std::string> normalizedNfc(std::string_view text) {
    // utf8proc rejects ill-formed input itself; the explicit length keeps an embedded NUL part of the text.
    utf8proc_uint8_t* normalized = nullptr;
    const auto length = utf8proc_map(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                     static_cast<utf8proc_ssize_t>(text.size()), &normalized,
                                     static_cast<utf8proc_option_t>(UTF8PROC_STABLE | UTF8PROC_COMPOSE));
    const std::unique_ptr<utf8proc_uint8_t, FreeDeleter> owner(normalized);
    if (length < 0 || normalized == nullptr) {
        return std::nullopt;
    }
    return std::string(reinterpret_cast<const char*>(normalized), static_cast<std::size_t>(length));
}

bool canonicallyEqual(std::string_view a, std::string_view b) {
    if (a == b) {
        return true;
    }
    const auto normalizedA = normalizedNfc(a);
    if (!normalizedA) {
        return false;
    }
    const auto normalizedB = normalizedNfc(b);
    return normalizedB && *normalizedA == *normalizedB;
}

}  // namespace velmora::platform
