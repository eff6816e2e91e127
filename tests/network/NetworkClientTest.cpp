#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/NetworkClient.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <tuple>

#include "tests/support/ServerTest.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/DeviceFacts.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueue;
using platform::URLRequest;

// What one exchange delivered, and where.
struct Outcome {
    std::optional<Data> data;
    std::shared_ptr<const platform::HTTPURLResponse> response;
    std::optional<Error> error;
    std::thread::id thread;
    bool onServiceQueue = false;
};

// A completion that hands what it got to `outcome`, noting whether it ran on `expectedQueue`.
TaskCompletion handler(Awaited<Outcome>& outcome, DispatchQueue expectedQueue) {
    return [deliver = outcome.callback(), expectedQueue](const auto& data, const auto& response,
                                                         const auto& error) {
        deliver(Outcome{data, response, error, std::this_thread::get_id(), expectedQueue.isCurrent()});
    };
}

// Counts the requests it sees and keeps the chunks of the answers (on the session's thread only, before the
// completion that the test waits for). A failing one fails a request with code 42 and throws at an answer, as
// a careless kit's may.
struct RecordingInterceptor : RequestInterceptor, HTTPResponseInterceptor {
    RecordingInterceptor(std::string label, bool failing = false) : name(std::move(label)), fails(failing) {}
    Result<URLRequest> intercept(Result<URLRequest> request, const platform::DispatchGroup&) override {
        calls++;
        return fails ? Result<URLRequest>::error(Error("com.velmora.tests", 42)) : request;
    }
    void intercept(const std::optional<Data>& data, const std::shared_ptr<const platform::HTTPURLResponse>&,
                   const std::optional<Error>&) override {
        if (fails) {
            throw std::runtime_error("kit");
        }
        chunks.push_back(data ? data->toString() : "<none>");
    }
    std::string description() const override { return name; }
    std::string name;
    bool fails;
    std::atomic<int> calls{0};
    std::vector<std::string> chunks;
};

class NetworkClientTest : public ServerTest {
  protected:
    NetworkClientTest() { CoreLogger::setLogLevel(LogLevel::verbose); }
    ~NetworkClientTest() override { ExecutorConfig::setExecutor(nullptr); }
    ProviderService service(const std::string& path, HttpMethod method = HttpMethod::get,
                            std::vector<std::shared_ptr<RequestInterceptor>> requestInterceptors = {},
                            std::vector<std::shared_ptr<HTTPResponseInterceptor>> responseInterceptors = {},
                            Reporter reporter = Reporter::none(), std::optional<Data> body = std::nullopt) {
        return ProviderService(details, resourceURL(details->accountUrl(), path).value(), false, method, {},
                               std::move(body), callbackQueue,
                               Interceptors{std::move(requestInterceptors), std::move(responseInterceptors),
                                            interceptorQueue(), platform::DispatchGroup()},
                               std::move(reporter));
    }
    Outcome perform(const ProviderService& s) {
        Awaited<Outcome> outcome;
        s.perform(handler(outcome, callbackQueue));
        return outcome.wait();
    }
    DispatchQueue callbackQueue{"com.velmora.tests.callbacks"};
};

// What a 401 wipes is checked through the user provider; here, that each chunk is intercepted on its own. The
// client identifier's header is checked through the facade, with odd client ids, by HostileInputTest.
TEST_F(NetworkClientTest, ARequestCarriesTheSharedHeadersAndItsChunksArriveWholeWhileInterceptorsSeeEachOne) {
    const std::vector<std::string> chunks = {"{\"error\":", "\"Unauthorized\"", "}"};
    server.script("GET", "/api/mobile/users/me.json", {.status = 401, .chunks = chunks, .chunkDelay = 250ms});
    const auto counting = std::make_shared<RecordingInterceptor>("Counting");
    const auto outcome = perform(service("/api/mobile/users/me.json", HttpMethod::get, {},
                                         {counting, std::make_shared<InvalidResponseInterceptor>("app")}));
    EXPECT_EQ(std::tuple(outcome.data.value_or(Data()).toString(), outcome.onServiceQueue, counting->chunks),
              std::tuple(R"({"error":"Unauthorized"})", true, chunks));
    for (const std::string suite : {"session", "identity"}) {
        const auto line = "[DEBUG]: clearing storage suite: com.velmora.core." + suite + " with app id: app.";
        EXPECT_EQ(logs->count(line), 3u) << line;
    }
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1u);
    for (const auto& [name, value] : SharedHeaders::sharedHeaders("2.0.0", "Core")) {
        EXPECT_EQ(seen[0].header(name), value) << name;
    }
    callbackQueue.sync([] {});  // the handler is removed right after the completion, in the same block
    EXPECT_EQ(NetworkClient::defaultClient().taskHandlerManager().count(), 0u);
    details = std::make_shared<ApplicationConfiguration>("app", "client", "http://127.0.0.1:1");
    const auto refused = perform(service("/api/mobile/users/me.json", HttpMethod::get, {}, {counting}));
    EXPECT_TRUE(refused.error && !refused.response);
    EXPECT_EQ(counting->chunks.size(), 3u) << "a transport error before any response is not intercepted";
}

