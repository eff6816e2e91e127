// A hostile account server and a careless host, end to end; the wire is read from the local server's record.
#include <gtest/gtest.h>

#include <stdexcept>

#include "tests/support/ServerTest.h"
#include "velmora/Velmora.h"
#include "velmora/network/ProviderService.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using nlohmann::json;
using Failure = std::pair<std::string_view, std::int64_t>;

constexpr const char* me = "/api/mobile/users/me.json";

// The domain and code of the error `result` holds, ("success", 0) for a value; valid while `result` is.
template <class T>
Failure failure(const Result<T>& result) {
    return result.isError() ? Failure(result.error().domain(), result.error().code()) : Failure("success", 0);
}

class HostileInputTest : public ServerTest {
  protected:
    std::shared_ptr<Velmora> start(const std::string& appId = "app", const std::string& clientId = "client") {
        EXPECT_TRUE(Velmora::initialize(appId, clientId, server.url()));
        auto velmora = Velmora::instance();
        velmora->setIdentity(Identity::createJwt("the-users-jwt"));
        return velmora;
    }
    static Result<User> getUser(const Velmora& velmora) {
        return await<Result<User>>([&](auto done) { velmora.providerModule().user().getUser(done); });
    }
    static Result<PushRegistrationResponse> registerPush(const Velmora& velmora, const std::string& device) {
        return await<Result<PushRegistrationResponse>>(
            [&](auto done) { velmora.providerModule().push().registerForPush(device, "en", done); });
    }
    static bool drain() { return Velmora::waitForPendingRequests(10s); }
};

TEST_F(HostileInputTest, AnAccessTokenThatIsNoHeaderValueIsRefusedAndNeverSent) {
    const json access = {{"authentication", {{"access_token", "abc\r\nX-Injected: yes"}, {"user_id", "7"}}}};
    server.script("POST", "/access/sdk/jwt", {.status = 200, .body = access.dump()});
    const auto user = getUser(*start());
    ASSERT_EQ(failure(user), Failure(errors::coreDomain, errors::accessFailed));
    EXPECT_EQ(user.error().description().find("abc"), std::string::npos) << "the token is not echoed";
    ASSERT_TRUE(drain());
    EXPECT_TRUE(server.requests("GET", me).empty());
}

// Each odd host value, in every URL or header it enters, stays in its place or is refused.
TEST_F(HostileInputTest, OddHostValuesStayInTheirPlaceOrAreRefused) {
    const std::vector<std::string> values = {
        "", "..", "a b", "a/b", "%2F", std::string(1 << 20, 'x'), "a\r\nX-Injected: yes", "\xC3\x28\xFF"};
    const std::string devices = "/api/mobile/push_notification_devices/";
    std::size_t tagRequests = 0;
    for (std::size_t i = 0; i < values.size(); ++i) {
        const auto& value = values[i];
        SCOPED_TRACE(::testing::PrintToString(value.substr(0, 20)));
        server.clearRequests();
        const bool segment =
            !value.empty() && value != ".." && value.find_first_of(" /%\r\n\xC3") == std::string::npos;
        EXPECT_EQ(Velmora::initialize(value, "client", server.url()), segment) << "the application id";
        auto velmora = start();
        EXPECT_EQ(registerPush(*velmora, value).isSuccess(), segment) << "the push identifier";
        velmora->providerModule().push().unregisterForPush(value);
        (void)await<Result<User>>([&](auto done) {
            velmora->providerModule().user().deleteTags({value, "x&admin=1"}, done);
        });
        // Another account, so that the client id takes effect.
        const auto user = getUser(*start("app-" + std::to_string(i), value));
        // One with a line break is never sent; a well-formed one goes out byte for byte, but for what the
        // server's HTTP library changes (it drops empty fields and percent-decodes values).
        if (value.size() < 1000) {
            EXPECT_EQ(user.isSuccess(), value.find('\n') == std::string::npos) << failure(user).first;
        }
        if (user.isSuccess() && value.size() < 1000 && !value.empty() &&
            value.find('%') == std::string::npos) {
            EXPECT_EQ(server.requests("GET", me).back().header("Client-Identifier"), value);
        }
        ASSERT_TRUE(drain());
        for (const auto& request : server.requests()) {
            EXPECT_FALSE(request.method == "DELETE" && request.path() == me);
            EXPECT_EQ(request.header("X-Injected"), std::nullopt);
            if (request.path().starts_with(devices)) {
                EXPECT_EQ(request.path(), devices + value + ".json") << "one path segment, byte for byte";
            }
            if (request.path() == "/api/mobile/user_tags/destroy_many.json") {
                ++tagRequests;
                EXPECT_TRUE(request.target.ends_with(",x%26admin%3D1")) << "a tag adds no query parameter";
            }
        }
    }
    EXPECT_GT(tagRequests, 0u);
}

