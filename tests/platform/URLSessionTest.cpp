#include "velmora/platform/URLSession.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <cstdlib>
#include <fstream>
#include <mutex>
#include <thread>

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
        std::vector<Data> chunks;
        std::shared_ptr<const HTTPURLResponse> responseAtFirstChunk;
        std::vector<std::array<std::int64_t, 3>> sent;
        std::optional<Error> error;
        std::thread::id thread;
        bool done = false;
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
        if (outcome.chunks.empty()) {
            outcome.responseAtFirstChunk = task.response();
        }
        outcome.chunks.push_back(data);
    }
    void willCacheResponse(URLSession&, URLSessionDataTask&, const CachedURLResponse&,
                           const std::function<void(std::optional<CachedURLResponse>)>& completion) override {
        completion(std::nullopt);
    }
    void didComplete(URLSession&, URLSessionDataTask& task, const std::optional<Error>& error) override {
        std::lock_guard lock(mutex_);
        auto& outcome = outcomes_[task.taskIdentifier()];
        outcome.error = error;
        outcome.thread = std::this_thread::get_id();
        outcome.done = true;
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

std::string joined(const std::vector<Data>& chunks) {
    std::string all;
    for (const auto& chunk : chunks) {
        all += chunk.toString();
    }
    return all;
}

// A server that answers every request with a body it never finishes (or one of `limit` bytes), written
// from one small buffer: it costs this process no memory, whatever the client does with the bytes.
class EndlessServer {
  public:
    explicit EndlessServer(std::size_t limit = 0) : limit_(limit) {
        listener_ = ::socket(AF_INET, SOCK_STREAM, 0);
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t length = sizeof address;
        ::bind(listener_, reinterpret_cast<sockaddr*>(&address), sizeof address);
        ::listen(listener_, 4);
        ::getsockname(listener_, reinterpret_cast<sockaddr*>(&address), &length);
        port_ = ntohs(address.sin_port);
        thread_ = std::thread([this] { serve(); });
    }
    ~EndlessServer() {
        ::shutdown(listener_, SHUT_RDWR);
        ::close(listener_);
        thread_.join();
    }
    std::string url() const { return "http://127.0.0.1:" + std::to_string(port_) + "/big.json"; }

  private:
    void serve() {
        const int connection = ::accept(listener_, nullptr, nullptr);
        if (connection < 0) {
            return;
        }
        char request[4096];
        (void)::recv(connection, request, sizeof request, 0);
        const std::string head =
            "HTTP/1.1 200 OK\r\nContent-Type: application/json\r\nConnection: close\r\n\r\n";
        (void)::send(connection, head.data(), head.size(), MSG_NOSIGNAL);
        const std::string block(64 * 1024, ' ');
        std::size_t sent = 0;
        while (limit_ == 0 || sent < limit_) {
            const auto n = ::send(connection, block.data(), block.size(), MSG_NOSIGNAL);
            if (n <= 0) {
                break;
            }
            sent += static_cast<std::size_t>(n);
        }
        ::close(connection);
    }

    std::size_t limit_;
    int listener_ = -1;
    int port_ = 0;
    std::thread thread_;
};

// The process's peak resident memory so far, in MiB.
long peakMebibytes() {
    std::ifstream status("/proc/self/status");
    std::string line;
    while (std::getline(status, line)) {
        if (line.starts_with("VmHWM:")) {
            return std::stol(line.substr(6)) / 1024;
        }
    }
    return 0;
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

    RecordingDelegate::Outcome run(URLRequest r, std::shared_ptr<URLSessionDataTask>* taskOut = nullptr) {
        auto task = session->dataTask(std::move(r));
        task->resume();
        if (taskOut != nullptr) {
            *taskOut = task;
        }
        return delegate->wait(*task);
    }

    Watchdog watchdog{60s, "URL session test"};
    AccountServer server;
    std::shared_ptr<RecordingDelegate> delegate = std::make_shared<RecordingDelegate>();
    std::shared_ptr<URLSession> session;
};

TEST_F(URLSessionTest, SessionHeadersGoOnEveryRequestUnlessTheRequestSetsItsOwn) {
    auto own = request("/api/private/mobile_sdk/settings/app.json");
    own.setValue("text/plain", "accept");
    run(request("/api/private/mobile_sdk/settings/app.json"));
    run(own);
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 2u);
    EXPECT_EQ(seen[0].header("Accept"), "application/json");
    EXPECT_EQ(seen[0].header("User-Agent"), "Velmora-SDK/2.0.0");
    EXPECT_EQ(seen[1].header("Accept"), "text/plain");
    EXPECT_EQ(seen[1].header("User-Agent"), "Velmora-SDK/2.0.0");
    EXPECT_EQ(seen[0].header("Expect"), std::nullopt);

    // A server that sets a cookie never gets it back: the session keeps no cookies.
    server.script("GET", "/login",
                  {.status = 200, .body = "{}", .headers = {{"Set-Cookie", "session=abc; Path=/"}}});
    run(request("/login"));
    run(request("/after"));
    EXPECT_EQ(server.requests("GET", "/after").at(0).header("Cookie"), std::nullopt);
}

