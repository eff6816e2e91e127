#include <gtest/gtest.h>

#include "tests/support/ServerTest.h"
#include "velmora/network/NetworkClient.h"

namespace velmora::testing {
namespace {

// Keeps answers of status 200 with "kept:" before the body, so that an answer from the cache shows itself,
// and with `validator` as their ETag when one is given. Called on the session's thread, one answer at a time:
// each load is waited for before the next.
struct KeepOK : CachedHTTPURLResponseDelegate,
                CachedHTTPURLResponseTransformer,
                std::enable_shared_from_this<KeepOK> {
    std::shared_ptr<CachedHTTPURLResponseTransformer> transformer(
        const CachedHTTPURLResponseDetails& response) override {
        return response.statusCode() == 200 ? shared_from_this() : nullptr;
    }
    std::optional<platform::CachedURLResponse> transform(
        const platform::CachedURLResponse& proposed) override {
        offered.push_back(proposed.data.toString());
        auto headers = proposed.response->allHeaderFields();
        if (validator) {
            headers["ETag"] = *validator;
        }
        return platform::CachedURLResponse{
            std::make_shared<platform::HTTPURLResponse>(proposed.response->url(), 200, std::move(headers)),
            Data::fromString("kept:" + offered.back()), proposed.storagePolicy, proposed.userInfo};
    }
    std::vector<std::string> offered;
    std::optional<std::string> validator;
};

using Answer = std::pair<int, std::string>;  // the status and the body

class ResponseCachingTest : public ServerTest {
  protected:
    Answer load(const std::string& path, std::shared_ptr<CachedHTTPURLResponseDelegate> caching,
                HttpMethod method = HttpMethod::get, std::map<std::string, std::string> headers = {}) {
        const ProviderService service(details, resourceURL(details->accountUrl(), path).value(), false,
                                      method, std::move(headers), std::nullopt, queue,
                                      Interceptors{{}, {}, interceptorQueue(), platform::DispatchGroup()},
                                      Reporter::none(), std::move(caching));
        return await<Answer>([&](auto done) {
            service.perform([done](const auto& data, const auto& response, const auto&) {
                done({response ? response->statusCode() : 0, data ? data->toString() : ""});
            });
        });
    }
    platform::DispatchQueue queue{"com.velmora.tests.callbacks"};
    const std::shared_ptr<KeepOK> delegate = std::make_shared<KeepOK>();
};

// Only what the delegate's transformer returns is kept; a kept fresh answer never reaches the server.
TEST_F(ResponseCachingTest, OnlyWhatTheTransformerReturnsIsKeptAndAFreshAnswerNeverReachesTheServer) {
    // the path, the status of both answers, the body of the second, and the delegate the loads bring
    for (const auto& [path, status, again, caching] :
         std::vector<std::tuple<std::string, int, std::string, std::shared_ptr<KeepOK>>>{
             {"/ok", 200, "kept:page", delegate},
             {"/missing", 404, "page", delegate},
             {"/api/mobile/user_fields.json", 200, "page", nullptr}}) {
        SCOPED_TRACE(path);
        server.script("GET", path,
                      {.status = status,
                       .body = "page",
                       .headers = {{"Cache-Control", "public, max-age=600"}, {"ETag", "\"1\""}},
                       .times = std::nullopt});
        EXPECT_EQ(load(path, caching), Answer(status, "page"));
        EXPECT_EQ(load(path, caching), Answer(status, again));
        EXPECT_EQ(server.requests("GET", path).size(), again == "page" ? 2u : 1u);
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
    // the validator's header, its value, and the request header that carries it back
    for (const auto& [validator, value, condition] : std::vector<std::array<std::string, 3>>{
             {"ETag", "\"v1\"", "If-None-Match"},
             {"Last-Modified", "Tue, 15 Nov 1994 12:45:26 GMT", "If-Modified-Since"}}) {
        SCOPED_TRACE(validator);
        const auto path = "/" + condition;
        server.script(
            "GET", path,
            {.status = 200, .body = "v1", .headers = {{"Cache-Control", "no-cache"}, {validator, value}}});
        server.script("GET", path, {.status = 304, .headers = {{"Cache-Control", "max-age=600"}}});
        EXPECT_EQ(load(path, delegate), Answer(200, "v1"));
        EXPECT_EQ(load(path, delegate), Answer(200, "kept:v1")) << "revalidated";
        EXPECT_EQ(load(path, delegate), Answer(200, "kept:v1")) << "the 304 made it fresh";
        const auto seen = server.requests("GET", path);
        ASSERT_EQ(seen.size(), 2u);
        EXPECT_EQ(seen[0].header(condition), std::nullopt);
        EXPECT_EQ(seen[1].header(condition), value);
        // Preconditions of the caller's own are the caller's: the server's 304 comes back as it is.
        server.script("GET", path, {.status = 304});
        EXPECT_EQ(load(path, delegate, HttpMethod::get, {{condition, value}}).first, 304);
    }
    // A validator that cannot be sent (CR in it, here from a kit's transformer) is left out, rather than
    // fail every later load of its URL.
    delegate->validator = "\"a\rb\"";
    server.script("GET", "/v",
                  {.status = 200, .body = "v", .headers = {{"Cache-Control", "no-cache"}}, .times = 2});
    EXPECT_EQ(load("/v", delegate), Answer(200, "v"));
    EXPECT_EQ(load("/v", delegate), Answer(200, "v"));
}

}  // namespace
}  // namespace velmora::testing
