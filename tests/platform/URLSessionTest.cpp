#include "velmora/platform/URLSession.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <tuple>
#include <utility>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"

namespace velmora::testing {
namespace {

using namespace platform;
using namespace std::chrono_literals;
using mock::AccountServer;

// Records every delegate event and lets the test wait for completions.
class RecordingDelegate : public URLSessionDelegate {
  public:
    struct Outcome {
        std::string body;
        std::shared_ptr<const HTTPURLResponse> responseAtFirstChunk;
        std::vector<std::array<std::int64_t, 3>> sent;
        std::optional<Error> error;
        bool done = false;
        // The URL error's code; 0 without one, or for an error of another domain.
        auto code() const { return error && error->domain() == errors::urlDomain ? error->code() : 0; }
    };

    void didBecomeInvalid(URLSession&, const std::optional<Error>&) override {}
    void didSendBodyData(URLSession&, URLSessionDataTask& task, std::int64_t bytes, std::int64_t total,
                         std::int64_t expected) override {
        std::lock_guard lock(mutex_);
        outcomes_[task.taskIdentifier()].sent.push_back({bytes, total, expected});
    }
    void didReceiveData(URLSession&, URLSessionDataTask& task, const Data& data) override {
        std::lock_guard lock(mutex_);
        auto& outcome = outcomes_[task.taskIdentifier()];
        outcome.responseAtFirstChunk = outcome.body.empty() ? task.response() : outcome.responseAtFirstChunk;
        outcome.body += data.toString();
    }
    void willCacheResponse(URLSession&, URLSessionDataTask&, const CachedURLResponse&,
                           const std::function<void(std::optional<CachedURLResponse>)>& completion) override {
        completion(std::nullopt);
    }
    void didComplete(URLSession&, URLSessionDataTask& task, const std::optional<Error>& error) override {
        std::lock_guard lock(mutex_);
        outcomes_[task.taskIdentifier()].error = error;
        outcomes_[task.taskIdentifier()].done = true;
        changed_.notify_all();
    }

    Outcome wait(const URLSessionDataTask& task) {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return outcomes_[task.taskIdentifier()].done; });
        return outcomes_[task.taskIdentifier()];
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::uint64_t, Outcome> outcomes_;
};

class URLSessionTest : public LibraryTest {
  protected:
    static URLRequest at(const std::string& url) { return URLRequest(*URL::fromString(url)); }
    URLRequest request(const std::string& path, std::string method = "GET", HTTPHeaderFields headers = {},
                       std::optional<Data> body = std::nullopt) {
        auto r = at(server.url() + path);
        std::tie(r.httpMethod, r.allHTTPHeaderFields, r.httpBody) = std::tie(method, headers, body);
        return r;
    }
    // On the fixture's session, or on another one with its own delegate.
    RecordingDelegate::Outcome run(URLRequest r, URLSession* on = nullptr, RecordingDelegate* to = nullptr) {
        auto task = (on ? *on : *session).dataTask(std::move(r));
        task->resume();
        return (to ? *to : *delegate).wait(*task);
    }

