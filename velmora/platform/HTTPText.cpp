#include "velmora/platform/HTTPText.h"

#include <cctype>

#include <algorithm>

#include <nlohmann/json.hpp>

#include "velmora/platform/Json.h"
#include "velmora/platform/URLSession.h"

namespace velmora::platform {

std::string_view trimmedField(std::string_view text) {
    while (!text.empty() && (text.front() == ' ' || text.front() == '\t'))
        text.remove_prefix(1);
    while (!text.empty() && (text.back() == ' ' || text.back() == '\t'))
        text.remove_suffix(1);
    return text;
}

std::string lowercased(std::string_view text) {
    std::string result(text);
    for (auto& c : result) {
        c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
    }
    return result;
}

bool isHeaderName(std::string_view name) {
    static constexpr std::string_view punctuation = "!#$%&'*+-.^_`|~";
    return !name.empty() && std::all_of(name.begin(), name.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return (byte >= '0' && byte <= '9') || (byte >= 'a' && byte <= 'z') || (byte >= 'A' && byte <= 'Z') ||
               punctuation.find(c) != std::string_view::npos;
    });
}

bool isHeaderValue(std::string_view value) {
    return value.find_first_of(std::string_view("\r\n\0", 3)) == std::string_view::npos;
}

bool isPathSegment(std::string_view text) {
    if (text.empty() || text == "." || text == "..") {
        return false;
    }
    return std::all_of(text.begin(), text.end(), [](char c) {
        const auto byte = static_cast<unsigned char>(c);
        return byte > 0x20 && byte < 0x7F && c != '/' && c != '\\' && c != '?' && c != '#' && c != '%';
    });
}

Error pathSegmentError(std::string_view what, std::string_view value) {
    return URLError::make(errors::url::badURL, {},
                          std::string(what) + " " + quotedForMessage(value) +
                              " cannot be one segment of a URL path; nothing was sent");
}

std::string quotedForMessage(std::string_view text, std::size_t limit) {
    const bool cut = text.size() > limit;
    auto quoted = dumpJson(std::string(text.substr(0, limit)));
    if (cut) {
        quoted.insert(quoted.size() - 1, "...");
    }
    return quoted;
}

}  // namespace velmora::platform
