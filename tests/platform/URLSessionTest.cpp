#include "velmora/platform/URLSession.h"

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
using mock::ScriptedAnswer;

// Records every delegate event and lets the test wait for completions.
class RecordingDelegate : public URLSessionDelegate {
  public:
    struct Outcome {
        std::string body;
        std::shared_ptr<const HTTPURLResponse> responseAtFirstChunk;
        std::vector<std::array<std::int64_t, 3>> sent;
        std::optional<Error> error;
        bool done = false;
        std::int64_t code() const { return error ? error->code() : 0; }
    };

    void didBecomeInvalid(URLSession&, const std::optional<Error>&) override {
        std::lock_guard lock(mutex_);
        invalidated_ = true;
        changed_.notify_all();
    }
    void didSendBodyData(URLSession&, URLSessionDataTask& task, std::int64_t bytes, std::int64_t total,
                         std::int64_t expected) override {
        std::lock_guard lock(mutex_);
        outcomes_[task.taskIdentifier()].sent.push_back({bytes, total, expected});
    }
    void didReceiveData(URLSession&, URLSessionDataTask& task, const Data& data) override {
        std::lock_guard lock(mutex_);
        auto& outcome = outcomes_[task.taskIdentifier()];
        if (outcome.body.empty()) {
            outcome.responseAtFirstChunk = task.response();
        }
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
    bool waitInvalidated() {
        std::unique_lock lock(mutex_);
        return changed_.wait_for(lock, 10s, [&] { return invalidated_; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    std::map<std::uint64_t, Outcome> outcomes_;
    bool invalidated_ = false;
};

RecordingDelegate::Outcome runOn(URLSession& session, RecordingDelegate& delegate, URLRequest r) {
    auto task = session.dataTask(std::move(r));
    task->resume();
    return delegate.wait(*task);
}

class URLSessionTest : public LibraryTest {
  protected:
    URLSessionTest() {
        URLSessionConfiguration configuration;
        configuration.httpAdditionalHeaders = {{"Accept", "application/json"},
                                               {"User-Agent", "Velmora-SDK/2.0.0"}};
        session = URLSession::make(configuration, delegate);
    }

    URLRequest request(const std::string& path, const std::string& method = "GET") {
        URLRequest r(*URL::fromString(server.url() + path));
        r.httpMethod = method;
        return r;
    }
    static URLRequest at(const std::string& url) { return URLRequest(*URL::fromString(url)); }
    RecordingDelegate::Outcome run(URLRequest r) { return runOn(*session, *delegate, std::move(r)); }

    Watchdog watchdog{60s, "URL session test"};
    AccountServer server;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::shared_ptr<URLSession> session;
};

TEST_F(URLSessionTest, SessionHeadersGoOnEveryRequestUnlessItSetsItsOwnAndNoCookieIsKept) {
    server.script("GET", "/login",
                  {.status = 200, .body = "{}", .headers = {{"Set-Cookie", "session=abc; Path=/"}}});
    auto own = request("/login");
    own.setValue("text/plain", "accept");
    run(own);
    run(request("/after"));
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].header("Accept"), "text/plain");
    EXPECT_EQ(seen[0].header("User-Agent"), "Velmora-SDK/2.0.0");
    EXPECT_EQ(seen[0].header("Expect"), std::nullopt);
    EXPECT_EQ(seen[1].header("Accept"), "application/json");
    EXPECT_EQ(seen[1].header("Cookie"), std::nullopt) << "the session keeps no cookies";
}

// Credentials and bodies stay at the origin they were meant for: what each server received, per redirect.
TEST_F(URLSessionTest, RedirectsCarryCredentialsAndBodiesOnlyWithinTheirOrigin) {
    AccountServer elsewhere;
    // method, status, to another origin, the landing method ("": not followed, a URL error instead)
    const std::vector<std::tuple<std::string, int, bool, std::string>> cases = {
        {"GET", 302, false, "GET"}, {"POST", 307, false, "POST"}, {"GET", 302, true, "GET"},
        {"POST", 303, true, "GET"}, {"POST", 307, true, ""},      {"DELETE", 301, true, ""}};
    for (const auto& [method, status, away, landingMethod] : cases) {
        SCOPED_TRACE(method + " " + std::to_string(status) + (away ? " away" : " same"));
        auto& landing = away ? elsewhere : server;
        server.clearRequests();
        elsewhere.clearRequests();
        server.script("", "/from", {.status = status, .headers = {{"Location", landing.url() + "/landing"}}});
        landing.script("", "/landing", {.status = 200, .body = "landed"});

        auto from = request("/from", method);
        from.setValue("Bearer secret", "Authorization");
        from.setValue("app-client", "Client-Identifier");
        from.setValue("session=1", "Cookie");
        if (method != "GET") {
            from.httpBody = Data::fromString(R"({"user":{"token":"the-jwt"}})");
        }
        const auto outcome = run(from);
        const auto landed = landing.requests("", "/landing");
        if (landingMethod.empty()) {
            ASSERT_TRUE(outcome.error.has_value());
            EXPECT_EQ(outcome.error->domain(), errors::urlDomain);
            EXPECT_TRUE(landed.empty()) << "the body went to another origin";
            continue;
        }
        ASSERT_FALSE(outcome.error.has_value()) << outcome.error->description();
        EXPECT_EQ(outcome.body, "landed") << "the redirect's own body is nobody's answer";
        EXPECT_EQ(outcome.responseAtFirstChunk->url().absoluteString(), landing.url() + "/landing");
        ASSERT_EQ(landed.size(), 1u);
        EXPECT_EQ(landed[0].method, landingMethod);
        for (const char* credential : {"Authorization", "Client-Identifier", "Cookie"}) {
            EXPECT_EQ(landed[0].header(credential).has_value(), !away) << credential;
        }
        EXPECT_EQ(landed[0].body.empty(), landingMethod == "GET");
    }
}

TEST_F(URLSessionTest, AHeaderWithALineBreakOrNulIsNeverSent) {
    for (const std::string& value :
         {std::string("a\r\nX-Injected: yes"), std::string("a\nb"), std::string("a\0b", 3)}) {
        auto own = request("/x");
        own.setValue(value, "Authorization");
        const auto outcome = run(own);
        ASSERT_EQ(outcome.code(), errors::url::badURL);
        EXPECT_EQ(outcome.error->description().find("X-Injected"), std::string::npos) << "values are hidden";
    }
    // A session header too; its own delegate, as task identifiers are the session's own.
    URLSessionConfiguration configuration;
    configuration.httpAdditionalHeaders = {{"User-Agent", "x\r\nX-Injected: yes"}};
    const auto recorder = std::make_shared<RecordingDelegate>();
    EXPECT_EQ(runOn(*URLSession::make(configuration, recorder), *recorder, request("/x")).code(),
              errors::url::badURL);
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(URLSessionTest, TheProcessProxyVariablesAreReadOnlyWhenTheHostAsksForThem) {
    AccountServer proxy;
    ::setenv("http_proxy", proxy.url().c_str(), 1);
    ::setenv("HTTP_PROXY", proxy.url().c_str(), 1);
    ::unsetenv("no_proxy");
    ::unsetenv("NO_PROXY");
    EXPECT_FALSE(run(request("/x")).error.has_value());
    EXPECT_TRUE(proxy.requests().empty());

    environment.http.proxyFromEnvironment = true;
    reinstallEnvironment();
    run(request("/x"));
    EXPECT_EQ(proxy.requests().size(), 1u) << "the host opted in";
}

TEST_F(URLSessionTest, AnAnswerLargerThanTheLimitFailsAtTheLimit) {
    environment.http.maximumResponseBytes = 1 << 20;
    reinstallEnvironment();
    ScriptedAnswer big{.status = 200, .chunkDelay = 100ms};
    big.chunks.assign(40, std::string(128 * 1024, ' '));  // 5 MiB over four seconds, without a length
    server.script("GET", "/big", big);
    const auto start = std::chrono::steady_clock::now();
    const auto outcome = run(request("/big"));
    EXPECT_EQ(outcome.code(), errors::url::dataLengthExceedsMaximum);
    EXPECT_LE(outcome.body.size(), std::size_t{1} << 20);
    EXPECT_LT(std::chrono::steady_clock::now() - start, 3s) << "the transfer went on past the limit";
}

TEST_F(URLSessionTest, BrokenTransfersBecomeUrlErrorsAndNeverHang) {
    server.script("GET", "/drop", {.status = 200, .drop = true});
    server.script("GET", "/truncated", {.status = 200, .body = "partial", .truncate = true});
    server.script("GET", "/stall", {.status = 200, .body = "late", .delay = 5s});
    const auto gone = AccountServer().url();
    // What did arrive is still handed over.
    for (const auto& [url, code, body] : std::vector<std::tuple<std::string, std::int64_t, std::string>>{
             {server.url() + "/drop", errors::url::networkConnectionLost, ""},
             {server.url() + "/truncated", errors::url::networkConnectionLost, "partial"},
             {server.url() + "/stall", errors::url::timedOut, ""},
             {gone + "/x", errors::url::cannotConnectToHost, ""}}) {
        SCOPED_TRACE(url);
        auto r = at(url);
        r.timeoutInterval = 1;
        const auto start = std::chrono::steady_clock::now();
        const auto outcome = run(r);
        ASSERT_TRUE(outcome.error.has_value());
        EXPECT_EQ(outcome.error->domain(), errors::urlDomain);
        EXPECT_EQ(outcome.error->code(), code);
        EXPECT_EQ(outcome.body, body);
        EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);
        if (code == errors::url::timedOut) {
            EXPECT_EQ(outcome.error->localizedDescription(), "The request timed out.");
        }
    }
}

TEST_F(URLSessionTest, UploadProgressAndCancellationAreReported) {
    auto upload = request("/api/mobile/users/me.json", "PUT");
    upload.httpBody = Data::fromString(std::string(512 * 1024, 'x'));
    upload.setValue("application/octet-stream", "Content-Type");
    const auto uploaded = run(upload);
    ASSERT_FALSE(uploaded.error.has_value()) << uploaded.error->description();
    std::int64_t sum = 0;
    for (const auto& [bytes, total, expected] : uploaded.sent) {
        sum += bytes;
        EXPECT_EQ(total, sum);
        EXPECT_EQ(expected, 512 * 1024);
    }
    EXPECT_EQ(sum, 512 * 1024);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests()[0].body.size(), 512u * 1024);

    server.script("GET", "/slow", {.status = 200, .body = "x", .delay = 5s});
    auto task = session->dataTask(request("/slow"));
    task->resume();
    ASSERT_TRUE(server.waitForRequests(2));
    task->cancel();
    EXPECT_EQ(delegate->wait(*task).code(), errors::url::cancelled);
}

TEST_F(URLSessionTest, InvalidatingFinishesRunningTasksThenReports) {
    server.script("GET", "/slow", {.status = 200, .body = "done", .delay = 200ms});
    auto task = session->dataTask(request("/slow"));
    task->resume();
    session->finishTasksAndInvalidate();
    EXPECT_EQ(delegate->wait(*task).body, "done");
    EXPECT_TRUE(delegate->waitInvalidated());
    EXPECT_TRUE(run(request("/slow")).error.has_value()) << "an invalidated session starts nothing new";
}

TEST_F(URLSessionTest, TlsPeersAreVerifiedAgainstTheConfiguredAuthorities) {
    const auto cert = root / "cert.pem";
    const auto key = root / "key.pem";
    const auto make =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 -addext "
        "subjectAltName=IP:127.0.0.1 -keyout " +
        key.string() + " -out " + cert.string() + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(make.c_str()), 0) << "openssl could not make a test certificate";
    AccountServer secure({.certificate = cert, .privateKey = key});

