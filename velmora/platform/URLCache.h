#pragma once

#include <cstddef>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "velmora/platform/URLRequest.h"

struct sqlite3;

namespace velmora::platform {

// Responses kept for GET requests: a memory part and an SQLite disk part, each evicting the least recently
// used entries beyond its capacity. An entry larger than a twentieth of a part's capacity is not kept
// there. Safe from any thread.
class URLCache {
  public:
    // `directory` empty: memory only. The disk part lives in `directory`/Cache.db.
    URLCache(std::size_t memoryCapacity, std::size_t diskCapacity,
             std::optional<std::filesystem::path> directory);
    ~URLCache();
    URLCache(const URLCache&) = delete;
    URLCache& operator=(const URLCache&) = delete;

    void storeCachedResponse(const CachedURLResponse& response, const URLRequest& request);
    std::optional<CachedURLResponse> cachedResponse(const URLRequest& request);
    void removeAllCachedResponses();

    std::size_t memoryCapacity() const { return memoryCapacity_; }
    std::size_t diskCapacity() const { return diskCapacity_; }
    std::size_t currentMemoryUsage() const;
    std::size_t currentDiskUsage() const;

  private:
    struct Entry {
        std::string key;
        CachedURLResponse response;
        std::size_t size;
    };

    static std::optional<std::string> keyFor(const URLRequest& request);
    void rememberInMemory(const std::string& key, const CachedURLResponse& response, std::size_t size);
    bool openDisk();

    const std::size_t memoryCapacity_;
    const std::size_t diskCapacity_;
    const std::optional<std::filesystem::path> directory_;

    mutable std::mutex mutex_;
    std::list<Entry> recent_;  // most recently used first
    std::unordered_map<std::string, std::list<Entry>::iterator> index_;
    std::size_t memoryUsage_ = 0;
    sqlite3* disk_ = nullptr;
    bool diskTried_ = false;
    std::int64_t useCounter_ = 0;
};

}  // namespace velmora::platform
