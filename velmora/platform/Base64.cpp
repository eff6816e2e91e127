#include "velmora/platform/Base64.h"

#include <array>
#include <cstdint>

namespace velmora::platform {
namespace {

constexpr char alphabet[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";

constexpr std::array<std::int8_t, 256> decodeTable() {
    std::array<std::int8_t, 256> table{};
    table.fill(-1);
    for (int i = 0; i < 64; ++i) {
        table[static_cast<unsigned char>(alphabet[i])] = static_cast<std::int8_t>(i);
    }
    return table;
}

}  // namespace

std::string base64Encode(const void* bytes, std::size_t size) {
    const auto* in = static_cast<const std::uint8_t*>(bytes);
    std::string out((size + 2) / 3 * 4, '=');
    char* next = out.data();
    std::size_t i = 0;
    for (; i + 3 <= size; i += 3) {
        const std::uint32_t n = (std::uint32_t{in[i]} << 16) | (std::uint32_t{in[i + 1]} << 8) | in[i + 2];
        next[0] = alphabet[(n >> 18) & 63];
        next[1] = alphabet[(n >> 12) & 63];
        next[2] = alphabet[(n >> 6) & 63];
        next[3] = alphabet[n & 63];
        next += 4;
    }
    if (const std::size_t rest = size - i; rest > 0) {
        const std::uint32_t n =
            (std::uint32_t{in[i]} << 16) | (rest == 2 ? std::uint32_t{in[i + 1]} << 8 : 0);
        next[0] = alphabet[(n >> 18) & 63];
        next[1] = alphabet[(n >> 12) & 63];
        if (rest == 2) {
            next[2] = alphabet[(n >> 6) & 63];
        }
    }
    return out;
}

std::optional<Data> base64Decode(std::string_view text) {
    static constexpr auto table = decodeTable();
    if (text.size() % 4 != 0) {
        return std::nullopt;
    }
    std::string out;
    out.reserve(text.size() / 4 * 3);
    for (std::size_t i = 0; i < text.size(); i += 4) {
        const bool last = i + 4 == text.size();
        const std::size_t padding = last ? (text[i + 3] == '=') + (text[i + 2] == '=') : 0;
        if (padding == 1 && text[i + 2] == '=') {
            return std::nullopt;  // "xx=y" is not padding
        }
        std::uint32_t n = 0;
        for (std::size_t j = 0; j < 4; ++j) {
            const char c = text[i + j];
            if (j >= 4 - padding) {
                n <<= 6;
                continue;
            }
            const auto value = table[static_cast<unsigned char>(c)];
            if (value < 0) {
                return std::nullopt;
            }
            n = (n << 6) | static_cast<std::uint32_t>(value);
        }
        out += static_cast<char>((n >> 16) & 0xFF);
        if (padding < 2) {
            out += static_cast<char>((n >> 8) & 0xFF);
        }
        if (padding < 1) {
            out += static_cast<char>(n & 0xFF);
        }
    }
    return Data::fromString(out);
}

}  // namespace velmora::platform
