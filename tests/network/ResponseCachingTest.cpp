#include <gtest/gtest.h>

#include <future>
#include <mutex>
#include <set>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/network/NetworkClient.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using mock::ScriptedAnswer;

// Keeps what it is offered with "kept:" before the body, so that an answer from the cache shows itself.
struct Keeper : CachedHTTPURLResponseTransformer {
    std::optional<platform::CachedURLResponse> transform(
        const platform::CachedURLResponse& proposed) override {
        std::lock_guard lock(mutex);
        offered.push_back(proposed.data.toString());
        auto kept = proposed;
        kept.data = Data::fromString("kept:" + proposed.data.toString());
        return kept;
    }
    std::mutex mutex;
    std::vector<std::string> offered;
};

// Has a transformer for answers of the given statuses only.
struct KeepStatuses : CachedHTTPURLResponseDelegate {
    explicit KeepStatuses(std::set<int> kept) : statuses(std::move(kept)) {}
    std::shared_ptr<CachedHTTPURLResponseTransformer> transformer(
        const CachedHTTPURLResponseDetails& response) override {
        return statuses.count(response.statusCode()) > 0 ? keeper : nullptr;
    }
    std::set<int> statuses;
    std::shared_ptr<Keeper> keeper = std::make_shared<Keeper>();
};

struct Answer {
    int status = 0;
    std::string body;
};

class ResponseCachingTest : public LibraryTest {
  protected:
    ResponseCachingTest()
        : details(std::make_shared<ApplicationConfiguration>("app", "client", server.url())) {}

    Answer load(const std::string& path, std::shared_ptr<CachedHTTPURLResponseDelegate> delegate,
                HttpMethod method = HttpMethod::get, std::map<std::string, std::string> headers = {}) {
        const ProviderService service(details, resourceURL(details->accountUrl(), path).value(), false,
                                      method, std::move(headers), std::nullopt, queue,
                                      Interceptors{{}, {}, interceptorQueue(), platform::DispatchGroup()},
                                      Reporter::none(), std::move(delegate));
        std::promise<Answer> answer;
        service.perform([&answer](const std::optional<Data>& data,
                                  const std::shared_ptr<const platform::HTTPURLResponse>& response,
                                  const std::optional<Error>&) {
            answer.set_value({response ? response->statusCode() : 0, data ? data->toString() : ""});
        });
        return answer.get_future().get();
    }

    Watchdog watchdog{60s, "response caching test"};
    AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details;
    platform::DispatchQueue queue{"com.velmora.tests.callbacks"};
};

TEST_F(ResponseCachingTest, AProvidersRequestLeavesNoRecordWhateverItsCachingHeaders) {
    const std::string path = "/api/mobile/user_fields.json";
    server.script("GET", path,
                  {.status = 200,
                   .body = "{}",
                   .headers = {{"Cache-Control", "public, max-age=600"}, {"ETag", "\"1\""}},
                   .times = std::nullopt});
    EXPECT_EQ(load(path, nullptr).status, 200);
    EXPECT_EQ(load(path, nullptr).status, 200);
    const auto seen = server.requests("GET", path);
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[1].header("If-None-Match"), std::nullopt);
    const auto& cache = NetworkClient::defaultClient().session()->configuration().urlCache;
    const platform::URLRequest request(*platform::URL::fromString(server.url() + path));
    EXPECT_FALSE(cache->cachedResponse(request).has_value());
}

TEST_F(ResponseCachingTest, OnlyWhatTheTransformerReturnsIsKeptAndAFreshAnswerNeverReachesTheServer) {
    const auto delegate = std::make_shared<KeepStatuses>(std::set<int>{200});
    struct Case {
        std::string path;
        int status;
        std::string again;  // the body of the second answer
        std::size_t requests;
    };
    for (const auto& c : {Case{"/ok", 200, "kept:page", 1}, Case{"/missing", 404, "page", 2}}) {
        server.script("GET", c.path,
                      {.status = c.status,
                       .body = "page",
                       .headers = {{"Cache-Control", "max-age=600"}},
                       .times = std::nullopt});
        EXPECT_EQ(load(c.path, delegate).body, "page");
        const auto again = load(c.path, delegate);
        EXPECT_EQ(again.status, c.status) << c.path;
        EXPECT_EQ(again.body, c.again) << c.path;
        EXPECT_EQ(server.requests("GET", c.path).size(), c.requests) << c.path;
    }
    EXPECT_EQ(delegate->keeper->offered, std::vector<std::string>{"page"}) << "offered once, whole";

    // A successful change to the resource makes the kept answer useless.
    server.script("POST", "/ok", {.status = 201});
    load("/ok", delegate, HttpMethod::post);
    EXPECT_EQ(load("/ok", delegate).body, "page");
    EXPECT_EQ(server.requests("GET", "/ok").size(), 2u);
}

TEST_F(ResponseCachingTest, AStaleAnswerIsRevalidatedAndA304BringsBackTheKeptOne) {
    const auto delegate = std::make_shared<KeepStatuses>(std::set<int>{200});
    struct Case {
        std::string validator;
        std::string value;
        std::string condition;
    };
    for (const auto& c : {Case{"ETag", "\"v1\"", "If-None-Match"},
                          Case{"Last-Modified", "Tue, 15 Nov 1994 12:45:26 GMT", "If-Modified-Since"}}) {
        const auto path = "/" + c.condition;
        server.script("GET", path,
                      {.status = 200,
                       .body = "v1",
                       .headers = {{"Cache-Control", "no-cache"}, {c.validator, c.value}}});
        server.script("GET", path, {.status = 304, .headers = {{"Cache-Control", "max-age=600"}}});
        EXPECT_EQ(load(path, delegate).body, "v1");
        const auto revalidated = load(path, delegate);
        EXPECT_EQ(revalidated.status, 200) << c.validator;
        EXPECT_EQ(revalidated.body, "kept:v1") << c.validator;
        EXPECT_EQ(load(path, delegate).body, "kept:v1") << "the 304 made it fresh: " << c.validator;
        const auto seen = server.requests("GET", path);
        ASSERT_EQ(seen.size(), 2u) << c.validator;
        EXPECT_EQ(seen[0].header(c.condition), std::nullopt);
        EXPECT_EQ(seen[1].header(c.condition), c.value);

        // Preconditions of the caller's own are the caller's: the server's 304 comes back as it is.
        server.script("GET", path, {.status = 304});
        EXPECT_EQ(load(path, delegate, HttpMethod::get, {{c.condition, c.value}}).status, 304) << c.validator;
    }
}

}  // namespace
}  // namespace velmora::testing