// A server-chosen push identifier that leaves its path segment, and values too large for a URL, fail their
// calls instead of stopping the process; nothing is ever unregistered or deleted.
TEST_F(HostileInputTest, ValuesTooLargeOrLeavingTheirSegmentFailTheCallAndNothingIsDeleted) {
    server.script("POST", "/api/mobile/push_notification_devices.json",
                  {.status = 201, .body = R"({"push_notification_device": {"identifier": "../users/me"}})"});
    const auto velmora = start();
    ASSERT_TRUE(registerPush(*velmora, "device-1").isError());
    EXPECT_EQ(SessionStore("app").pushToken(), std::nullopt);
    Awaited<Result<User>> tagged;
    velmora->providerModule().user().deleteTags(std::vector<std::string>(1'500'000, "a b"),
                                                tagged.callback());
    EXPECT_EQ(failure(tagged.wait()).second, errors::url::badURL);
    EXPECT_TRUE(tagged.onMain());
    logs->clear();
    velmora->providerModule().push().unregisterForPush(std::string(9 << 20, 'x'));
    EXPECT_EQ(logs->linesStartingWith("[DEBUG]: Push unregistration failed with").size(), 1u);
    velmora->setIdentity(Identity::createJwt("another-user"));
    ASSERT_TRUE(drain());
    for (const auto& request : server.requests()) {
        EXPECT_NE(request.method, "DELETE") << request.target;
    }
}

// A server that never answers, or trickles a byte every half second, ends the call at the host's one bound.
TEST_F(HostileInputTest, AWholeCallEndsByTheRequestDeadline) {
    environment.http.requestDeadline = environment.http.timeoutInterval = 2;
    reinstallEnvironment();
    server.script("GET", "/api/private/mobile_sdk/settings/app.json",
                  {.status = 200, .body = "{}", .delay = 20s});
    server.script("POST", "/access/sdk/jwt", {.status = 200, .body = "{}", .delay = 20s});
    auto velmora = start();
    auto started = std::chrono::steady_clock::now();
    ASSERT_TRUE(getUser(*velmora).isError());
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3500ms)
        << "settings, login and call took one bound each";
    identity->update(IdentityStore::authTokenKey, PropertyValue(std::string("token")));
    server.script("GET", me,
                  {.status = 200, .chunks = std::vector<std::string>(40, " "), .chunkDelay = 500ms});
    started = std::chrono::steady_clock::now();
    EXPECT_EQ(failure(getUser(*velmora)).second, errors::url::timedOut);
    EXPECT_LT(std::chrono::steady_clock::now() - started, 3500ms) << "a trickle kept the request alive";
    ASSERT_TRUE(drain());
}

