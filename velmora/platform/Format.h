#pragma once

#include <concepts>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <type_traits>

namespace velmora::platform {

// Substitutes the arguments, in order, for the "%@" placeholders of `format`. "%%" stands for one "%".
// An argument is inserted as it is, so a "%@" inside an argument stays literal; a placeholder without an
// argument prints "(null)", and arguments without a placeholder are ignored.
std::string formatArguments(std::string_view format, std::span<const std::string> arguments);

// The text form that "%@" gives each kind of argument.
inline std::string textOf(std::string_view text) {
    return std::string(text);
}
inline std::string textOf(const std::string& text) {
    return text;
}
inline std::string textOf(const char* text) {
    return text == nullptr ? "(null)" : std::string(text);
}
inline std::string textOf(bool value) {
    return value ? "true" : "false";
}
template <std::integral T>
requires(!std::same_as<T, bool> && !std::same_as<T, char>) std::string textOf(T value) {
    return std::to_string(value);
}
std::string textOf(double value);

// format("storing %@ with key %@", value, key): the library's way of composing log lines and messages.
template <class... Args>
std::string format(std::string_view fmt, const Args&... args) {
    const std::string texts[] = {std::string(), textOf(args)...};
    return formatArguments(fmt, std::span<const std::string>(texts + 1, sizeof...(Args)));
}

// The value of a run of decimal digits (no sign, no space); none for an empty text or any other character.
// A value above `ceiling` reads as `ceiling`, so callers can tell "too large" without overflowing.
std::optional<std::uint64_t> decimalDigits(std::string_view text, std::uint64_t ceiling);

}  // namespace velmora::platform
