#include "velmora/platform/URLCache.h"

#include <sqlite3.h>

#include <nlohmann/json.hpp>

#include "velmora/platform/FileManager.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {
namespace {

std::size_t sizeOf(const CachedURLResponse& response) {
    std::size_t size = response.data.size() + response.response->url().absoluteString().size();
    for (const auto& [name, value] : response.response->allHeaderFields()) {
        size += name.size() + value.size();
    }
    return size;
}

}  // namespace

URLCache::URLCache(std::size_t memoryCapacity, std::size_t diskCapacity,
                   std::optional<std::filesystem::path> directory)
    : memoryCapacity_(memoryCapacity), diskCapacity_(diskCapacity), directory_(std::move(directory)) {}

URLCache::~URLCache() {
    if (disk_ != nullptr) {
        sqlite3_close_v2(disk_);
    }
}

std::optional<std::string> URLCache::keyFor(const URLRequest& request) {
    if (request.httpMethod != "GET") {
        return std::nullopt;
    }
    return request.url.absoluteString();
}

void URLCache::rememberInMemory(const std::string& key, const CachedURLResponse& response, std::size_t size) {
    if (const auto it = index_.find(key); it != index_.end()) {
        memoryUsage_ -= it->second->size;
        recent_.erase(it->second);
        index_.erase(it);
    }
    if (size > memoryCapacity_ / 20) {
        return;
    }
    recent_.push_front({key, response, size});
    index_[key] = recent_.begin();
    memoryUsage_ += size;
    while (memoryUsage_ > memoryCapacity_ && !recent_.empty()) {
        memoryUsage_ -= recent_.back().size;
        index_.erase(recent_.back().key);
        recent_.pop_back();
    }
}

