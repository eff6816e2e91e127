#include "velmora/platform/Format.h"

#include <array>
#include <charconv>

namespace velmora::platform {

std::string formatArguments(std::string_view format, std::span<const std::string> arguments) {
    std::string out;
    out.reserve(format.size() + 16 * arguments.size());
    std::size_t next = 0;
    for (std::size_t i = 0; i < format.size(); ++i) {
        const char c = format[i];
        if (c == '%' && i + 1 < format.size()) {
            if (format[i + 1] == '@') {
                out += next < arguments.size() ? arguments[next] : std::string("(null)");
                ++next;
                ++i;
                continue;
            }
            if (format[i + 1] == '%') {
                out += '%';
                ++i;
                continue;
            }
        }
        out += c;
    }
    return out;
}

std::string textOf(double value) {
    // Shortest text that reads back as the same double: 1.5 prints "1.5", 3 prints "3".
    std::array<char, 32> buffer{};
    const auto [end, ec] = std::to_chars(buffer.data(), buffer.data() + buffer.size(), value);
    return ec == std::errc() ? std::string(buffer.data(), end) : std::string("nan");
}

std::optional<std::uint64_t> decimalDigits(std::string_view text, std::uint64_t ceiling) {
    if (text.empty()) {
        return std::nullopt;
    }
    std::uint64_t value = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            return std::nullopt;
        }
        const auto digit = static_cast<std::uint64_t>(c - '0');
        value = ceiling < digit || value > (ceiling - digit) / 10 ? ceiling : value * 10 + digit;
    }
    return value;
}

}  // namespace velmora::platform