// JSON nested far too deep, from the server or the host: a decoding error or a refusal, never a stack
// overflow.
TEST_F(HostileInputTest, DeeplyNestedJsonIsRefusedNotRecursedInto) {
    const auto nested = [](std::size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
    server.script(
        "GET", me,
        {.status = 200, .body = R"({"user": {"id": 1, "user_fields": {"deep": )" + nested(50'000) + "}}}"});
    EXPECT_EQ(failure(getUser(*start())).first, errors::decodingDomain);
    server.script("POST", "/access/sdk/jwt",
                  {.status = 401, .body = R"({"error": )" + nested(100'000) + "}"});
    const auto velmora = start("app2");
    EXPECT_EQ(failure(getUser(*velmora)), Failure(errors::coreDomain, errors::accessFailed));
    // Built and handed over by moves only: a copy of such a value would overflow the test's own stack.
    const auto deep = [] {
        json value = json::array();
        for (int i = 0; i < 60'000; ++i) {
            json outer = json::array();
            outer.push_back(std::move(value));
            value = std::move(outer);
        }
        return value;
    };
    std::map<std::string, json> values;
    values.emplace("deep", deep());
    EXPECT_EQ(failure(await<Result<User>>(
                  [&](auto done) { velmora->providerModule().user().setUserFields(values, done); })),
              Failure(errors::decodingDomain, errors::encodingFailed));
    UserAction action;
    action.value = deep();
    logs->clear();
    velmora->providerModule().blip().send(action, BlipsGroup::required);
    EXPECT_EQ(logs->linesStartingWith("[ERROR]: Faild to send blip").size(), 1u);
    ASSERT_TRUE(drain());
}

TEST_F(HostileInputTest, AFailedAnswerThatIsNoRecordCarriesItsStatus) {
    const auto velmora = start();
    for (const int status : {503, 401}) {
        server.script("GET", me, {.status = status, .body = "Service Unavailable"});
        const auto user = getUser(*velmora);
        ASSERT_TRUE(user.isError());
        EXPECT_EQ(user.error().userInfo().value(std::string(errors::httpStatusCodeKey), 0), status)
            << "a host can tell a " << status << " from a malformed record";
    }
}

// What the host installed is let go outside the library's locks: its destructor may use the library.
TEST_F(HostileInputTest, WhatTheHostReplacesIsReleasedOutsideTheLibrarysLocks) {
    struct UsesLibraryWhenReleased {
        explicit UsesLibraryWhenReleased(std::function<void()> then) : use(std::move(then)) {}
        std::function<void()> use;
        ~UsesLibraryWhenReleased() { use(); }
    };
    struct Executor : DefaultRequestExecutor {
        UsesLibraryWhenReleased release{[] { (void)ExecutorConfig::executor(); }};
    };
    struct Logger : ConsoleLogger {
        UsesLibraryWhenReleased release{[] { (void)LoggerConfig::logger(); }};
    };
    EXPECT_TRUE(returnsWithin([] {
        ExecutorConfig::setExecutor(std::make_shared<Executor>());
        ExecutorConfig::setExecutor(nullptr);
    })) << "the executor";
    EXPECT_TRUE(returnsWithin([] {
        LoggerConfig::setLogger(std::make_shared<Logger>());
        LoggerConfig::setLogger(nullptr);
    })) << "the logger";
    // Each hook below is moved into what the library holds, so that only the library lets it go.
    EXPECT_TRUE(returnsWithin([host = environment] {
        auto hook = std::make_shared<UsesLibraryWhenReleased>([] { (void)platform::Environment::current(); });
        auto installed = host;
        installed.mainExecutor = [release = std::move(hook)](auto job) { job(); };
        platform::Environment::install(std::move(installed));
        platform::Environment::install(host);
    })) << "the environment";
    EXPECT_TRUE(returnsWithin([] {
        auto& center = platform::NotificationCenter::defaultCenter();
        auto hook = std::make_shared<UsesLibraryWhenReleased>([&center] { center.removeObserver(0); });
        center.removeObserver(center.addObserver("n", [release = std::move(hook)](const auto&) {}));
    })) << "an observer";
}

// A log sink or logger of the host's that throws loses its line, and nothing else.
TEST_F(HostileInputTest, ALogSinkOrLoggerThatThrowsLosesOnlyItsLine) {
    struct Throwing : LoggerType {
        void log(std::string_view, std::string_view) override { throw std::runtime_error("logger"); }
    };
    environment.logSink = [](LogLevel, std::string_view) { throw std::runtime_error("sink"); };
    platform::Environment::install(environment);
    EXPECT_NO_THROW(CoreLogger::error("through the console logger to the sink"));
    LoggerConfig::setLogger(std::make_shared<Throwing>());
    EXPECT_NO_THROW(CoreLogger::error("to the host's logger"));
    EXPECT_EQ(failure(getUser(*start())), Failure("success", 0)) << "a request logs all the way";
}

TEST_F(HostileInputTest, InitializeRefusesAccountUrlsThatAreNoPlainBase) {
    const auto port = std::to_string(server.port());
    for (const std::string& url :
         {std::string("not a url"), std::string(), "127.0.0.1:" + port, "ftp://127.0.0.1:" + port,
          "http://user:pw@127.0.0.1:" + port, "http://127.0.0.1:" + port + "/?q=1",
          "http://127.0.0.1:" + port + "/#f"}) {
        EXPECT_FALSE(Velmora::initialize("app", "client", url)) << url;
        EXPECT_EQ(Velmora::instance(), nullptr) << url;
    }
    ASSERT_TRUE(Velmora::initialize("app", "client", server.url()));
    EXPECT_FALSE(Velmora::initialize("app", "client", "http://user:pw@127.0.0.1:" + port));
    EXPECT_EQ(Velmora::instance()->accountDetails().accountUrl(), server.url()) << "the installed one stays";
    logs->clear();
    ASSERT_TRUE(Velmora::initialize("app", "client", server.url() + "/"));
    EXPECT_EQ(logs->linesStartingWith("[WARNING]: The account URL ").size(), 1u);
    EXPECT_EQ(Velmora::instance()->accountDetails().accountUrl(), server.url() + "/") << "kept as given";
}

}  // namespace
}  // namespace velmora::testing