// Credentials and bodies stay at the origin they were meant for: what each server received, per redirect.
TEST_F(URLSessionTest, RedirectsCarryCredentialsAndBodiesOnlyWithinTheirOrigin) {
    AccountServer elsewhere;
    struct Case {
        std::string method;
        int status;
        bool away;
        bool followed;  // else: a URL error, and the landing server hears nothing
        std::string landingMethod;
    };
    const std::vector<Case> cases = {
        {"GET", 302, false, true, "GET"}, {"POST", 307, false, true, "POST"}, {"GET", 302, true, true, "GET"},
        {"POST", 303, true, true, "GET"}, {"POST", 307, true, false, ""},     {"PUT", 308, true, false, ""},
        {"DELETE", 301, true, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.method + " " + std::to_string(c.status) + (c.away ? " away" : " same"));
        auto& landing = c.away ? elsewhere : server;
        server.clearRequests();
        elsewhere.clearRequests();
        server.script("", "/from",
                      {.status = c.status, .headers = {{"Location", landing.url() + "/landing"}}});
        landing.script("", "/landing", {.status = 200, .body = "landed"});

        auto from = request("/from", c.method);
        from.setValue("Bearer secret", "Authorization");
        from.setValue("app-client", "Client-Identifier");
        from.setValue("session=1", "Cookie");
        if (c.method != "GET") {
            from.httpBody = Data::fromString(R"({"user":{"token":"the-jwt"}})");
        }
        const auto outcome = run(from);
        const auto landed = landing.requests("", "/landing");
        if (!c.followed) {
            ASSERT_TRUE(outcome.error.has_value());
            EXPECT_EQ(outcome.error->domain(), errors::urlDomain);
            EXPECT_TRUE(landed.empty()) << "the body went to another origin";
            continue;
        }
        ASSERT_FALSE(outcome.error.has_value()) << outcome.error->description();
        EXPECT_EQ(joined(outcome.chunks), "landed") << "the redirect's own body is nobody's answer";
        EXPECT_EQ(outcome.responseAtFirstChunk->url().absoluteString(), landing.url() + "/landing");
        ASSERT_EQ(landed.size(), 1u);
        EXPECT_EQ(landed[0].method, c.landingMethod);
        for (const char* credential : {"Authorization", "Client-Identifier", "Cookie"}) {
            EXPECT_EQ(landed[0].header(credential).has_value(), !c.away) << credential;
        }
        EXPECT_EQ(landed[0].body.empty(), c.landingMethod == "GET");
    }
}