// Host code run on the session's thread: the callback reporter gets the expected total, then the sent one,
// before the task completes (so they are read once the completion has run). Such code that throws (a
// reporter, a kit's response interceptor) ends its own request with an error; a completion that throws still
// lets its request count as done.
TEST_F(NetworkClientTest, AReporterGetsBothTotalsAndHostCodeThatThrowsEndsOnlyItsOwnRequest) {
    std::vector<std::pair<std::int64_t, std::int64_t>> reports;
    const std::int64_t size = 300 * 1024;
    const auto body = Data::fromString(std::string(size, 'b'));
    const auto reporter = Reporter::callback(
        [&](std::int64_t expected, std::int64_t sent) { reports.emplace_back(expected, sent); });
    EXPECT_FALSE(perform(service("/upload", HttpMethod::put, {}, {}, reporter, body)).error.has_value());
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), std::pair(size, size));
    for (std::size_t i = 1; i < reports.size(); ++i) {
        EXPECT_GT(reports[i].second, reports[i - 1].second);
    }

    const auto throwing = Reporter::callback([](std::int64_t, std::int64_t) { throw 7; });
    const auto kit = std::make_shared<RecordingInterceptor>("Kit", true);
    for (const auto& thrower : {service("/upload", HttpMethod::put, {}, {}, throwing, body),
                                service("/x", HttpMethod::get, {}, {kit})}) {
        const auto outcome = perform(thrower);
        EXPECT_EQ(outcome.error ? outcome.error->code() : 0, errors::url::unknown);
    }
    EXPECT_EQ(logs->linesStartingWith("URLSession: the delegate failed").size(), 2u);
    service("/x").perform([](auto&&...) { throw std::runtime_error("host"); });
    EXPECT_TRUE(PendingRequests::waitUntilDrained(5s));
    EXPECT_FALSE(perform(service("/x")).error.has_value()) << "the session goes on";
}

TEST_F(NetworkClientTest, AFailingInterceptorHaltsTheChainSendsNothingAndAnswersOnTheExecutingThread) {
    const auto second = std::make_shared<RecordingInterceptor>("SecondInterceptor");
    auto failing =
        service("/never", HttpMethod::get, {std::make_shared<RecordingInterceptor>("Failing", true), second});
    Awaited<Outcome> completion;
    std::thread::id executing;
    DispatchQueue("com.velmora.tests.executor").sync([&] {
        executing = std::this_thread::get_id();
        NetworkClient::defaultClient().execute(failing, callbackQueue, handler(completion, callbackQueue));
    });
    const auto& outcome = completion.wait();
    // The error, the thread and queue it came on, the calls of the next interceptor, the requests sent.
    EXPECT_EQ(std::tuple(outcome.error ? outcome.error->code() : 0, outcome.thread, outcome.onServiceQueue,
                         second->calls.load(), server.requests().size()),
              std::tuple(42, executing, false, 0, 0u));
    EXPECT_EQ(logs->linesStartingWith("[VERBOSE]: Halting ").size(), 1u);
    EXPECT_EQ(logs->linesStartingWith("[VERBOSE]: Halting SecondInterceptor with error: ").size(), 1u);
    EXPECT_TRUE(logs->contains("[VERBOSE]: Calling interceptor Failing"));
}

