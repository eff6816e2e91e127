#include "velmora/platform/URLCache.h"

#include <curl/curl.h>
#include <sqlite3.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>
#include <map>
#include <set>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmora/platform/FileManager.h"
#include "velmora/platform/Format.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/Json.h"
#include "velmora/platform/SystemLog.h"

namespace velmora::platform {
namespace {

// A heuristic lifetime (a tenth of the time since the last modification) never exceeds a day.
constexpr std::int64_t heuristicCeiling = 24 * 60 * 60;

std::int64_t secondsNow() {
    return std::chrono::duration_cast<std::chrono::seconds>(
               std::chrono::system_clock::now().time_since_epoch())
        .count();
}

// The comma-separated members of a header, trimmed; commas inside quoted strings do not separate.
std::vector<std::string_view> members(std::string_view text) {
    std::vector<std::string_view> result;
    bool quoted = false;
    std::size_t start = 0;
    for (std::size_t i = 0; i <= text.size(); ++i) {
        if (i < text.size() && text[i] == '"') {
            quoted = !quoted;
        } else if (i == text.size() || (text[i] == ',' && !quoted)) {
            if (const auto member = trimmedField(text.substr(start, i - start)); !member.empty()) {
                result.push_back(member);
            }
            start = i + 1;
        }
    }
    return result;
}

// Cache-Control directives by lower-case name; one without an argument maps to an empty text.
std::map<std::string, std::string> directives(const std::optional<std::string>& header) {
    std::map<std::string, std::string> result;
    const std::string text = header.value_or("");
    for (const auto member : members(text)) {
        const auto equals = member.find('=');
        auto argument =
            equals == std::string_view::npos ? std::string_view() : trimmedField(member.substr(equals + 1));
        if (argument.size() >= 2 && argument.front() == '"' && argument.back() == '"') {
            argument = argument.substr(1, argument.size() - 2);
        }
        result.emplace(lowercased(trimmedField(member.substr(0, equals))), std::string(argument));
    }
    return result;
}

// A number of seconds as HTTP writes it (digits only); very large values stand for "a long time".
std::optional<std::int64_t> deltaSeconds(std::string_view text) {
    const auto value = decimalDigits(text, std::numeric_limits<std::int32_t>::max());
    return value ? std::optional<std::int64_t>(static_cast<std::int64_t>(*value)) : std::nullopt;
}

std::optional<std::int64_t> httpDate(const std::optional<std::string>& text) {
    if (!text) {
        return std::nullopt;
    }
    const auto time = curl_getdate(text->c_str(), nullptr);
    return time == -1 ? std::nullopt : std::optional<std::int64_t>(time);
}

bool isCacheableByDefault(int status) {
    switch (status) {
        case 200:
        case 203:
        case 204:
        case 300:
        case 301:
        case 308:
        case 404:
        case 405:
        case 410:
        case 414:
        case 501:
            return true;
        default:
            return false;
    }
}

std::vector<std::string> varyNames(const HTTPURLResponse& response) {
    std::vector<std::string> names;
    const std::string text = response.value("Vary").value_or("");
    for (const auto member : members(text)) {
        names.push_back(lowercased(member));
    }
    return names;
}

bool describesTheBody(const std::string& name) {
    static const auto& names = *new std::set<std::string, CaseInsensitiveLess>{
        "Content-Length",    "Content-Encoding", "Content-Range",
        "Transfer-Encoding", "Connection",       "Keep-Alive"};
    return names.count(name) > 0;
}

std::size_t sizeOf(const CachedURLResponse& response) {
    std::size_t size = response.data.size() + response.response->url().absoluteString().size();
    for (const auto& [name, value] : response.response->allHeaderFields()) {
        size += name.size() + value.size();
    }
    return size;
}

// Whether a kept answer may stand in for the server now, by its age against its freshness lifetime.
bool isFresh(const HTTPURLResponse& response, std::int64_t storedAt, const URLRequest& request) {
    const auto answer = directives(response.value("Cache-Control"));
    const auto asked = directives(request.value("Cache-Control"));
    const bool pragmaNoCache =
        !request.value("Cache-Control") &&
        lowercased(request.value("Pragma").value_or("")).find("no-cache") != std::string::npos;
    if (answer.count("no-cache") > 0 || asked.count("no-cache") > 0 || pragmaNoCache) {
        return false;
    }
    const auto date = httpDate(response.value("Date")).value_or(storedAt);
    std::int64_t lifetime = 0;
    if (const auto maxAge = answer.find("max-age"); maxAge != answer.end()) {
        lifetime = deltaSeconds(maxAge->second).value_or(0);
    } else if (const auto expires = response.value("Expires")) {
        // An Expires that does not parse ("0", "-1") means already expired.
        lifetime = httpDate(expires).value_or(date) - date;
    } else if (const auto modified = httpDate(response.value("Last-Modified"))) {
        lifetime = std::min((date - *modified) / 10, heuristicCeiling);
    }
    const auto initialAge =
        std::max(std::max<std::int64_t>(0, storedAt - date),
                 deltaSeconds(trimmedField(response.value("Age").value_or(""))).value_or(0));
    const auto age = initialAge + std::max<std::int64_t>(0, secondsNow() - storedAt);
    if (const auto limit = asked.find("max-age"); limit != asked.end()) {
        if (age >= deltaSeconds(limit->second).value_or(0)) {
            return false;
        }
    }
    return lifetime > age;
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

bool URLCache::mayStore(const URLRequest& request, const HTTPURLResponse& response) {
    if (request.httpMethod != "GET" || !isCacheableByDefault(response.statusCode()) ||
        directives(request.value("Cache-Control")).count("no-store") > 0 ||
        directives(response.value("Cache-Control")).count("no-store") > 0) {
        return false;
    }
    const auto names = varyNames(response);
    return std::find(names.begin(), names.end(), "*") == names.end();
}

CachedURLResponse URLCache::updated(const CachedURLResponse& kept, const HTTPURLResponse& notModified) {
    HTTPHeaderFields headers = kept.response->allHeaderFields();
    for (const auto& [name, value] : notModified.allHeaderFields()) {
        if (!describesTheBody(name)) {
            headers.insert_or_assign(name, value);
        }
    }
    return CachedURLResponse{std::make_shared<const HTTPURLResponse>(
                                 kept.response->url(), kept.response->statusCode(), std::move(headers)),
                             kept.data, kept.storagePolicy, kept.userInfo};
}

std::optional<std::string> URLCache::keyFor(const URLRequest& request) {
    if (request.httpMethod != "GET") {
        return std::nullopt;
    }
    return request.url.absoluteString();
}

void URLCache::forgetInMemory(const std::string& key) {
    if (const auto it = index_.find(key); it != index_.end()) {
        memoryUsage_ -= it->second->size;
        recent_.erase(it->second);
        index_.erase(it);
    }
}

void URLCache::rememberInMemory(Entry entry) {
    forgetInMemory(entry.key);
    if (entry.size > memoryCapacity_ / 20) {
        return;
    }
    memoryUsage_ += entry.size;
    recent_.push_front(std::move(entry));
    index_[recent_.front().key] = recent_.begin();
    while (memoryUsage_ > memoryCapacity_ && !recent_.empty()) {
        memoryUsage_ -= recent_.back().size;
        index_.erase(recent_.back().key);
        recent_.pop_back();
    }
}

// Called with the lock held; opens the disk part on first use. Only a store creates it: looking up and
// removing leave no file behind where nothing was ever kept.
bool URLCache::openDisk(bool create) {
    if (disk_ != nullptr || diskTried_) {
        return disk_ != nullptr;
    }
    if (!directory_ || diskCapacity_ == 0) {
        return false;
    }
    if (!create) {
        const auto now = std::chrono::steady_clock::now();
        if (diskAbsentAt_ && now - *diskAbsentAt_ < std::chrono::seconds(1)) {
            return false;
        }
        std::error_code absent;
        if (!std::filesystem::exists(*directory_ / "Cache.db", absent)) {
            diskAbsentAt_ = now;
            return false;
        }
    }
    diskTried_ = true;
    if (auto error = FileManager::createDirectory(*directory_, std::filesystem::perms::owner_all)) {
        systemLogLine(LogLevel::error, "URLCache: no disk cache: " + error->localizedDescription());
        return false;
    }
    const auto file = *directory_ / "Cache.db";
    // "responses" held records without their date or varying headers, which answers cannot be judged by.
    const char* schema =
        "PRAGMA journal_mode = WAL;"
        "DROP TABLE IF EXISTS responses;"
        "CREATE TABLE IF NOT EXISTS cached_responses (key TEXT PRIMARY KEY, url TEXT NOT NULL,"
        " status INTEGER NOT NULL, headers TEXT NOT NULL, data BLOB NOT NULL, size INTEGER NOT NULL,"
        " used INTEGER NOT NULL, stored_at INTEGER NOT NULL, varying TEXT NOT NULL, user_info TEXT NOT NULL)";
    FileManager::makePrivateFile(file);
    const auto open = [&] {
        if (sqlite3_open_v2(file.c_str(), &disk_, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE, nullptr) !=
            SQLITE_OK) {
            return sqlite3_errcode(disk_);
        }
        sqlite3_busy_timeout(disk_, 1000);  // another process of the host setting the same cache up
        return sqlite3_exec(disk_, schema, nullptr, nullptr, nullptr) == SQLITE_OK ? SQLITE_OK
                                                                                   : sqlite3_errcode(disk_);
    };
    if (const int code = open(); code != SQLITE_OK) {
        if (code != SQLITE_CORRUPT && code != SQLITE_NOTADB) {
            // Busy, or a file that cannot be written: do without the disk, never delete what another
            // process is using.
            systemLogLine(LogLevel::error, "URLCache: no disk cache: " + std::string(sqlite3_errstr(code)));
            sqlite3_close_v2(disk_);
            disk_ = nullptr;
            return false;
        }
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
        if (open() != SQLITE_OK) {
            sqlite3_close_v2(disk_);
            disk_ = nullptr;
            return false;
        }
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(disk_, "SELECT coalesce(max(used), 0) FROM cached_responses", -1, &statement,
                           nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        useCounter_ = sqlite3_column_int64(statement, 0);
    }
    sqlite3_finalize(statement);
    return true;
}

namespace {

// The values a request carries for a name the answer varies with. Credentials count as always varied with,
// so one user's answers never stand for another's; they are kept as digests, never as the token itself.
std::optional<std::string> variedValue(const URLRequest& request, std::string_view name) {
    auto value = request.value(name);
    if (value && (lowercased(name) == "authorization" || lowercased(name) == "client-identifier")) {
        char digest[17];
        std::snprintf(digest, sizeof digest, "%016zx", std::hash<std::string>{}(*value));
        return "digest:" + std::string(digest);
    }
    return value;
}

constexpr std::string_view credentialNames[] = {"authorization", "client-identifier"};

}  // namespace

void URLCache::storeCachedResponse(const CachedURLResponse& response, const URLRequest& request) {
    const auto key = keyFor(request);
    if (!key || !response.response || response.storagePolicy == URLCacheStoragePolicy::notAllowed) {
        return;
    }
    nlohmann::json varying = nlohmann::json::object();
    auto names = varyNames(*response.response);
    names.insert(names.end(), std::begin(credentialNames), std::end(credentialNames));
    for (const auto& name : names) {
        const auto value = variedValue(request, name);
        varying[lowercased(name)] = value ? nlohmann::json(*value) : nlohmann::json(nullptr);
    }
    Entry entry{*key, response, sizeOf(response), secondsNow(), std::move(varying)};
    const LogsAfterUnlock logs;  // a host log sink may use the cache
    std::lock_guard lock(mutex_);
    rememberInMemory(entry);
    if (!openDisk(true)) {
        return;
    }
    sqlite3_stmt* statement = nullptr;
    if (response.storagePolicy != URLCacheStoragePolicy::allowed || entry.size > diskCapacity_ / 20) {
        // Whatever the disk held for the URL is older than this answer.
        if (sqlite3_prepare_v2(disk_, "DELETE FROM cached_responses WHERE key = ?1", -1, &statement,
                               nullptr) == SQLITE_OK) {
            sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_step(statement);
        }
        sqlite3_finalize(statement);
        return;
    }
    nlohmann::json headers = nlohmann::json::object();
    for (const auto& [name, value] : response.response->allHeaderFields()) {
        headers[name] = value;
    }
    const std::string texts[] = {dumpJson(headers), dumpJson(entry.varying), dumpJson(response.userInfo)};
    if (sqlite3_prepare_v2(
            disk_,
            "INSERT OR REPLACE INTO cached_responses (key, url, status, headers, data, size,"
            " used, stored_at, varying, user_info) VALUES (?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8, ?9, ?10)",
            -1, &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 2, response.response->url().absoluteString().c_str(), -1,
                          SQLITE_TRANSIENT);
        sqlite3_bind_int(statement, 3, response.response->statusCode());
        sqlite3_bind_text(statement, 4, texts[0].c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_blob(statement, 5, response.data.data(), static_cast<int>(response.data.size()),
                          SQLITE_TRANSIENT);
        sqlite3_bind_int64(statement, 6, static_cast<sqlite3_int64>(entry.size));
        sqlite3_bind_int64(statement, 7, ++useCounter_);
        sqlite3_bind_int64(statement, 8, entry.storedAt);
        sqlite3_bind_text(statement, 9, texts[1].c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_bind_text(statement, 10, texts[2].c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
    const std::string evict =
        "DELETE FROM cached_responses WHERE key IN (SELECT key FROM (SELECT key, sum(size) OVER (ORDER BY "
        "used"
        " DESC) AS running FROM cached_responses) WHERE running > " +
        std::to_string(diskCapacity_) + ")";
    sqlite3_exec(disk_, evict.c_str(), nullptr, nullptr, nullptr);
}

std::optional<URLCache::Entry> URLCache::lookup(const URLRequest& request) {
    const auto key = keyFor(request);
    if (!key) {
        return std::nullopt;
    }
    const LogsAfterUnlock logs;  // a host log sink may use the cache
    std::lock_guard lock(mutex_);
    if (const auto it = index_.find(*key); it != index_.end()) {
        recent_.splice(recent_.begin(), recent_, it->second);
        return *it->second;
    }
    if (!openDisk(false)) {
        return std::nullopt;
    }
    sqlite3_stmt* statement = nullptr;
    std::optional<Entry> found;
    if (sqlite3_prepare_v2(
            disk_,
            "SELECT url, status, headers, data, stored_at, varying, user_info FROM cached_responses"
            " WHERE key = ?1",
            -1, &statement, nullptr) == SQLITE_OK) {
        sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
        if (sqlite3_step(statement) == SQLITE_ROW) {
            // A tampered cache may hold NULLs where text belongs: read as empty, they fail the checks below.
            const auto text = [&](int column) {
                const auto* value = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
                return std::string_view(value != nullptr ? value : "");
            };
            const auto url = URL::fromString(text(0));
            const auto headers = parseJson(text(2));
            auto varying = parseJson(text(5));
            auto userInfo = parseJson(text(6));
            if (url && headers.is_object() && varying.is_object() && !userInfo.is_discarded()) {
                HTTPHeaderFields fields;
                for (const auto& [name, value] : headers.items()) {
                    if (value.is_string()) {
                        fields.emplace(name, value.get<std::string>());
                    }
                }
                CachedURLResponse response{std::make_shared<const HTTPURLResponse>(
                                               *url, sqlite3_column_int(statement, 1), std::move(fields)),
                                           Data(sqlite3_column_blob(statement, 3),
                                                static_cast<std::size_t>(sqlite3_column_bytes(statement, 3))),
                                           URLCacheStoragePolicy::allowed, std::move(userInfo)};
                const auto size = sizeOf(response);
                found =
                    Entry{*key, std::move(response), size,
                          static_cast<std::int64_t>(sqlite3_column_int64(statement, 4)), std::move(varying)};
            }
        }
    }
    sqlite3_finalize(statement);
    if (found) {
        const std::string touch =
            "UPDATE cached_responses SET used = " + std::to_string(++useCounter_) + " WHERE key = ?1";
        if (sqlite3_prepare_v2(disk_, touch.c_str(), -1, &statement, nullptr) == SQLITE_OK) {
            sqlite3_bind_text(statement, 1, key->c_str(), -1, SQLITE_TRANSIENT);
            sqlite3_step(statement);
        }
        sqlite3_finalize(statement);
        rememberInMemory(*found);
    }
    return found;
}

std::optional<URLCache::Match> URLCache::match(const URLRequest& request) {
    auto entry = lookup(request);
    if (!entry) {
        return std::nullopt;
    }
    // An answer that varied with some request headers stands only for requests with the same values.
    for (const auto& [name, value] : entry->varying.items()) {
        const auto sent = variedValue(request, name);
        if (value.is_string() ? sent != value.get<std::string>() : sent.has_value()) {
            return std::nullopt;
        }
    }
    const bool fresh = isFresh(*entry->response.response, entry->storedAt, request);
    return Match{std::move(entry->response), fresh};
}

std::optional<CachedURLResponse> URLCache::cachedResponse(const URLRequest& request) {
    auto found = match(request);
    return found ? std::optional(std::move(found->response)) : std::nullopt;
}

void URLCache::removeCachedResponse(const URLRequest& request) {
    const auto key = request.url.absoluteString();
    const LogsAfterUnlock logs;  // a host log sink may use the cache
    std::lock_guard lock(mutex_);
    forgetInMemory(key);
    if (!openDisk(false)) {
        return;
    }
    sqlite3_stmt* statement = nullptr;
    if (sqlite3_prepare_v2(disk_, "DELETE FROM cached_responses WHERE key = ?1", -1, &statement, nullptr) ==
        SQLITE_OK) {
        sqlite3_bind_text(statement, 1, key.c_str(), -1, SQLITE_TRANSIENT);
        sqlite3_step(statement);
    }
    sqlite3_finalize(statement);
}

void URLCache::removeAllCachedResponses() {
    const LogsAfterUnlock logs;  // a host log sink may use the cache
    std::lock_guard lock(mutex_);
    recent_.clear();
    index_.clear();
    memoryUsage_ = 0;
    if (openDisk(false)) {
        sqlite3_exec(disk_, "DELETE FROM cached_responses", nullptr, nullptr, nullptr);
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
    if (sqlite3_prepare_v2(disk_, "SELECT coalesce(sum(size), 0) FROM cached_responses", -1, &statement,
                           nullptr) == SQLITE_OK &&
        sqlite3_step(statement) == SQLITE_ROW) {
        total = static_cast<std::size_t>(sqlite3_column_int64(statement, 0));
    }
    sqlite3_finalize(statement);
    return total;
}

}  // namespace velmora::platform
