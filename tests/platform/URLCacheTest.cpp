#include "velmora/platform/URLCache.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <ctime>
#include <fstream>

#include "tests/support/LibraryTest.h"

namespace velmora::testing {
namespace {

using namespace platform;
using namespace std::chrono_literals;

// An HTTP date `offset` from now, as servers write it.
std::string httpDate(std::chrono::seconds offset) {
    static const char* days[] = {"Sun", "Mon", "Tue", "Wed", "Thu", "Fri", "Sat"};
    static const char* months[] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                   "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};
    const std::time_t time = std::time(nullptr) + offset.count();
    std::tm utc{};
    gmtime_r(&time, &utc);
    char text[64];
    std::snprintf(text, sizeof text, "%s, %02d %s %d %02d:%02d:%02d GMT", days[utc.tm_wday], utc.tm_mday,
                  months[utc.tm_mon], utc.tm_year + 1900, utc.tm_hour, utc.tm_min, utc.tm_sec);
    return text;
}

class URLCacheTest : public LibraryTest {
  protected:
    static URLRequest get(const std::string& path) {
        return URLRequest(*URL::fromString("https://a.example" + path));
    }
    static CachedURLResponse answer(const std::string& path, std::size_t bytes, HTTPHeaderFields headers = {},
                                    URLCacheStoragePolicy policy = URLCacheStoragePolicy::allowed,
                                    int status = 200) {
        headers.emplace("Content-Type", "application/json");
        return {std::make_shared<HTTPURLResponse>(*URL::fromString("https://a.example" + path), status,
                                                  std::move(headers)),
                Data::fromString(std::string(bytes, 'x')), policy, nullptr};
    }
    std::filesystem::path directory() const { return *environment.cachesDirectory / "com.velmora.core"; }
};

TEST_F(URLCacheTest, TheMemoryPartKeepsTheMostRecentlyUsedWithinItsCapacity) {
    URLCache cache(100'000, 0, std::nullopt);
    cache.storeCachedResponse(answer("/a", 4000), get("/a"));
    cache.storeCachedResponse(answer("/b", 4000), get("/b"));
    EXPECT_TRUE(cache.cachedResponse(get("/a")).has_value());  // /a is now the more recent
    for (int i = 0; i < 40; ++i) {                             // 128 KB in all: well past the capacity
        cache.storeCachedResponse(answer("/filler" + std::to_string(i), 3000),
                                  get("/filler" + std::to_string(i)));
        (void)cache.cachedResponse(get("/a"));
    }
    EXPECT_TRUE(cache.cachedResponse(get("/a")).has_value());
    EXPECT_FALSE(cache.cachedResponse(get("/b")).has_value()) << "the least recently used went first";
    EXPECT_LE(cache.currentMemoryUsage(), cache.memoryCapacity());

    cache.storeCachedResponse(answer("/huge", 6000), get("/huge"));
    EXPECT_FALSE(cache.cachedResponse(get("/huge")).has_value())
        << "over a twentieth of the capacity: not kept";

    URLRequest post = get("/a");
    post.httpMethod = "POST";
    cache.storeCachedResponse(answer("/a", 10), post);
    EXPECT_FALSE(cache.cachedResponse(post).has_value()) << "only GET answers are cached";

    cache.removeCachedResponse(post);
    EXPECT_FALSE(cache.cachedResponse(get("/a")).has_value()) << "any method drops what the URL had";
    cache.removeAllCachedResponses();
    EXPECT_FALSE(cache.cachedResponse(get("/filler39")).has_value());
    EXPECT_EQ(cache.currentMemoryUsage(), 0u);
}

TEST_F(URLCacheTest, TheDiskPartOutlivesTheProcessAndHonoursThePolicy) {
    {
        URLCache cache(100'000, 200'000, directory());
        EXPECT_FALSE(cache.cachedResponse(get("/kept")).has_value());
        EXPECT_FALSE(std::filesystem::exists(directory() / "Cache.db")) << "a lookup creates nothing";
        auto kept = answer("/kept", 500, {{"Cache-Control", "max-age=600"}});
        kept.userInfo = {{"kit", "help"}};
        cache.storeCachedResponse(kept, get("/kept"));
        cache.storeCachedResponse(answer("/memory-only", 500, {}, URLCacheStoragePolicy::allowedInMemoryOnly),
                                  get("/memory-only"));
        cache.storeCachedResponse(answer("/refused", 500, {}, URLCacheStoragePolicy::notAllowed),
                                  get("/refused"));
        EXPECT_TRUE(cache.cachedResponse(get("/memory-only")).has_value());
        EXPECT_FALSE(cache.cachedResponse(get("/refused")).has_value());
    }
    URLCache reopened(100'000, 200'000, directory());
    const auto kept = reopened.match(get("/kept"));
    ASSERT_TRUE(kept.has_value());
    EXPECT_TRUE(kept->fresh) << "its date was kept with it";
    EXPECT_EQ(kept->response.data.size(), 500u);
    EXPECT_EQ(kept->response.response->statusCode(), 200);
    EXPECT_EQ(kept->response.response->mimeType(), "application/json");
    EXPECT_EQ(kept->response.userInfo, (nlohmann::json{{"kit", "help"}}));
    EXPECT_FALSE(reopened.cachedResponse(get("/memory-only")).has_value());
    EXPECT_GT(reopened.currentDiskUsage(), 500u);

    // Beyond the disk capacity the least recently used entries go.
    for (int i = 0; i < 40; ++i) {
        reopened.storeCachedResponse(answer("/bulk" + std::to_string(i), 9000),
                                     get("/bulk" + std::to_string(i)));
    }
    EXPECT_LE(reopened.currentDiskUsage(), 200'000u);
    URLCache third(0, 200'000, directory());
    EXPECT_FALSE(third.cachedResponse(get("/bulk0")).has_value());
    EXPECT_TRUE(third.cachedResponse(get("/bulk39")).has_value());
}

TEST_F(URLCacheTest, ADamagedDiskCacheIsStartedAgain) {
    std::filesystem::create_directories(directory());
    std::ofstream(directory() / "Cache.db") << std::string(4096, '\x7f');
    URLCache cache(0, 200'000, directory());
    cache.storeCachedResponse(answer("/a", 100), get("/a"));
    EXPECT_TRUE(cache.cachedResponse(get("/a")).has_value());
    EXPECT_FALSE(logs->linesStartingWith("URLCache: starting an empty disk cache").empty());
}

TEST_F(URLCacheTest, FreshnessFollowsTheCachingHeadersOfTheAnswerAndTheRequest) {
    struct Case {
        const char* name;
        HTTPHeaderFields answered;
        HTTPHeaderFields asked;
        bool fresh;
    };
    const auto now = httpDate(0s);
    const std::vector<Case> cases = {
        {"max-age", {{"Cache-Control", "max-age=600"}}, {}, true},
        {"max-age used up by Age", {{"Cache-Control", "max-age=600"}, {"Age", "700"}}, {}, false},
        {"max-age used up since Date",
         {{"Cache-Control", "max-age=600"}, {"Date", httpDate(-700s)}},
         {},
         false},
        {"max-age=0", {{"Cache-Control", "max-age=0"}}, {}, false},
        {"no-cache", {{"Cache-Control", "no-cache, max-age=600"}}, {}, false},
        {"max-age over Expires", {{"Cache-Control", "max-age=600"}, {"Expires", httpDate(-60s)}}, {}, true},
        {"Expires ahead", {{"Date", now}, {"Expires", httpDate(600s)}}, {}, true},
        {"Expires passed", {{"Date", now}, {"Expires", httpDate(-60s)}}, {}, false},
        {"Expires unreadable", {{"Expires", "0"}}, {}, false},
        {"modified ten days ago", {{"Date", now}, {"Last-Modified", httpDate(-240h)}}, {}, true},
        {"modified just now", {{"Date", now}, {"Last-Modified", now}}, {}, false},
        {"no caching headers", {}, {}, false},
        {"request no-cache", {{"Cache-Control", "max-age=600"}}, {{"Cache-Control", "no-cache"}}, false},
        {"request Pragma", {{"Cache-Control", "max-age=600"}}, {{"Pragma", "no-cache"}}, false},
        {"request max-age",
         {{"Cache-Control", "max-age=600"}, {"Age", "100"}},
         {{"Cache-Control", "max-age=60"}},
         false},
    };
    URLCache cache(100'000, 0, std::nullopt);
    for (const auto& c : cases) {
        cache.storeCachedResponse(answer("/page", 10, c.answered), get("/page"));
        auto request = get("/page");
        request.allHTTPHeaderFields = c.asked;
        const auto match = cache.match(request);
        ASSERT_TRUE(match.has_value()) << c.name;
        EXPECT_EQ(match->fresh, c.fresh) << c.name;
    }
}

TEST_F(URLCacheTest, OnlyStorableAnswersQualifyAndAVaryingOneStandsOnlyForItsOwnHeaderValues) {
    struct Case {
        const char* method;
        int status;
        HTTPHeaderFields asked;
        HTTPHeaderFields answered;
        bool storable;
    };
    const std::vector<Case> cases = {
        {"GET", 200, {}, {}, true},
        {"GET", 404, {}, {}, true},
        {"GET", 500, {}, {}, false},
        {"GET", 206, {}, {}, false},
        {"POST", 200, {}, {}, false},
        {"GET", 200, {}, {{"Cache-Control", "private, no-store"}}, false},
        {"GET", 200, {{"Cache-Control", "no-store"}}, {}, false},
        {"GET", 200, {}, {{"Vary", "Accept, *"}}, false},
    };
    for (const auto& c : cases) {
        auto request = get("/x");
        request.httpMethod = c.method;
        request.allHTTPHeaderFields = c.asked;
        const auto response = answer("/x", 1, c.answered, URLCacheStoragePolicy::allowed, c.status).response;
        EXPECT_EQ(URLCache::mayStore(request, *response), c.storable) << c.method << " " << c.status;
    }

    URLCache cache(100'000, 0, std::nullopt);
    auto english = get("/v");
    english.setValue("en", "Accept-Language");
    cache.storeCachedResponse(
        answer("/v", 10, {{"Vary", "accept-language"}, {"Cache-Control", "max-age=60"}}), english);
    EXPECT_TRUE(cache.match(english).has_value());
    auto french = english;
    french.setValue("fr", "ACCEPT-LANGUAGE");
    EXPECT_FALSE(cache.match(french).has_value());
    EXPECT_FALSE(cache.match(get("/v")).has_value()) << "a header the answer varied with is missing";
}

}  // namespace
}  // namespace velmora::testing
