#include "velmora/storage/CacheDirectoryManager.h"

#include "velmora/Errors.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/FileManager.h"
#include "velmora/support/CoreLogger.h"
#include "velmora/support/LibraryError.h"

namespace velmora {

Error toError(CacheManagerError error) {
    return libraryError(
        errors::cacheManagerDomain, error,
        "Cache director URL is nil. NSSearchPathForDirectoriesInDomains may have returned nil.");
}

CoreCacheDirectoryManager::CoreCacheDirectoryManager() {
    if (const auto caches = platform::Environment::current()->cachesDirectory) {
        cacheDirectoryURL_ = *caches / velmoraCachePathComponent;
    }
}

void CoreCacheDirectoryManager::remove(const std::optional<std::filesystem::path>& url) const {
    const auto failed = [&]() -> std::optional<Error> {
        if (!url) {
            return toError(CacheManagerError::nilCacheURL);
        }
        const auto listing = platform::FileManager::contentsOfDirectory(*url);
        if (listing.isError()) {
            return listing.error();
        }
        // A directory holding only hidden entries is left alone.
        if (listing.value().empty()) {
            return std::nullopt;
        }
        return platform::FileManager::removeItem(*url);
    }();
    if (failed) {
        CoreLogger::error("Attempt to clear cache errored: " + failed->localizedDescription());
    }
}

}  // namespace velmora
