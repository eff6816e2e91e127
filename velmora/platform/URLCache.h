#pragma once

#include <algorithm>
#include <chrono>
#include <cstddef>
#include <cstdint>
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

// Answers to GET requests, kept for later requests of the same URL: a memory part and an SQLite disk part,
// each evicting the least recently used entries beyond its capacity. An entry larger than a twentieth of a
// part's capacity is not kept there. Which answers are worth keeping and when a kept one may stand in for the
// server follow the ordinary HTTP caching rules of a private cache (below). Safe from any thread.
class URLCache {
  public:
    // A kept answer for a request whose varying headers match, and whether it may be used as it is.
    struct Match {
        CachedURLResponse response;
        // Within its freshness lifetime and neither the answer nor the request asks for revalidation.
        bool fresh = false;
    };

    // `directory` empty: memory only. The disk part lives in `directory`/Cache.db.
    URLCache(std::size_t memoryCapacity, std::size_t diskCapacity,
             std::optional<std::filesystem::path> directory);
    ~URLCache();
    URLCache(const URLCache&) = delete;
    URLCache& operator=(const URLCache&) = delete;

    // Keeps `response` for `request` (as sent, with every header, so that "Vary" can be honoured), dated
    // now; it replaces whatever was kept for the URL. Only GET requests; nothing with the storage policy
    // notAllowed; allowedInMemoryOnly stays out of the disk part.
    void storeCachedResponse(const CachedURLResponse& response, const URLRequest& request);
    // The kept answer for the request, fresh or not.
    std::optional<CachedURLResponse> cachedResponse(const URLRequest& request);
    std::optional<Match> match(const URLRequest& request);
    void removeCachedResponse(const URLRequest& request);
    void removeAllCachedResponses();

    std::size_t memoryCapacity() const { return memoryCapacity_; }
    std::size_t diskCapacity() const { return diskCapacity_; }
    // The largest body either part could keep.
    std::size_t maximumEntrySize() const { return std::max(memoryCapacity_, diskCapacity_) / 20; }
    std::size_t currentMemoryUsage() const;
    std::size_t currentDiskUsage() const;

    // Whether an answer may be kept at all: a GET, a status cacheable by default, no "no-store" on either
    // side, and not "Vary: *".
    static bool mayStore(const URLRequest& request, const HTTPURLResponse& response);
    // The kept answer brought up to date by a 304 to its revalidation: the 304's header fields replace the
    // kept ones of the same name (apart from those describing the body), the status and body stay.
    static CachedURLResponse updated(const CachedURLResponse& kept, const HTTPURLResponse& notModified);

  private:
    struct Entry {
        std::string key;
        CachedURLResponse response;
        std::size_t size;
        std::int64_t storedAt;   // seconds since the epoch
        nlohmann::json varying;  // the request's values of the headers "Vary" names (null: absent)
    };

    static std::optional<std::string> keyFor(const URLRequest& request);
    std::optional<Entry> lookup(const URLRequest& request);
    void rememberInMemory(Entry entry);
    void forgetInMemory(const std::string& key);
    // Called with the lock held, and with the lines it logs held until the lock is released.
    bool openDisk(bool create);

    const std::size_t memoryCapacity_;
    const std::size_t diskCapacity_;
    const std::optional<std::filesystem::path> directory_;

    mutable std::mutex mutex_;
    std::list<Entry> recent_;  // most recently used first
    std::unordered_map<std::string, std::list<Entry>::iterator> index_;
    std::size_t memoryUsage_ = 0;
    sqlite3* disk_ = nullptr;
    bool diskTried_ = false;
    // When a lookup last found no disk file: another process may create one, but every request looking
    // for it again would cost a file-system call on the session's thread.
    std::optional<std::chrono::steady_clock::time_point> diskAbsentAt_;
    std::int64_t useCounter_ = 0;
};

}  // namespace velmora::platform
