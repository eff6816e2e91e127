#include "velmora/network/AccountInterceptors.h"
#include "velmora/network/NetworkClient.h"

#include <gtest/gtest.h>

#include <mutex>
#include <regex>
#include <thread>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/DeviceFacts.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using platform::DispatchQueue;
using platform::HTTPURLResponse;
using platform::URLRequest;

// What one exchange delivered, and where.
struct Outcome {
    std::optional<Data> data;
    std::shared_ptr<const HTTPURLResponse> response;
    std::optional<Error> error;
    std::thread::id thread;
    bool onServiceQueue = false;
};

// A completion that hands what it got to `outcome`, noting whether it ran on `expectedQueue`.
TaskCompletion handler(Awaited<Outcome>& outcome, std::optional<DispatchQueue> expectedQueue = std::nullopt) {
    return [deliver = outcome.callback(), expectedQueue](
               const std::optional<Data>& data, const std::shared_ptr<const HTTPURLResponse>& response,
               const std::optional<Error>& error) {
        deliver(Outcome{data, response, error, std::this_thread::get_id(),
                        expectedQueue && expectedQueue->isCurrent()});
    };
}

struct CountingResponseInterceptor : HTTPResponseInterceptor {
    void intercept(const std::optional<Data>& data, const std::shared_ptr<const HTTPURLResponse>&,
                   const std::optional<Error>&) override {
        std::lock_guard lock(mutex);
        chunks.push_back(data ? data->toString() : "<none>");
    }
    std::mutex mutex;
    std::vector<std::string> chunks;
};

// Counts its calls; a failing one fails the request with code 42.
struct RecordingInterceptor : RequestInterceptor {
    RecordingInterceptor(std::string label, bool failing = false) : name(std::move(label)), fails(failing) {}
    Result<URLRequest> intercept(Result<URLRequest> request, const platform::DispatchGroup&) override {
        calls++;
        return fails ? Result<URLRequest>::error(Error("com.velmora.tests", 42)) : request;
    }
    std::string description() const override { return name; }
    std::string name;
    bool fails;
    std::atomic<int> calls{0};
};

class NetworkClientTest : public LibraryTest {
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
    Watchdog watchdog{60s, "network client test"};
    mock::AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details =
        std::make_shared<ApplicationConfiguration>("app", "client-7", server.url());
    DispatchQueue callbackQueue{"com.velmora.tests.callbacks"};
};

TEST_F(NetworkClientTest, ChunksArriveWholeWhileResponseInterceptorsSeeEachOneAndNothingWithoutAResponse) {
    server.script("GET", "/chunks", {.status = 200, .chunks = {"[1,", "2,", "3]"}, .chunkDelay = 250ms});
    const auto counting = std::make_shared<CountingResponseInterceptor>();
    const auto outcome = perform(service("/chunks", HttpMethod::get, {}, {counting}));
    ASSERT_TRUE(outcome.data.has_value());
    EXPECT_EQ(outcome.data->toString(), "[1,2,3]");
    EXPECT_TRUE(outcome.onServiceQueue);
    EXPECT_EQ(counting->chunks, (std::vector<std::string>{"[1,", "2,", "3]"}));
    callbackQueue.sync([] {});  // the handler is removed right after the completion, in the same block
    EXPECT_EQ(NetworkClient::defaultClient().taskHandlerManager().count(), 0u);
    details = std::make_shared<ApplicationConfiguration>("app", "client-7", "http://127.0.0.1:1");
    const auto refused = perform(service("/chunks", HttpMethod::get, {}, {counting}));
    EXPECT_TRUE(refused.error && !refused.response);
    EXPECT_EQ(counting->chunks.size(), 3u) << "a transport error before any response is not intercepted";
}

TEST_F(NetworkClientTest, A401InThreeChunksClearsTheStoresThreeTimes) {
    const SessionStore session("app");
    ASSERT_TRUE(session.store(PropertyValue("tok"), "pushToken"));
    server.script("GET", "/api/mobile/users/me.json",
                  {.status = 401, .chunks = {"{\"error\":", "\"Unauthorized\"", "}"}, .chunkDelay = 250ms});
    logs->clear();
    const auto outcome = perform(service("/api/mobile/users/me.json", HttpMethod::get, {},
                                         {std::make_shared<InvalidResponseInterceptor>("app")}));
    EXPECT_EQ(outcome.response->statusCode(), 401);
    EXPECT_EQ(session.pushToken(), std::nullopt);
    for (const std::string suite : {"session", "identity"}) {
        EXPECT_EQ(
            logs->count("[DEBUG]: clearing storage suite: com.velmora.core." + suite + " with app id: app."),
            3u);
    }
}

TEST_F(NetworkClientTest, AbsentAndEmptyBodiesStayDistinct) {
    server.script("DELETE", "/gone", {.status = 204});
    server.script("GET", "/empty", {.status = 200});
    EXPECT_EQ(perform(service("/gone", HttpMethod::delete_)).data, std::nullopt);
    const auto empty = perform(service("/empty"));
    ASSERT_TRUE(empty.data.has_value());
    EXPECT_TRUE(empty.data->empty());
}

