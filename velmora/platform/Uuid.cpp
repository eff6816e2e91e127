#include "velmora/platform/Uuid.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstdint>

#include "velmora/platform/Fatal.h"

namespace velmora::platform {

std::string uuidString() {
    std::array<std::uint8_t, 16> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto n = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            // Without a random source identifiers could collide across users; that must not go unnoticed.
            fatalError("uuidString: the kernel's random source is unavailable");
        }
        filled += static_cast<std::size_t>(n);
    }
    bytes[6] = static_cast<std::uint8_t>((bytes[6] & 0x0F) | 0x40);  // version 4
    bytes[8] = static_cast<std::uint8_t>((bytes[8] & 0x3F) | 0x80);  // RFC 4122 variant

    static constexpr char digits[] = "0123456789ABCDEF";
    std::string text;
    text.reserve(36);
    for (std::size_t i = 0; i < bytes.size(); ++i) {
        if (i == 4 || i == 6 || i == 8 || i == 10) {
            text += '-';
        }
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

}  // namespace velmora::platform