    const auto untrusted = run(at(secure.url() + "/x"));
    EXPECT_TRUE(untrusted.code() == errors::url::serverCertificateUntrusted ||
                untrusted.code() == errors::url::secureConnectionFailed)
        << "a self-signed peer must not be trusted by default";
    EXPECT_TRUE(secure.requests().empty());

    environment.http.caBundle = cert;
    reinstallEnvironment();
    const auto trusted = run(at(secure.url() + "/x"));
    EXPECT_FALSE(trusted.error.has_value()) << trusted.error->description();
    EXPECT_EQ(secure.requests().size(), 1u);

    // https never leads to http, not even on the same host.
    secure.script("GET", "/down", {.status = 302, .headers = {{"Location", server.url() + "/landing"}}});
    EXPECT_EQ(run(at(secure.url() + "/down")).code(), errors::url::secureConnectionRequired);
    EXPECT_TRUE(server.requests().empty());

    // The certificate names 127.0.0.1, not localhost: the host name is checked too.
    EXPECT_TRUE(run(at("https://localhost:" + std::to_string(secure.port()) + "/x")).error.has_value());
}

TEST(URLTest, OnlyAbsoluteUrlsParseAndTheTextIsKeptAsGiven) {
    const auto url = URL::fromString("https://acme.velmora.com//api/x.json?tags=a%2Cb");
    ASSERT_TRUE(url.has_value());
    EXPECT_EQ(url->absoluteString(), "https://acme.velmora.com//api/x.json?tags=a%2Cb");
    EXPECT_EQ(url->origin(), "https://acme.velmora.com:443");
    EXPECT_EQ(URL::fromString("http://127.0.0.1:8080/")->origin(), "http://127.0.0.1:8080");
    for (const char* bad :
         {"", "acme.velmora.com/path", "/relative", "https://", "http://a b.com/", "ht tp://x"}) {
        EXPECT_FALSE(URL::fromString(bad).has_value()) << bad;
    }
    EXPECT_EQ(HTTPURLResponse::localizedString(418), "client error");
}

}  // namespace
}  // namespace velmora::testing