// Called with the lock held; opens the disk part on first use.
bool URLCache::openDisk() {
    if (disk_ != nullptr || diskTried_) {
        return disk_ != nullptr;
    }
    diskTried_ = true;
    if (!directory_ || diskCapacity_ == 0) {
        return false;
    }
    if (auto error = FileManager::createDirectory(*directory_, std::filesystem::perms::owner_all)) {
        systemLogLine(LogLevel::error, "URLCache: no disk cache: " + error->localizedDescription());
        return false;
    }
    const auto file = *directory_ / "Cache.db";
    const char* schema =
        "PRAGMA journal_mode = WAL;"
        "CREATE TABLE IF NOT EXISTS responses (key TEXT PRIMARY KEY, url TEXT NOT NULL, status INTEGER NOT "
        "NULL,"
        " headers TEXT NOT NULL, data BLOB NOT NULL, size INTEGER NOT NULL, used INTEGER NOT NULL)";
    FileManager::makePrivateFile(file);
    if (sqlite3_open_v2(file.c_str(), &disk_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
            SQLITE_OK ||
        sqlite3_exec(disk_, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
        // A damaged cache is only a cache: start it again rather than do without.
        systemLogLine(LogLevel::error, "URLCache: starting an empty disk cache: " +
                                           std::string(disk_ ? sqlite3_errmsg(disk_) : "cannot open"));
        sqlite3_close_v2(disk_);
        disk_ = nullptr;
        std::error_code ignored;
        for (const char* suffix : {"", "-wal", "-shm"}) {
            std::filesystem::remove(file.string() + suffix, ignored);
        }
        FileManager::makePrivateFile(file);
        if (sqlite3_open_v2(file.c_str(), &disk_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
                SQLITE_OK ||
            sqlite3_exec(disk_, schema, nullptr, nullptr, nullptr) != SQLITE_OK) {
            sqlite3_close_v2(disk_);
            disk_ = nullptr;
            return false;
        }
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(disk_, "SELECT coalesce(max(used), 0) FROM responses", -1, &statement, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        useCounter_ = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
    return true;
}

void URLCache::storeCachedResponse(const CachedURLResponse& response, const URLRequest& request) {
    const auto key = keyFor(request);
    if (!key || !response.response || response.storagePolicy == URLCacheStoragePolicy::notAllowed) {
        return;
    }
    const std::size_t size = sizeOf(response);
    std::lock_guard lock(mutex_);
    rememberInMemory(*key, response, size);
    if (response.storagePolicy != URLCacheStoragePolicy::allowed || size > diskCapacity_ / 20 ||
        !openDisk()) {
        return;
    }
    nlohmann::json headers = nlohmann::json::object();
    for (const auto& [name, value] : response.response->allHeaderFields()) {
        headers[name] = value;
    }
    const std::string headerText = headers.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace);
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(disk_,
                           "INSERT OR REPLACE INTO responses (key, url, status, headers, data, size, used)"
                           " VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7)",
                           -1, &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 2, response.response->url().absoluteString().c_str(), -1,
                          SQLITE_TRANSIENT);
        sqlite3_bind_int(statement, 3, response.response->statusCode());
        sqlite3_bind_text(statement, 4, headerText.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_blob(statement, 5, response.data.data(), static_cast<int>(response.data.size()),
                          SQLITE_TRANSIENT);
        sqlite3_bind_int64(statement, 6, static_cast<sqlite3_int64>(size));
        sqlite3_bind_int64(statement, 7, ++useCounter_);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
    const std::string evict =
        "DELETE FROM responses WHERE key IN (SELECT key FROM (SELECT key, sum(size) OVER (ORDER BY used "
        "DESC) AS "
        "running FROM responses) WHERE running > " +
        std::to_string(diskCapacity_) + ")";
    sqlite3_exec(disk_, evict.c_str(), nullptr, nullptr, nullptr);
}

std::optional<CachedURLResponse> URLCache::cachedResponse(const URLRequest& request) {
    const auto key = keyFor(request);
    if (!key) {
        return std::nullopt;
    }
    std::lock_guard lock(mutex_);
    if (const auto it = index_.find(*key); it != index_.end()) {
        recent_.splice(recent_.begin(), recent_, it->second);
        return it->second->response;
    }
    if (!openDisk()) {
        return std::nullopt;
    }
    sqlite3_stmt* statement = nullptr;
    std::optional<CachedURLResponse> found;
    if (sqlite3_prepare_v2(disk_, "SELECT url, status, headers, data, size FROM responses WHERE key = ?1", -1,
                           &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(statement) == SQLITE_ROW) {
            // A tampered cache may hold NULLs where text belongs: read as empty, they fail the checks below.
            const auto text = [&](int column) {
                const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
                return std::string_view(value != nullptr ? value : "");
            };
            const auto url = URL::fromString(text(0));
            const auto headers = parseJson(text(2));
            if (url && headers.is_object()) {
                HTTPHeaderFields fields;
                for (const auto& [name, value] : headers.items()) {
                    if (value.is_string()) {
                        fields.emplace(name, value.get<std::string>());
                    }
                }
                found = CachedURLResponse{std::make_shared<HTTPURLResponse>(
                                              *url, sqlite3_column_int(statement, 1), std::move(fields)),
                                          Data(sqlite3_column_blob(statement, 3),
                                               static_cast<std::size_t>(sqlite3_column_bytes(statement, 3))),
                                          URLCacheStoragePolicy::allowed};
            }
        }
    }
    sqlite3_finalize(statement);
    if (found) {
        const std::string touch =
            "UPDATE responses SET used = " + std::to_string(++useCounter_) + " WHERE key = ?1";
        if (sqlite3_prepare_v2(disk_, touch.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
            sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_step(statement);
        }
        sqlite3_finalize(statement);
        rememberInMemory(*key, *found, sizeOf(*found));
    }
    return found;
}

void URLCache::removeAllCachedResponses() {
    std::lock_guard lock(mutex_);
    recent_.clear();
    index_.clear();
    memoryUsage_ = 0;
    if (openDisk()) {
        sqlite3_exec(disk_, "DELETE FROM responses", nullptr, nullptr, nullptr);
    }
}

std::size_t URLCache::currentMemoryUsage() const {
    std::lock_guard lock(mutex_);
    return memoryUsage_;
}

std::size_t URLCache::currentDiskUsage() const {
    std::lock_guard lock(mutex_);
    if (disk_ == nullptr) {
        return 0;
    }
    sqlite3_stmt* statement = nullptr;
    std::size_t total = 0;
    if (sqlite3_prepare_v2(disk_, "SELECT coalesce(sum(size), 0) FROM responses", -1, &statement, nullptr) ==
            SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        total = static_cast<std::size_t>(sqlite3_column_int64(statement, 0));
    }
    sqlite3_finalize(statement);
    return total;
}

}  // namespace velmora::platform
