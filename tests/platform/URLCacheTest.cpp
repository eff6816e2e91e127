#include "velmora/platform/URLCache.h"

#include <gtest/gtest.h>

#include <fstream>

#include "tests/support/LibraryTest.h"

namespace velmora::testing {
namespace {

using namespace platform;

class URLCacheTest : public LibraryTest {
  protected:
    static URLRequest get(const std::string& path) {
        return URLRequest(*URL::fromString("https://a.example" + path));
    }
    static CachedURLResponse answer(const std::string& path, std::size_t bytes,
                                    URLCacheStoragePolicy policy = URLCacheStoragePolicy::allowed) {
        return {std::make_shared<HTTPURLResponse>(*URL::fromString("https://a.example" + path), 200,
                                                  HTTPHeaderFields{{"Content-Type", "application/json"}}),
                Data::fromString(std::string(bytes, 'x')), policy};
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

    cache.removeAllCachedResponses();
    EXPECT_FALSE(cache.cachedResponse(get("/a")).has_value());
    EXPECT_EQ(cache.currentMemoryUsage(), 0u);
}

TEST_F(URLCacheTest, TheDiskPartOutlivesTheProcessAndHonoursThePolicy) {
    {
        URLCache cache(100'000, 200'000, directory());
        cache.storeCachedResponse(answer("/kept", 500), get("/kept"));
        cache.storeCachedResponse(answer("/memory-only", 500, URLCacheStoragePolicy::allowedInMemoryOnly),
                                  get("/memory-only"));
        cache.storeCachedResponse(answer("/refused", 500, URLCacheStoragePolicy::notAllowed),
                                  get("/refused"));
        EXPECT_TRUE(cache.cachedResponse(get("/memory-only")).has_value());
        EXPECT_FALSE(cache.cachedResponse(get("/refused")).has_value());
    }
    URLCache reopened(100'000, 200'000, directory());
    const auto kept = reopened.cachedResponse(get("/kept"));
    ASSERT_TRUE(kept.has_value());
    EXPECT_EQ(kept->data.size(), 500u);
    EXPECT_EQ(kept->response->statusCode(), 200);
    EXPECT_EQ(kept->response->mimeType(), "application/json");
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

}  // namespace
}  // namespace velmora::testing
