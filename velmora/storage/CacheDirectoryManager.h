#pragma once

#include <filesystem>
#include <optional>
#include <string>

#include "velmora/platform/Error.h"

namespace velmora {

enum class CacheManagerError { nilCacheURL };

Error toError(CacheManagerError error);

class CacheDirectoryManager {
  public:
    virtual ~CacheDirectoryManager() = default;
    virtual const std::optional<std::filesystem::path>& cacheDirectoryURL() const = 0;
    // Removes the directory and everything in it; failures are logged, never reported.
    virtual void remove(const std::optional<std::filesystem::path>& url) const = 0;
};

// The library's own directory inside the user's caches directory: "<caches>/velmora". Nothing is created
// on disk until something is cached there.
class CoreCacheDirectoryManager : public CacheDirectoryManager {
  public:
    static constexpr std::string_view velmoraCachePathComponent = "velmora";

    // Computed once from the environment's caches directory; empty when the host has none.
    CoreCacheDirectoryManager();

    const std::optional<std::filesystem::path>& cacheDirectoryURL() const override {
        return cacheDirectoryURL_;
    }
    void remove(const std::optional<std::filesystem::path>& url) const override;

  private:
    std::optional<std::filesystem::path> cacheDirectoryURL_;
};

}  // namespace velmora