    Watchdog watchdog{60s, "URL session test"};
    AccountServer server;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    // Every request carries the session's headers, unless it sets the same header itself.
    std::shared_ptr<URLSession> session = URLSession::make(
        {.httpAdditionalHeaders = {{"Accept", "application/json"}}, .urlCache = nullptr}, delegate);
};

// Credentials and bodies stay at the origin they were meant for: what each server received, per redirect.
TEST_F(URLSessionTest, RedirectsCarryCredentialsAndBodiesOnlyWithinTheirOrigin) {
    AccountServer elsewhere;
    // method, status, to another origin, the landing method ("": not followed, a URL error instead)
    const std::vector<std::tuple<std::string, int, bool, std::string>> cases = {
        {"GET", 302, false, "GET"}, {"POST", 307, false, "POST"}, {"GET", 302, true, "GET"},
        {"POST", 303, true, "GET"}, {"POST", 307, true, ""},      {"DELETE", 301, true, ""}};
    const HTTPHeaderFields credentials = {
        {"Authorization", "Bearer secret"}, {"Client-Identifier", "app-client"}, {"Cookie", "session=1"}};
    const auto body = Data::fromString(R"({"user":{"token":"the-jwt"}})");
    for (const auto& [method, status, away, landingMethod] : cases) {
        SCOPED_TRACE(method + " " + std::to_string(status) + (away ? " away" : " same"));
        auto& landing = away ? elsewhere : server;
        landing.clearRequests();
        server.script("", "/from", {.status = status, .headers = {{"Location", landing.url() + "/landing"}}});
        landing.script("", "/landing", {.body = "landed"});

        const auto outcome =
            run(request("/from", method, credentials, method == "GET" ? std::nullopt : std::optional(body)));
        const auto landed = landing.requests("", "/landing");
        if (landingMethod.empty()) {
            EXPECT_EQ(outcome.code(), errors::url::badServerResponse);
            EXPECT_TRUE(landed.empty()) << "the body went to another origin";
            continue;
        }
        ASSERT_FALSE(outcome.error.has_value()) << outcome.error->description();
        ASSERT_EQ(landed.size(), 1u);
        const auto has = [&](const char* name) { return landed[0].header(name).has_value(); };
        // The redirect's own body is nobody's answer; credentials stay in their origin; a GET has no body.
        EXPECT_EQ(
            std::tuple(outcome.body, outcome.responseAtFirstChunk->url().absoluteString(), landed[0].method,
                       has("Authorization"), has("Client-Identifier"), has("Cookie"), landed[0].body.empty()),
            std::tuple("landed", landing.url() + "/landing", landingMethod, !away, !away, !away,
                       landingMethod == "GET"));
    }
}

// That session headers reach the wire at all is checked through the network client's shared headers.
TEST_F(URLSessionTest, AHeaderWithALineBreakOrNulIsNeverSentARequestsOwnHeaderWinsAndNoCookieIsKept) {
    for (const std::string& value :
         {std::string("a\r\nX-Injected: yes"), std::string("a\nb"), std::string("a\0b", 3)}) {
        const auto outcome = run(request("/x", "GET", {{"Authorization", value}}));
        ASSERT_EQ(outcome.code(), errors::url::badURL);
        EXPECT_EQ(outcome.error->description().find("X-Injected"), std::string::npos) << "values are hidden";
    }
    // A session header too; its own delegate, as task identifiers are the session's own.
    const auto recorder = std::make_shared<RecordingDelegate>();
    const auto injecting = URLSession::make(
        {.httpAdditionalHeaders = {{"User-Agent", "x\r\nX-Injected: yes"}}, .urlCache = nullptr}, recorder);
    EXPECT_EQ(run(request("/x"), injecting.get(), recorder.get()).code(), errors::url::badURL);
    EXPECT_TRUE(server.requests().empty());

    server.script("GET", "/login", {.body = "{}", .headers = {{"Set-Cookie", "session=abc; Path=/"}}});
    run(request("/login", "GET", {{"accept", "text/plain"}}));
    run(request("/after"));
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].header("Accept"), "text/plain");
    EXPECT_EQ(seen[1].header("Cookie"), std::nullopt) << "the session keeps no cookies";
}

TEST_F(URLSessionTest, TheProcessProxyVariablesAreReadOnlyWhenTheHostAsksForThem) {
    AccountServer proxy;
    ::setenv("http_proxy", proxy.url().c_str(), 1);  // libcurl reads only the lower-case one for http
    ::unsetenv("no_proxy");
    ::unsetenv("NO_PROXY");
    EXPECT_FALSE(run(request("/x")).error.has_value());
    EXPECT_TRUE(proxy.requests().empty());

    environment.http.proxyFromEnvironment = true;
    reinstallEnvironment();
    run(request("/x"));
    EXPECT_EQ(proxy.requests().size(), 1u) << "the host opted in";
}

// A connection closed right after the headers is seen to be a lost connection in BlipsProviderTest and
// PushRegistrationTest, and a port nobody listens on to be one that cannot be connected to in the C session.
TEST_F(URLSessionTest, BrokenTransfersAndAnswersPastTheLimitBecomeUrlErrorsAndNeverHang) {
    server.script("GET", "/truncated", {.body = "partial", .truncate = true});
    server.script("GET", "/stall", {.body = "late", .delay = 5s});
    // What did arrive is still handed over.
    for (const auto& [url, code, body] : std::vector<std::tuple<std::string, std::int64_t, std::string>>{
             {server.url() + "/truncated", errors::url::networkConnectionLost, "partial"},
             {server.url() + "/stall", errors::url::timedOut, ""}}) {
        SCOPED_TRACE(url);
        auto r = at(url);
        r.timeoutInterval = 1;
        const auto start = std::chrono::steady_clock::now();
        const auto outcome = run(r);
        ASSERT_EQ(std::tuple(outcome.code(), outcome.body), std::tuple(code, body));
        EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
        if (code == errors::url::timedOut) {
            EXPECT_EQ(outcome.error->localizedDescription(), "The request timed out.");
        }
    }

    environment.http.maximumResponseBytes = 1 << 20;
    reinstallEnvironment();
    // 5 MiB over four seconds, without a length: it fails at the limit.
    server.script("GET", "/big",
                  {.chunks = std::vector(40, std::string(128 * 1024, ' ')), .chunkDelay = 100ms});
    const auto start = std::chrono::steady_clock::now();
    const auto outcome = run(request("/big"));
    EXPECT_EQ(outcome.code(), errors::url::dataLengthExceedsMaximum);
    EXPECT_LE(outcome.body.size(), std::size_t{1} << 20);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s) << "the transfer went on past the limit";
}

