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

void Stores::clearSession() const {
    identityStore_.clear();
    sessionStore_.clear();
    removeCacheDirectory();
}

void Stores::clearSettingsAndSession() const {
    sessionStore_.clear();
    settingStore_.clear();
}

void Stores::clearAll() const {
    sessionStore_.clear();
    identityStore_.clear();
    settingStore_.clear();
    removeCacheDirectory();
}

}  // namespace velmora