TEST_F(URLSessionTest, AHeaderWithALineBreakOrNulIsNeverSent) {
    for (const std::string& value :
         {std::string("a\r\nX-Injected: yes"), std::string("a\nb"), std::string("a\0b", 3)}) {
        auto own = request("/api/private/mobile_sdk/settings/app.json");
        own.setValue(value, "Authorization");
        const auto outcome = run(own);
        ASSERT_TRUE(outcome.error.has_value());
        EXPECT_EQ(outcome.error->code(), errors::url::badURL);
        EXPECT_EQ(outcome.error->description().find("X-Injected"), std::string::npos)
            << "values are not shown";
    }
    URLSessionConfiguration configuration;
    configuration.httpAdditionalHeaders = {{"User-Agent", "x\r\nX-Injected: yes"}};
    const auto tainted = URLSession::make(configuration, delegate);
    auto task = tainted->dataTask(request("/api/private/mobile_sdk/settings/app.json"));
    task->resume();
    EXPECT_TRUE(delegate->wait(*task).error.has_value());
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(URLSessionTest, TheProcessProxyVariablesAreReadOnlyWhenTheHostAsksForThem) {
    AccountServer proxy;
    ::setenv("http_proxy", proxy.url().c_str(), 1);
    ::setenv("HTTP_PROXY", proxy.url().c_str(), 1);
    ::unsetenv("no_proxy");
    ::unsetenv("NO_PROXY");
    EXPECT_FALSE(run(request("/api/private/mobile_sdk/settings/app.json")).error.has_value());
    EXPECT_TRUE(proxy.requests().empty());
    EXPECT_EQ(server.requests().size(), 1u);

    environment.http.proxyFromEnvironment = true;
    reinstallEnvironment();
    run(request("/api/private/mobile_sdk/settings/app.json"));
    EXPECT_EQ(proxy.requests().size(), 1u) << "the host opted in";
}

// A 300 MB answer and an endless one both end at the size limit, and what came is released.
TEST_F(URLSessionTest, AnAnswerLargerThanTheLimitFailsAndCostsNoMoreThanTheLimit) {
    environment.http.maximumResponseBytes = 8 * 1024 * 1024;
    reinstallEnvironment();
    const auto before = peakMebibytes();
    for (const std::size_t limit : {std::size_t{300} << 20, std::size_t{0}}) {
        EndlessServer big(limit);
        const auto outcome = run(URLRequest(*URL::fromString(big.url())));
        ASSERT_TRUE(outcome.error.has_value()) << "a body of " << limit << " bytes was accepted";
        EXPECT_EQ(outcome.error->code(), errors::url::dataLengthExceedsMaximum);
    }
    // The delegate of this test keeps every chunk it was given, so the peak shows what was let in.
    // Generous, for sanitizer builds' overhead, and still far below what the 300 MB answer alone would add.
    EXPECT_LT(peakMebibytes() - before, 200) << "MiB of peak memory for answers cut at 8 MiB";
}

TEST_F(URLSessionTest, BrokenTransfersBecomeUrlErrorsNeverHangs) {
    server.script("GET", "/drop", {.status = 200, .drop = true});
    server.script("GET", "/truncated", {.status = 200, .body = "partial", .truncate = true});
    server.script("GET", "/stall", {.status = 200, .body = "late", .delay = 5s});

    const auto dropped = run(request("/drop"));
    ASSERT_TRUE(dropped.error.has_value());
    EXPECT_EQ(dropped.error->domain(), "NSURLErrorDomain");
    EXPECT_EQ(dropped.error->code(), errors::url::networkConnectionLost);

    const auto truncated = run(request("/truncated"));
    ASSERT_TRUE(truncated.error.has_value());
    EXPECT_EQ(truncated.error->code(), errors::url::networkConnectionLost);
    EXPECT_EQ(joined(truncated.chunks), "partial") << "what did arrive is still handed over";

    auto stalled = request("/stall");
    stalled.timeoutInterval = 1;
    const auto start = std::chrono::steady_clock::now();
    const auto timedOut = run(stalled);
    ASSERT_TRUE(timedOut.error.has_value());
    EXPECT_EQ(timedOut.error->code(), errors::url::timedOut);
    EXPECT_EQ(timedOut.error->localizedDescription(), "The request timed out.");
    EXPECT_LT(std::chrono::steady_clock::now() - start, 4s);

    const auto port = [] {
        AccountServer gone;
        return gone.url();
    }();
    URLRequest refused(*URL::fromString(port + "/anything"));
    const auto notListening = run(refused);
    ASSERT_TRUE(notListening.error.has_value());
    EXPECT_EQ(notListening.error->code(), errors::url::cannotConnectToHost);
}

TEST_F(URLSessionTest, UploadProgressAndCancellationAreReported) {
    auto upload = request("/api/mobile/users/me.json", "PUT");
    upload.httpBody = Data::fromString(std::string(512 * 1024, 'x'));
    upload.setValue("application/octet-stream", "Content-Type");
    const auto uploaded = run(upload);
    ASSERT_FALSE(uploaded.error.has_value()) << uploaded.error->description();
    ASSERT_FALSE(uploaded.sent.empty());
    std::int64_t sum = 0;
    for (const auto& [bytes, total, expected] : uploaded.sent) {
        sum += bytes;
        EXPECT_EQ(total, sum);
        EXPECT_EQ(expected, 512 * 1024);
    }
    EXPECT_EQ(sum, 512 * 1024);
    ASSERT_EQ(server.requests().size(), 1u);
    EXPECT_EQ(server.requests().back().body.size(), 512u * 1024);

    server.script("GET", "/slow", {.status = 200, .body = "x", .delay = 5s});
    auto task = session->dataTask(request("/slow"));
    task->resume();
    ASSERT_TRUE(server.waitForRequests(2));
    task->cancel();
    const auto cancelled = delegate->wait(*task);
    ASSERT_TRUE(cancelled.error.has_value());
    EXPECT_EQ(cancelled.error->code(), errors::url::cancelled);
    EXPECT_NE(session->dataTask(request("/x"))->taskIdentifier(), task->taskIdentifier());
}

TEST_F(URLSessionTest, InvalidatingFinishesRunningTasksThenReports) {
    server.script("GET", "/slow", {.status = 200, .body = "done", .delay = 200ms});
    auto task = session->dataTask(request("/slow"));
    task->resume();
    session->finishTasksAndInvalidate();
    const auto outcome = delegate->wait(*task);
    EXPECT_EQ(joined(outcome.chunks), "done");
    EXPECT_TRUE(delegate->waitInvalidated());
    const auto late = run(request("/slow"));
    ASSERT_TRUE(late.error.has_value()) << "an invalidated session starts nothing new";
}

TEST_F(URLSessionTest, TlsPeersAreVerifiedAgainstTheConfiguredAuthorities) {
    const auto cert = root / "cert.pem";
    const auto key = root / "key.pem";
    const std::string make =
        "openssl req -x509 -newkey rsa:2048 -nodes -days 1 -subj /CN=127.0.0.1 "
        "-addext subjectAltName=IP:127.0.0.1 -keyout " +
        key.string() + " -out " + cert.string() + " >/dev/null 2>&1";
    ASSERT_EQ(std::system(make.c_str()), 0) << "openssl could not make a test certificate";
    AccountServer secure({.certificate = cert, .privateKey = key});
    ASSERT_TRUE(secure.url().starts_with("https://127.0.0.1:"));

    const auto untrusted =
        run(URLRequest(*URL::fromString(secure.url() + "/api/private/mobile_sdk/settings/a.json")));
    ASSERT_TRUE(untrusted.error.has_value()) << "a self-signed peer must not be trusted by default";
    EXPECT_TRUE(untrusted.error->code() == errors::url::serverCertificateUntrusted ||
                untrusted.error->code() == errors::url::secureConnectionFailed)
        << untrusted.error->description();
    EXPECT_TRUE(secure.requests().empty());

    environment.http.caBundle = cert;
    reinstallEnvironment();
    const auto trusted =
        run(URLRequest(*URL::fromString(secure.url() + "/api/private/mobile_sdk/settings/a.json")));
    EXPECT_FALSE(trusted.error.has_value()) << trusted.error->description();
    EXPECT_EQ(trusted.responseAtFirstChunk->statusCode(), 200);
    ASSERT_EQ(secure.requests().size(), 1u);

    // https never leads to http, not even on the same host.
    secure.script("GET", "/down", {.status = 302, .headers = {{"Location", server.url() + "/landing"}}});
    const auto downgraded = run(URLRequest(*URL::fromString(secure.url() + "/down")));
    ASSERT_TRUE(downgraded.error.has_value());
    EXPECT_EQ(downgraded.error->code(), errors::url::secureConnectionRequired);
    EXPECT_TRUE(server.requests().empty());

    // The certificate names 127.0.0.1, not localhost: the host name is checked too.
    const auto wrongName =
        run(URLRequest(*URL::fromString("https://localhost:" + std::to_string(secure.port()) + "/x")));
    ASSERT_TRUE(wrongName.error.has_value());
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
    EXPECT_EQ(HTTPURLResponse::localizedString(404), "not found");
    EXPECT_EQ(HTTPURLResponse::localizedString(200), "no error");
    EXPECT_EQ(HTTPURLResponse::localizedString(418), "client error");
}

}  // namespace
}  // namespace velmora::testing