TEST_F(URLSessionTest, UploadProgressCancellationAndInvalidationAreReported) {
    const auto uploaded =
        run(request("/api/mobile/users/me.json", "PUT", {{"Content-Type", "application/octet-stream"}},
                    Data::fromString(std::string(512 * 1024, 'x'))));
    ASSERT_FALSE(uploaded.error.has_value()) << uploaded.error->description();
    std::int64_t sum = 0;  // what each report says was sent in all, and of how much
    for (const auto& [bytes, total, expected] : uploaded.sent) {
        EXPECT_EQ(std::pair(total, expected), std::pair(sum += bytes, std::int64_t{512 * 1024}));
    }
    ASSERT_EQ(server.requests().size(), 1u);
    // Every byte reported and received, with no round trip waiting for a 100.
    EXPECT_EQ(std::tuple(sum, server.requests()[0].body.size(), server.requests()[0].header("Expect")),
              std::tuple(512 * 1024, 512u * 1024, std::nullopt));

    server.script("GET", "/slow", {.body = "x", .delay = 5s});
    const auto cancelled = session->dataTask(request("/slow"));
    cancelled->resume();
    ASSERT_TRUE(server.waitForRequests(2));
    cancelled->cancel();
    EXPECT_EQ(delegate->wait(*cancelled).code(), errors::url::cancelled);

    // Invalidating lets a running task finish and starts no new one; that the delegate hears of it is
    // checked through the network client's session delegate.
    server.script("GET", "/finishing", {.body = "done", .delay = 200ms});
    const auto running = session->dataTask(request("/finishing"));
    running->resume();
    session->finishTasksAndInvalidate();
    EXPECT_EQ(delegate->wait(*running).body, "done");
    EXPECT_EQ(run(request("/finishing")).code(), errors::url::cancelled);
}

TEST_F(URLSessionTest, TlsPeersAreVerifiedAgainstTheConfiguredAuthorities) {
    const auto make = "cd " + root.string() +
                      " && openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
                      "subjectAltName=IP:127.0.0.1 -keyout key.pem -out cert.pem >/dev/null 2>&1";
    ASSERT_EQ(std::system(make.c_str()), 0) << "openssl could not make a test certificate";
    const auto cert = root / "cert.pem";
    AccountServer secure({.certificate = cert, .privateKey = root / "key.pem"});

    EXPECT_THAT(run(at(secure.url() + "/x")).code(), ::testing::AnyOf(errors::url::serverCertificateUntrusted,
                                                                      errors::url::secureConnectionFailed))
        << "a self-signed peer must not be trusted by default";
    EXPECT_TRUE(secure.requests().empty());

    environment.http.caBundle = cert;
    reinstallEnvironment();
    const auto trusted = run(at(secure.url() + "/x"));
    EXPECT_FALSE(trusted.error.has_value()) << trusted.error->description();

    // https never leads to http, not even on the same host.
    secure.script("GET", "/down", {.status = 302, .headers = {{"Location", server.url() + "/landing"}}});
    EXPECT_EQ(run(at(secure.url() + "/down")).code(), errors::url::secureConnectionRequired);
    EXPECT_TRUE(server.requests().empty());

    // The certificate names 127.0.0.1, not localhost: the host name is checked too.
    EXPECT_TRUE(run(at("https://localhost:" + std::to_string(secure.port()) + "/x")).error.has_value());
}

TEST(URLTest, OnlyAbsoluteUrlsParseAndTheTextIsKeptAsGiven) {
    const auto url = URL::fromString("https://acme.velmora.com//api/x.json?tags=a%2Cb").value();
    EXPECT_EQ(url.absoluteString(), "https://acme.velmora.com//api/x.json?tags=a%2Cb");
    EXPECT_EQ(url.origin(), "https://acme.velmora.com:443");
    EXPECT_EQ(URL::fromString("http://127.0.0.1:8080/")->origin(), "http://127.0.0.1:8080");
    for (const char* bad :
         {"", "acme.velmora.com/path", "/relative", "https://", "http://a b.com/", "ht tp://x",
          "http://a.com/?q=a b", "http://a.com/?q=\x01", "http://a.com/#\x7f", "http://a.com/p\tq"}) {
        EXPECT_FALSE(URL::fromString(bad).has_value()) << bad;
    }
    // Appending keeps the origin: only a path may follow, and only to a URL without query or fragment.
    const auto base = URL::fromString("https://acme.velmora.com:8443").value();
    const auto appended = base.appending("/api/x.json?tags=a#f");
    EXPECT_EQ(std::pair(appended->absoluteString(), appended->origin()),
              std::pair(std::string("https://acme.velmora.com:8443/api/x.json?tags=a#f"), base.origin()));
    for (const char* refused : {"", "x.json", "@other.net/", ".other.net/", "/a b", "/\x01"}) {
        EXPECT_FALSE(base.appending(refused).has_value()) << refused;
    }
    EXPECT_FALSE(appended->appending("/more").has_value());
    EXPECT_EQ(HTTPURLResponse::localizedString(418), "client error");
}

}  // namespace
}  // namespace velmora::testing
