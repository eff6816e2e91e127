#include "velmora/platform/URLProtocol.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace velmora::platform {
namespace {

struct Registry {
    std::mutex mutex;
    std::vector<std::shared_ptr<const URLProtocol::Class>> classes;  // latest first
};

Registry& registry() {
    static auto* instance = new Registry();  // leaked: loads on library threads may consult it at exit
    return *instance;
}

}  // namespace

std::optional<nlohmann::json> URLProtocol::property(std::string_view key, const URLRequest& request) {
    const auto it = request.protocolProperties.find(key);
    return it == request.protocolProperties.end() ? std::nullopt : std::optional(it->second);
}

void URLProtocol::setProperty(nlohmann::json value, std::string_view key, URLRequest& request) {
    request.protocolProperties.insert_or_assign(std::string(key), std::move(value));
}

void URLProtocol::removeProperty(std::string_view key, URLRequest& request) {
    if (const auto it = request.protocolProperties.find(key); it != request.protocolProperties.end()) {
        request.protocolProperties.erase(it);
    }
}

bool URLProtocol::registerClass(std::shared_ptr<const Class> protocolClass) {
    if (!protocolClass) {
        return false;
    }
    auto& state = registry();
    std::lock_guard lock(state.mutex);
    const auto type = protocolClass->type();
    const bool known =
        std::erase_if(state.classes, [&](const auto& registered) { return registered->type() == type; }) > 0;
    state.classes.insert(state.classes.begin(), std::move(protocolClass));
    return !known;
}

void URLProtocol::unregisterClass(std::type_index type) {
    auto& state = registry();
    std::lock_guard lock(state.mutex);
    std::erase_if(state.classes, [&](const auto& registered) { return registered->type() == type; });
}

std::shared_ptr<const URLProtocol::Class> URLProtocol::classFor(const URLRequest& request) {
    std::vector<std::shared_ptr<const Class>> classes;
    {
        auto& state = registry();
        std::lock_guard lock(state.mutex);
        classes = state.classes;
    }
    // Asked outside the lock: a class may look at state of its own that takes locks of its own.
    for (const auto& candidate : classes) {
        if (candidate->canInit(request)) {
            return candidate;
        }
    }
    return nullptr;
}

}  // namespace velmora::platform
