#include "velmora/network/AccessProvider.h"
#include "velmora/network/AccountInterceptors.h"

#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <tuple>

#include "tests/support/ServerTest.h"
#include "velmora/network/LoginInterceptors.h"
#include "velmora/network/NetworkClient.h"
#include "velmora/network/PendingRequests.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using platform::URLRequest;

Result<Access> decodeAccess(const std::string& text) {
    return Access::decode(Data::fromString(text));
}

TEST(AccessRecordsTest, TheUserIdIsStrictDecimalText) {
    const auto text = R"({"authentication": {"access_token": "t", "user_id": "42"}})";
    EXPECT_EQ(decodeAccess(text).value().toJson(), json::parse(text));  // the user id, written back as read
    EXPECT_EQ(decodeAccess(R"({"authentication": {"access_token": "t", "user_id": 42}})").error().domain(),
              "NSCocoaErrorDomain");
    const auto tooBig =
        decodeAccess(R"({"authentication": {"access_token": "t", "user_id": "9223372036854775808"}})")
            .error();
    EXPECT_EQ(std::pair(tooBig.domain(), tooBig.code()),
              std::pair(std::string("VelmoraCoreSDK.Authentication.AuthenticationError"), std::int64_t{0}));
    EXPECT_TRUE(decodeAccess(R"({"authentication": {"user_id": "1"}})").isError());
    EXPECT_TRUE(decodeAccess("").isError()) << "an empty body fails in the decoder";

    EXPECT_EQ(parseDecimalInt64("-9223372036854775808"), std::numeric_limits<std::int64_t>::min());
    EXPECT_EQ(parseDecimalInt64("9223372036854775807"), std::numeric_limits<std::int64_t>::max());
    EXPECT_EQ(parseDecimalInt64("+7"), 7);
    for (const char* bad : {"", "+", "-", " 7", "7 ", "0x10", "1e3", "--1", "12a"}) {
        EXPECT_EQ(parseDecimalInt64(bad), std::nullopt) << bad;
    }
}

class AccessTest : public ServerTest {
  protected:
    Result<Access> getAccess() {
        return await<Result<Access>>([&](auto cb) { AccessProvider(details).getAccess(cb); });
    }
    ProviderService authenticated() {  // through the login, authorisation and client identifier interceptors
        std::vector<std::shared_ptr<RequestInterceptor>> chain{
            std::make_shared<LoginRequestInterceptor>(*identity, std::make_shared<AccessProvider>(details)),
            std::make_shared<AuthRequestInterceptor>(*identity),
            std::make_shared<ClientIdentifierInterceptor>(details)};
        return ProviderService(
            details, resourceURL(details->accountUrl(), "/api/mobile/users/me.json").value(), true,
            HttpMethod::get, {}, std::nullopt, platform::DispatchQueue("com.velmora.tests.callbacks"),
            Interceptors{std::move(chain), {}, interceptorQueue(), platform::DispatchGroup()});
    }
    // Sends `count` requests through that chain and waits for them all: how many ended with an error, and how
    // many were answered with a 200. By default the watchdog ends a hang before the wait does.
    std::pair<int, int> sendRequests(int count, std::chrono::milliseconds limit = 10min) {
        std::atomic<int> failed{0}, answered{0};
        for (int i = 0; i < count; ++i) {
            authenticated().perform([&](const auto&, const auto& response, const auto& error) {
                failed += error.has_value();
                answered += response && response->statusCode() == 200;
            });
        }
        EXPECT_TRUE(PendingRequests::waitUntilDrained(limit)) << "a request was left waiting";
        return {failed.load(), answered.load()};
    }
};

TEST_F(AccessTest, TheAccessCallPostsTheIdentityAndAnswersOnTheMainQueueOrAtOnceWithCode100WithoutOne) {
    Awaited<Result<Access>> none;
    AccessProvider(details).getAccess(none.callback());
    // Its domain and code are checked through the C interface's session.
    ASSERT_TRUE(none.arrived() && none.wait().isError()) << "before getAccess returned";
    EXPECT_TRUE(logs->contains("[ERROR]: Login error : No identity, aborting access call"));
    EXPECT_TRUE(server.requests().empty());

    identity->store(Identity::createAnonymous());
    identity->storeGuid(std::nullopt);
    Awaited<Result<Access>> anonymous;
    AccessProvider(details).getAccess(anonymous.callback());
    ASSERT_TRUE(anonymous.wait().isSuccess());
    const auto posted = server.requests("POST", "/access/sdk/anonymous").at(0);
    // Answered on the main queue; what was posted; and no token stored, as the provider stores nothing.
    EXPECT_EQ(std::tuple(anonymous.onMain(), posted.body, posted.header("Client-Identifier"),
                         posted.header("Authorization"), identity->oauthToken()),
              std::tuple(true, R"({"user":{}})", "client", std::nullopt, std::nullopt));

    identity->store(Identity::createJwt("jwt-T"));
    identity->storeGuid("STRAY-GUID");
    ASSERT_TRUE(getAccess().isSuccess());
    EXPECT_EQ(server.requests("POST", "/access/sdk/jwt").at(0).body, R"({"user":{"token":"jwt-T"}})");

    server.script("POST", "/access/sdk/jwt",
                  {.status = 403, .body = R"({"error": "Forbidden", "HTTP Status code": "x"})"});
    EXPECT_EQ(getAccess().error().userInfo(), json::parse(R"({"error": "Forbidden", "HTTP Status code": "x",
                                                               "NSLocalizedDescription": "forbidden"})"))
        << "the server's fields overwrite ours";
}

