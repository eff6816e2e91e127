#include "velmora/platform/Uuid.h"

#include <sys/random.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <random>

namespace velmora::platform {
namespace {

void fillFromRandomDevice(std::uint8_t* bytes, std::size_t count) {
    try {
        std::random_device device;
        for (std::size_t i = 0; i < count; ++i) {
            bytes[i] = static_cast<std::uint8_t>(device());
        }
    } catch (const std::exception&) {
        // No random source at all: the clock, a counter and an address still keep identifiers apart.
        static std::atomic<std::uint64_t> counter{0};
        std::seed_seq seed{
            static_cast<std::uint64_t>(std::chrono::system_clock::now().time_since_epoch().count()),
            counter.fetch_add(1), reinterpret_cast<std::uintptr_t>(&counter)};
        std::mt19937_64 generator(seed);
        for (std::size_t i = 0; i < count; ++i) {
            bytes[i] = static_cast<std::uint8_t>(generator());
        }
    }
}

}  // namespace

std::string uuidString() {
    std::array<std::uint8_t, 16> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const auto n = ::getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (n < 0) {
            if (errno == EINTR) {
                continue;
            }
            // A kernel without getrandom (or a sandbox denying it) is no reason to stop the host: the
            // standard library's device reads the random source its own way.
            fillFromRandomDevice(bytes.data() + filled, bytes.size() - filled);
            break;
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
