#include "velmora/platform/URLCache.h"

#include <gtest/gtest.h>

#include <atomic>
#include <ctime>
#include <fstream>
#include <tuple>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"

namespace velmora::testing {
namespace {

using namespace platform;
using namespace std::chrono_literals;

// An HTTP date `offset` from now, as servers write it.
std::string httpDate(std::chrono::seconds offset) {
    const std::time_t time = std::time(nullptr) + offset.count();
    std::tm utc{};
    char text[64];
    std::strftime(text, sizeof text, "%a, %d %b %Y %H:%M:%S GMT", gmtime_r(&time, &utc));
    return text;
}

class URLCacheTest : public LibraryTest {
  protected:
    static URL url(const std::string& path) { return *URL::fromString("https://a.example" + path); }
    // A request for `path`, with the header `fields`, by `method`.
    static URLRequest get(const std::string& path, HTTPHeaderFields fields = {}, std::string method = "GET") {
        URLRequest request(url(path));
        request.allHTTPHeaderFields = std::move(fields);
        request.httpMethod = std::move(method);
        return request;
    }
    static CachedURLResponse answer(const std::string& path, std::size_t bytes, HTTPHeaderFields headers = {},
                                    URLCacheStoragePolicy policy = URLCacheStoragePolicy::allowed,
                                    int status = 200) {
        headers.emplace("Content-Type", "application/json");
        return {std::make_shared<HTTPURLResponse>(url(path), status, std::move(headers)),
                Data::fromString(std::string(bytes, 'x')), policy, nullptr};
    }
    static void store(URLCache& cache, const std::string& path, std::size_t bytes,
                      URLCacheStoragePolicy policy = URLCacheStoragePolicy::allowed) {
        cache.storeCachedResponse(answer(path, bytes, {}, policy), get(path));
    }
    static bool has(URLCache& c, const std::string& path) { return c.cachedResponse(get(path)).has_value(); }
    std::filesystem::path directory() const { return *environment.cachesDirectory / "com.velmora.core"; }
};

TEST_F(URLCacheTest, TheMemoryPartKeepsTheMostRecentlyUsedWithinItsCapacity) {
    URLCache cache(100'000, 0, std::nullopt);
    store(cache, "/a", 4000);
    store(cache, "/b", 4000);
    for (int i = 0; i < 40; ++i) {  // 120 KB in all, /a used all along: well past the capacity
        (void)has(cache, "/a");
        store(cache, "/filler" + std::to_string(i), 3000);
    }
    EXPECT_EQ(std::pair(has(cache, "/a"), has(cache, "/b")), std::pair(true, false))
        << "the least recently used went first";
    EXPECT_LE(cache.currentMemoryUsage(), cache.memoryCapacity());
    store(cache, "/huge", 6000);
    EXPECT_FALSE(has(cache, "/huge")) << "over a twentieth of the capacity: not kept";

    cache.storeCachedResponse(answer("/a", 10), get("/a", {}, "POST"));
    EXPECT_EQ(cache.cachedResponse(get("/a"))->data.size(), 4000u) << "only GET answers are cached";
    cache.removeAllCachedResponses();
    EXPECT_EQ(std::pair(has(cache, "/a"), cache.currentMemoryUsage()), std::pair(false, std::size_t{0}));
}

TEST_F(URLCacheTest, TheDiskPartOutlivesTheProcessHonoursThePolicyAndIsStartedAgainWhenDamaged) {
    {
        URLCache cache(100'000, 200'000, directory());
        EXPECT_FALSE(has(cache, "/kept"));
        EXPECT_FALSE(std::filesystem::exists(directory() / "Cache.db")) << "a lookup creates nothing";
        auto kept = answer("/kept", 500, {{"Cache-Control", "max-age=600"}});
        kept.userInfo = {{"kit", "help"}};
        cache.storeCachedResponse(kept, get("/kept"));
        store(cache, "/memory-only", 500, URLCacheStoragePolicy::allowedInMemoryOnly);
        store(cache, "/refused", 500, URLCacheStoragePolicy::notAllowed);
        EXPECT_EQ(std::pair(has(cache, "/memory-only"), has(cache, "/refused")), std::pair(true, false));
    }
    URLCache reopened(100'000, 200'000, directory());
    const auto kept = reopened.match(get("/kept"));
    ASSERT_TRUE(kept.has_value());
    // Fresh: its date was kept with it.
    EXPECT_EQ(std::tuple(kept->fresh, kept->response.data.size(), kept->response.response->statusCode(),
                         kept->response.response->mimeType(), kept->response.userInfo),
              std::tuple(true, 500u, 200, "application/json", nlohmann::json{{"kit", "help"}}));
    EXPECT_FALSE(has(reopened, "/memory-only"));
    EXPECT_GT(reopened.currentDiskUsage(), 500u);

    for (int i = 0; i < 40; ++i) {  // beyond the disk capacity the least recently used entries go
        store(reopened, "/bulk" + std::to_string(i), 9000);
    }
    EXPECT_LE(reopened.currentDiskUsage(), 200'000u);
    URLCache third(0, 200'000, directory());
    EXPECT_EQ(std::pair(has(third, "/bulk0"), has(third, "/bulk39")), std::pair(false, true));

    std::ofstream(root / "Cache.db") << std::string(4096, '\x7f');
    URLCache damaged(0, 200'000, root);
    store(damaged, "/a", 100);
    EXPECT_TRUE(has(damaged, "/a"));
}

TEST_F(URLCacheTest, AHostsLogSinkMayUseTheCacheWhileTheCacheReportsAProblem) {
    std::ofstream(root / "file") << "x";  // where the cache's directory should be: no disk cache
    // Leaked if the store never returns: the thread stuck in it must not outlive what it uses.
    auto* cache = new URLCache(100'000, 200'000, root / "file" / "cache");
    std::atomic<bool> reported{false};
    environment.logSink = [&reported, cache](LogLevel, std::string_view) {
        (void)cache->currentDiskUsage();
        reported = true;
    };
    platform::Environment::install(environment);
    ASSERT_TRUE(returnsWithin([cache] { store(*cache, "/a", 100); }));
    EXPECT_TRUE(reported);
    EXPECT_TRUE(has(*cache, "/a")) << "kept in memory";
    delete cache;
}

// An answer's own no-cache is seen to force a revalidation in ResponseCachingTest, where a GET's 200 with a
// plain max-age is also kept and answered fresh.
TEST_F(URLCacheTest, FreshnessStorabilityAndVaryFollowTheCachingHeadersOfTheAnswerAndTheRequest) {
    const auto now = httpDate(0s);
    const std::string ten = "max-age=600";  // ten minutes
    // what, the answer's headers, the request's, fresh
    const std::vector<std::tuple<const char*, HTTPHeaderFields, HTTPHeaderFields, bool>> cases = {
        {"max-age used up by Age", {{"Cache-Control", ten}, {"Age", "700"}}, {}, false},
        {"max-age used up since Date", {{"Cache-Control", ten}, {"Date", httpDate(-700s)}}, {}, false},
        {"max-age=0", {{"Cache-Control", "max-age=0"}}, {}, false},
        {"max-age over Expires", {{"Cache-Control", ten}, {"Expires", httpDate(-60s)}}, {}, true},
        {"Expires ahead", {{"Date", now}, {"Expires", httpDate(600s)}}, {}, true},
        {"Expires passed", {{"Date", now}, {"Expires", httpDate(-60s)}}, {}, false},
        {"Expires unreadable", {{"Expires", "0"}}, {}, false},
        {"modified ten days ago", {{"Date", now}, {"Last-Modified", httpDate(-240h)}}, {}, true},
        {"modified just now", {{"Date", now}, {"Last-Modified", now}}, {}, false},
        {"no caching headers", {}, {}, false},
        {"request no-cache", {{"Cache-Control", ten}}, {{"Cache-Control", "no-cache"}}, false},
        {"request Pragma", {{"Cache-Control", ten}}, {{"Pragma", "no-cache"}}, false},
        {"asked max-age", {{"Cache-Control", ten}, {"Age", "100"}}, {{"Cache-Control", "max-age=60"}}, false},
    };
    URLCache cache(100'000, 0, std::nullopt);
    for (const auto& [what, answered, asked, fresh] : cases) {
        SCOPED_TRACE(what);
        cache.storeCachedResponse(answer("/page", 10, answered), get("/page"));
        // value() throws when nothing matched
        EXPECT_EQ(cache.match(get("/page", asked)).value().fresh, fresh);
    }

    // method, status, the request's headers, the answer's, storable
    const std::vector<std::tuple<std::string, int, HTTPHeaderFields, HTTPHeaderFields, bool>> exchanges = {
        {"GET", 404, {}, {}, true},
        {"GET", 500, {}, {}, false},
        {"GET", 206, {}, {}, false},
        {"POST", 200, {}, {}, false},
        {"GET", 200, {}, {{"Cache-Control", "private, no-store"}}, false},
        {"GET", 200, {{"Cache-Control", "no-store"}}, {}, false},
        {"GET", 200, {}, {{"Vary", "Accept, *"}}, false}};
    for (const auto& [method, status, asked, answered, storable] : exchanges) {
        const auto response = answer("/x", 1, answered, URLCacheStoragePolicy::allowed, status).response;
        EXPECT_EQ(URLCache::mayStore(get("/x", asked, method), *response), storable)
            << method << " " << status;
    }

    const auto english = get("/v", {{"Accept-Language", "en"}});
    cache.storeCachedResponse(
        answer("/v", 10, {{"Vary", "accept-language"}, {"Cache-Control", "max-age=60"}}), english);
    EXPECT_TRUE(cache.match(english).has_value());
    EXPECT_FALSE(cache.match(get("/v", {{"ACCEPT-LANGUAGE", "fr"}})).has_value());
    EXPECT_FALSE(cache.match(get("/v")).has_value()) << "a header the answer varied with is missing";
}

}  // namespace
}  // namespace velmora::testing