TEST_F(NetworkClientTest, TheCallbackReporterGetsTheExpectedTotalThenTheSentTotal) {
    std::mutex mutex;
    std::vector<std::pair<std::int64_t, std::int64_t>> reports;
    const std::int64_t size = 300 * 1024;
    const auto outcome = perform(service("/upload", HttpMethod::put, {}, {},
                                         Reporter::callback([&](std::int64_t expected, std::int64_t sent) {
                                             std::lock_guard lock(mutex);
                                             reports.emplace_back(expected, sent);
                                         }),
                                         Data::fromString(std::string(size, 'b'))));
    EXPECT_FALSE(outcome.error.has_value());
    std::lock_guard lock(mutex);
    ASSERT_FALSE(reports.empty());
    EXPECT_EQ(reports.back(), std::make_pair(size, size));
    for (std::size_t i = 1; i < reports.size(); ++i) {
        EXPECT_GT(reports[i].second, reports[i - 1].second);
    }
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
    const auto outcome = completion.wait();
    ASSERT_TRUE(outcome.error.has_value());
    EXPECT_EQ(outcome.error->code(), 42);
    EXPECT_EQ(outcome.thread, executing);
    EXPECT_FALSE(outcome.onServiceQueue);
    EXPECT_EQ(second->calls.load(), 0);
    EXPECT_TRUE(server.requests().empty());
    const auto halting = logs->linesStartingWith("[VERBOSE]: Halting ");
    ASSERT_EQ(halting.size(), 1u);
    EXPECT_TRUE(halting[0].starts_with("[VERBOSE]: Halting SecondInterceptor with error: ")) << halting[0];
    EXPECT_TRUE(logs->contains("[VERBOSE]: Calling interceptor Failing"));
}

TEST_F(NetworkClientTest, EveryRequestCarriesTheSharedHeadersAndTheClientIdentifier) {
    auto s = service("/api/private/mobile_sdk/settings/app.json", HttpMethod::get,
                     {std::make_shared<ClientIdentifierInterceptor>(details)});
    EXPECT_EQ(NetworkClient::intercept(s.request(), s.interceptors).value().allHTTPHeaderFields,
              (platform::HTTPHeaderFields{{"Client-Identifier", "client-7"}}));
    perform(s);
    const auto seen = server.requests();
    ASSERT_EQ(seen.size(), 1u);
    for (const auto& [name, value] :
         std::map<std::string, std::string>{{"Client-Identifier", "client-7"},
                                            {"Content-Type", "application/json"},
                                            {"Accept", "application/json"},
                                            {"X-Velmora-Client-Version", "2.0.0"},
                                            {"User-Agent", SharedHeaders::userAgentHeader("2.0.0", "Core")},
                                            {"X-Velmora-Client", SharedHeaders::clientHeader("Core")}}) {
        EXPECT_EQ(seen[0].header(name), value) << name;
    }
}

TEST_F(NetworkClientTest, ReplacingTheExecutorDivertsEveryPerform) {
    struct Diverting : ExecutorType {
        void perform(const ProviderService& s, TaskCompletion callback) override {
            paths.push_back(s.urlComponent.absoluteString());
            callback(Data::fromString("diverted"), nullptr, std::nullopt);
        }
        std::vector<std::string> paths;
    };
    const auto diverting = std::make_shared<Diverting>();
    ExecutorConfig::setExecutor(diverting);
    Awaited<Outcome> outcome;
    service("/one", HttpMethod::post).perform(handler(outcome));
    EXPECT_EQ(outcome.wait().data->toString(), "diverted");
    EXPECT_EQ(diverting->paths, std::vector<std::string>{server.url() + "/one"});
    EXPECT_TRUE(server.requests().empty());
}

TEST_F(NetworkClientTest, PendingRequestsEndWithTheirCompletionOrWhenAnExecutorDropsThem) {
    struct Holding : ExecutorType {
        void perform(const ProviderService&, TaskCompletion callback) override { held.push_back(callback); }
        std::vector<TaskCompletion> held;
    };
    const auto holding = std::make_shared<Holding>();
    ExecutorConfig::setExecutor(holding);
    int completions = 0;
    for (int i = 0; i < 3; ++i) {
        service("/held").perform([&](auto&&...) { ++completions; });
    }
    EXPECT_EQ(PendingRequests::count(), 3u);
    EXPECT_FALSE(PendingRequests::waitUntilDrained(20ms));
    holding->held[0](std::nullopt, nullptr, std::nullopt);
    holding->held[0](std::nullopt, nullptr, std::nullopt);
    EXPECT_EQ(PendingRequests::count(), 2u) << "a completion called twice counts once";
    holding->held.erase(holding->held.begin() + 1);
    EXPECT_EQ(PendingRequests::count(), 1u) << "a dropped completion no longer counts";
    holding->held.clear();
    EXPECT_TRUE(PendingRequests::waitUntilDrained(0ms));
    EXPECT_EQ(completions, 2);
    ExecutorConfig::setExecutor(holding);
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
    EXPECT_TRUE(logs->waitFor("[ERROR]: Session error : nil"));
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
    EXPECT_EQ(SharedHeaders::userAgentHeader("2.0.0", "Core"), "Velmora-SDK/2.0.0 iOS/12.1 Variant/Core");
    EXPECT_EQ(SharedHeaders::clientHeader("Core"), "mobile/ios/sdk/core");
    EXPECT_EQ(SharedHeaders::sharedHeaders("2.0.0", "Core").size(), 5u);
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
    EXPECT_TRUE(
        std::regex_match(first, std::regex("^com\\.velmora\\.core\\.interceptor-queue\\.[0-9A-F-]{36}$")))
        << first;
    EXPECT_NE(first, interceptorQueue().label());
}

}  // namespace
}  // namespace velmora::testing
