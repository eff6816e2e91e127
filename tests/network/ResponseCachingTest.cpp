#include <gtest/gtest.h>

#include <mutex>

#include "tests/support/ServerTest.h"
#include "velmora/network/NetworkClient.h"

namespace velmora::testing {
namespace {

// Keeps answers of status 200 with "kept:" before the body, so that an answer from the cache shows itself.
struct KeepOK : CachedHTTPURLResponseDelegate,
                CachedHTTPURLResponseTransformer,
                std::enable_shared_from_this<KeepOK> {
    std::shared_ptr<CachedHTTPURLResponseTransformer> transformer(
        const CachedHTTPURLResponseDetails& response) override {
        return response.statusCode() == 200 ? shared_from_this() : nullptr;
    }
    std::optional<platform::CachedURLResponse> transform(
        const platform::CachedURLResponse& proposed) override {
        std::lock_guard lock(mutex);
        offered.push_back(proposed.data.toString());
        return platform::CachedURLResponse{proposed.response, Data::fromString("kept:" + offered.back()),
                                           proposed.storagePolicy, proposed.userInfo};
    }
    std::mutex mutex;
    std::vector<std::string> offered;
};

using Answer = std::pair<int, std::string>;  // the status and the body

class ResponseCachingTest : public ServerTest {
  protected:
    Answer load(const std::string& path, std::shared_ptr<CachedHTTPURLResponseDelegate> delegate,
                HttpMethod method = HttpMethod::get, std::map<std::string, std::string> headers = {}) {
        const ProviderService service(details, resourceURL(details->accountUrl(), path).value(), false,
                                      method, std::move(headers), std::nullopt, queue,
                                      Interceptors{{}, {}, interceptorQueue(), platform::DispatchGroup()},
                                      Reporter::none(), std::move(delegate));
        return await<Answer>([&](auto done) {
            service.perform([done](const auto& data, const auto& response, const auto&) {
                done({response ? response->statusCode() : 0, data ? data->toString() : ""});
            });
        });
    }
    platform::DispatchQueue queue{"com.velmora.tests.callbacks"};
};

// Only what the delegate's transformer returns is kept; a kept fresh answer never reaches the server.
TEST_F(ResponseCachingTest, OnlyWhatTheTransformerReturnsIsKeptAndAFreshAnswerNeverReachesTheServer) {
    const auto delegate = std::make_shared<KeepOK>();
    struct Case {
        std::string path, again;  // `again`: the body of the second answer
        int status;
        std::shared_ptr<CachedHTTPURLResponseDelegate> delegate;
    };
    for (const auto& c : {Case{"/ok", "kept:page", 200, delegate}, Case{"/missing", "page", 404, delegate},
                          Case{"/api/mobile/user_fields.json", "page", 200, nullptr}}) {
        SCOPED_TRACE(c.path);
        server.script("GET", c.path,
                      {.status = c.status,
                       .body = "page",
                       .headers = {{"Cache-Control", "public, max-age=600"}, {"ETag", "\"1\""}},
                       .times = std::nullopt});
        EXPECT_EQ(load(c.path, c.delegate), Answer(c.status, "page"));
        EXPECT_EQ(load(c.path, c.delegate), Answer(c.status, c.again));
        EXPECT_EQ(server.requests("GET", c.path).size(), c.again == "page" ? 2u : 1u);
    }
    EXPECT_EQ(delegate->offered, std::vector<std::string>{"page"}) << "offered once, whole";
    // One user's answers never stand for another's: not under another token, not after an identity change.
    EXPECT_EQ(load("/ok", delegate, HttpMethod::get, {{"Authorization", "Bearer a"}}).second, "page");
    EXPECT_EQ(load("/ok", delegate, HttpMethod::get, {{"Authorization", "Bearer a"}}).second, "kept:page");
    EXPECT_EQ(load("/ok", delegate, HttpMethod::get, {{"Authorization", "Bearer b"}}).second, "page");
    NetworkClient::defaultClient().removeCachedResponses();
    EXPECT_EQ(load("/ok", delegate).second, "page");
    EXPECT_EQ(server.requests("GET", "/ok").size(), 4u);
    // A successful change to the resource makes the kept answer useless.
    server.script("POST", "/ok", {.status = 201});
    load("/ok", delegate, HttpMethod::post);
    EXPECT_EQ(load("/ok", delegate).second, "page");
    EXPECT_EQ(server.requests("GET", "/ok").size(), 5u);
}

TEST_F(ResponseCachingTest, AStaleAnswerIsRevalidatedAndA304BringsBackTheKeptOne) {
    const auto delegate = std::make_shared<KeepOK>();
    struct Case {
        std::string validator, value, condition;
    };
    for (const auto& c : {Case{"ETag", "\"v1\"", "If-None-Match"},
                          Case{"Last-Modified", "Tue, 15 Nov 1994 12:45:26 GMT", "If-Modified-Since"}}) {
        SCOPED_TRACE(c.validator);
        const auto path = "/" + c.condition;
        server.script("GET", path,
                      {.status = 200,
                       .body = "v1",
                       .headers = {{"Cache-Control", "no-cache"}, {c.validator, c.value}}});
        server.script("GET", path, {.status = 304, .headers = {{"Cache-Control", "max-age=600"}}});
        EXPECT_EQ(load(path, delegate), Answer(200, "v1"));
        EXPECT_EQ(load(path, delegate), Answer(200, "kept:v1")) << "revalidated";
        EXPECT_EQ(load(path, delegate), Answer(200, "kept:v1")) << "the 304 made it fresh";
        const auto seen = server.requests("GET", path);
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_EQ(seen[0].header(c.condition), std::nullopt);
        EXPECT_EQ(seen[1].header(c.condition), c.value);
        // Preconditions of the caller's own are the caller's: the server's 304 comes back as it is.
        server.script("GET", path, {.status = 304});
        EXPECT_EQ(load(path, delegate, HttpMethod::get, {{c.condition, c.value}}).first, 304);
    }
}

}  // namespace
}  // namespace velmora::testing
