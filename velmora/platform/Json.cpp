#include "velmora/platform/Json.h"

#include <utility>
#include <vector>

namespace velmora::platform {
namespace {

// The deepest nesting of arrays and objects in the text, counted outside strings; stops past the limit.
std::size_t textDepth(std::string_view text) {
    std::size_t depth = 0;
    std::size_t deepest = 0;
    bool inString = false;
    for (std::size_t i = 0; i < text.size() && deepest <= maximumJsonDepth; ++i) {
        const char c = text[i];
        if (inString) {
            if (c == '\\') {
                ++i;
            } else if (c == '"') {
                inString = false;
            }
        } else if (c == '"') {
            inString = true;
        } else if (c == '[' || c == '{') {
            deepest = std::max(deepest, ++depth);
        } else if ((c == ']' || c == '}') && depth > 0) {
            --depth;
        }
    }
    return deepest;
}

}  // namespace

std::string dumpJson(const nlohmann::json& value) {
    return value.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
}

nlohmann::json parseJson(std::string_view text) {
    if (textDepth(text) > maximumJsonDepth) {
        return nlohmann::json(nlohmann::json::value_t::discarded);
    }
    return nlohmann::json::parse(text, nullptr, false);
}

bool isWithinJsonDepth(const nlohmann::json& value) {
    std::vector<std::pair<const nlohmann::json*, std::size_t>> pending{{&value, 1}};
    while (!pending.empty()) {
        const auto [node, depth] = pending.back();
        pending.pop_back();
        if (!node->is_structured()) {
            continue;
        }
        if (depth > maximumJsonDepth) {
            return false;
        }
        for (const auto& child : *node) {
            pending.emplace_back(&child, depth + 1);
        }
    }
    return true;
}

}  // namespace velmora::platform
