#include "velmora/storage/Stores.h"

namespace velmora {

Stores::Stores(const std::string& appId)
    : identityStore_(appId), settingStore_(appId), sessionStore_(appId) {}

const CacheDirectoryManager& Stores::cache() const {
    std::call_once(cacheOnce_, [this] { cache_ = std::make_unique<CoreCacheDirectoryManager>(); });
    return *cache_;
}

std::optional<std::filesystem::path> Stores::cacheDirectory() const {
    return cache().cacheDirectoryURL();
}

void Stores::removeCacheDirectory() const {
    const auto& manager = cache();
    manager.remove(manager.cacheDirectoryURL());
}

bool Stores::transaction(const std::function<void()>& body) const {
    return identityStore_.defaults()->transaction(body);
}

void Stores::clearSession() const {
    if (transaction([&] {
            identityStore_.clear();
            sessionStore_.clear();
        })) {
        removeCacheDirectory();
    }
}

void Stores::clearSettingsAndSession() const {
    (void)transaction([&] {
        sessionStore_.clear();
        settingStore_.clear();
    });
}

void Stores::clearAll() const {
    if (transaction([&] {
            sessionStore_.clear();
            identityStore_.clear();
            settingStore_.clear();
        })) {
        removeCacheDirectory();
    }
}

}  // namespace velmora