TEST_F(NetworkClientTest, AReplacedExecutorGetsEveryPerformEachPendingUntilItsCompletionOrItsDrop) {
    struct Holding : ExecutorType {
        void perform(const ProviderService& s, TaskCompletion callback) override {
            paths.push_back(s.urlComponent.absoluteString());
            held.push_back(callback);
        }
        std::vector<std::string> paths;
        std::vector<TaskCompletion> held;
    };
    const auto holding = std::make_shared<Holding>();
    ExecutorConfig::setExecutor(holding);
    std::vector<std::string> delivered;
    for (int i = 0; i < 3; ++i) {
        service("/held", HttpMethod::post).perform([&](const std::optional<Data>& data, auto&&...) {
            delivered.push_back(data ? data->toString() : "<none>");
        });
    }
    // Each one handed over, none sent, all three pending.
    EXPECT_EQ(std::tuple(holding->paths, server.requests().size(), PendingRequests::count(),
                         PendingRequests::waitUntilDrained(20ms)),
              std::tuple(std::vector<std::string>(3, server.url() + "/held"), 0u, 3u, false));
    holding->held[0](Data::fromString("diverted"), nullptr, std::nullopt);
    holding->held[0](std::nullopt, nullptr, std::nullopt);
    EXPECT_EQ(PendingRequests::count(), 2u) << "a completion called twice counts once";
    holding->held.erase(holding->held.begin() + 1);
    EXPECT_EQ(PendingRequests::count(), 1u) << "a dropped completion no longer counts";
    holding->held.clear();
    EXPECT_TRUE(PendingRequests::waitUntilDrained(0ms));
    EXPECT_EQ(delivered, (std::vector<std::string>{"diverted", "<none>"})) << "what the executor handed over";
    service("/held").perform([](auto&&...) {});
    Awaited<bool> drained;
    DispatchQueue::main().async([&] { drained.callback()(PendingRequests::waitUntilDrained(5s)); });
    EXPECT_FALSE(drained.wait()) << "the main queue would wait for itself";
    EXPECT_TRUE(logs->contains(
        "[ERROR]: Waiting for pending requests on the main queue would block their completions."));
}

TEST_F(NetworkClientTest, AnInvalidatedSessionIsLoggedAsAnOptional) {
    NetworkClient client(platform::URLSessionConfiguration::defaultConfiguration(),
                         std::make_shared<SessionDelegate>());
    client.session()->finishTasksAndInvalidate();
    EXPECT_TRUE(eventually([&] { return logs->contains("[ERROR]: Session error : nil"); }));
}

TEST(RequestDescriptionTest, MethodsHeadersAndUrlsFollowTheirFixedForms) {
    EXPECT_EQ(httpMethodFromRawValue("DELETE"), HttpMethod::delete_);
    EXPECT_EQ(httpMethodFromRawValue("get"), std::nullopt);
    struct Fixed : platform::LinuxDeviceFacts {
        std::string systemName() const override { return "iOS"; }
        std::string systemVersion() const override { return "12.1"; }
        std::vector<std::string> preferredLanguages() const override { return languages; }
        std::vector<std::string> languages;
    };
    auto facts = std::make_shared<Fixed>();
    auto env = platform::Environment::linuxDefaults("velmora-tests");
    env.deviceFacts = facts;
    platform::Environment::install(env);
    // Every request carries these: the wire check above compares against this function.
    EXPECT_EQ(SharedHeaders::sharedHeaders("2.0.0", "Core"),
              (platform::HTTPHeaderFields{{"Content-Type", "application/json"},
                                          {"Accept", "application/json"},
                                          {"User-Agent", "Velmora-SDK/2.0.0 iOS/12.1 Variant/Core"},
                                          {"X-Velmora-Client", "mobile/ios/sdk/core"},
                                          {"X-Velmora-Client-Version", "2.0.0"}}));
    EXPECT_TRUE(acceptLanguageHeader().empty());
    facts->languages = {"en-GB", "fr"};
    EXPECT_EQ(acceptLanguageHeader(), (std::map<std::string, std::string>{{"Accept-Language", "en-gb"}}));
    EXPECT_EQ(resourceURL("https://acme.velmora.com/", "/api/mobile/users/me.json").value().absoluteString(),
              "https://acme.velmora.com//api/mobile/users/me.json");
    const auto unformed = resourceURL("not a url", "/access/sdk/jwt");
    ASSERT_TRUE(unformed.isError()) << "a URL error, never a stopped process";
    EXPECT_EQ(unformed.error().code(), errors::url::badURL);
    EXPECT_NE(unformed.error().description().find("/access/sdk/jwt"), std::string::npos);
    const auto first = interceptorQueue().label();
    EXPECT_THAT(first, ::testing::MatchesRegex(R"(com\.velmora\.core\.interceptor-queue\.[0-9A-F-]{36})"));
    EXPECT_NE(first, interceptorQueue().label());
}

}  // namespace
}  // namespace velmora::testing