// Inside a chain the first error halts it: the login interceptor only meets a failure when called directly.
TEST_F(AccessTest, TheLoginInterceptorLogsInEvenAfterAFailureAndTheBearerReplacesTheCallersAuthorization) {
    identity->store(Identity::createJwt("jwt-T"));
    LoginRequestInterceptor login(*identity, std::make_shared<AccessProvider>(details));
    const auto earlier = Result<URLRequest>::error(Error("com.velmora.tests.earlier", 7));
    EXPECT_EQ(login.intercept(earlier, {}).error().domain(), "com.velmora.tests.earlier") << "earlier wins";
    EXPECT_TRUE(identity->oauthToken().has_value()) << "the access call was made and stored";

    identity->update(IdentityStore::authTokenKey, PropertyValue(Data()));  // not text: no token
    server.script("POST", "/access/sdk/jwt", {.status = 500});
    const auto accessWins = login.intercept(earlier, {}).error();
    EXPECT_EQ(std::pair(accessWins.domain(), accessWins.code()),
              std::pair(std::string("com.velmora.sdk.core"), std::int64_t{1000}));
    EXPECT_EQ(server.requests("POST", "/access/sdk/jwt").size(), 2u);
    const auto sent = server.requests().size();

    identity->update(IdentityStore::authTokenKey, "abc");
    URLRequest request(*platform::URL::fromString(server.url() + "/x"));
    request.setValue("Basic old", "authorization");
    const auto result = AuthRequestInterceptor(*identity).intercept(Result<URLRequest>::success(request), {});
    EXPECT_EQ(result.value().value("Authorization"), "Bearer abc");
    EXPECT_EQ(result.value().allHTTPHeaderFields.size(), 1u);
    EXPECT_EQ(AuthRequestInterceptor(*identity).intercept(earlier, {}).error(), earlier.error());
    EXPECT_EQ(login.intercept(earlier, {}).error(), earlier.error())
        << "with a token the login interceptor passes even a failure through untouched";
    EXPECT_EQ(server.requests().size(), sent);
}

// A burst of chains without a token shares one access call: its token, or its error (logged by every chain).
TEST_F(AccessTest, ABurstWithoutATokenLogsInOnceAndEveryRequestSharesTheOutcome) {
    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    constexpr int requests = 200;
    // Slow enough that the whole burst has started before the login ends.
    server.script("POST", "/access/sdk/anonymous",
                  {.status = 500, .body = R"({"error": "busy"})", .delay = 300ms});
    EXPECT_EQ(sendRequests(requests), std::pair(requests, 0));
    EXPECT_EQ(server.requests("POST", "/access/sdk/anonymous").size(), 1u);
    EXPECT_EQ(logs->linesStartingWith("[ERROR]: Login error : ").size(), static_cast<std::size_t>(requests));

    CoreLogger::setEnabled(false);  // 200 chains' worth of lines would only slow the rest
    server.script("POST", "/access/sdk/anonymous",
                  {.status = 201,
                   .body = R"({"authentication": {"access_token": "t", "user_id": "7"}})",
                   .delay = 300ms});
    // The account would not know the scripted token.
    server.script("GET", "/api/mobile/users/me.json", {.status = 200, .body = "{}", .times = requests});
    EXPECT_EQ(sendRequests(requests), std::pair(0, requests));
    EXPECT_EQ(server.requests("GET", "/api/mobile/users/me.json").back().header("Authorization"), "Bearer t");
    EXPECT_EQ(server.requests("POST", "/access/sdk/anonymous").size(), 2u) << "one login for the whole burst";
}

// A host's executor that drops the access call, or throws on it, fails the requests waiting for the login
// instead of leaving them, and every later one, waiting for good.
TEST_F(AccessTest, AnAccessCallTheHostsExecutorDropsOrThrowsOnFailsTheRequestsWaitingForIt) {
    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    struct Sabotaging : ExecutorType {
        explicit Sabotaging(bool throwing) : throws(throwing) {}
        void perform(const ProviderService& service, TaskCompletion callback) override {
            if (!service.urlComponent.absoluteString().ends_with("/access/sdk/anonymous")) {
                DefaultRequestExecutor().perform(service, std::move(callback));
            } else if (throws) {
                throw std::runtime_error("executor");
            }
        }
        bool throws;
    };
    for (const bool throws : {false, true}) {
        ExecutorConfig::setExecutor(std::make_shared<Sabotaging>(throws));
        EXPECT_EQ(sendRequests(2, 5s), std::pair(2, 0)) << "throws: " << throws;
    }
    ExecutorConfig::setExecutor(nullptr);
    EXPECT_EQ(sendRequests(1, 5s), std::pair(0, 1)) << "the next request logs in";
}

}  // namespace
}  // namespace velmora::testing
