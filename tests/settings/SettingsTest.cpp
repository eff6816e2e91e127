#include "velmora/settings/SettingsRequestInterceptor.h"

#include <gtest/gtest.h>

#include <thread>

#include "tests/support/ServerTest.h"
#include "velmora/settings/DefaultInterceptors.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

class SettingsTest : public ServerTest {
  protected:
    SettingsTest() { CoreLogger::setLogLevel(LogLevel::verbose); }

    template <class T>
    T fetch() {
        return await<T>([&](auto callback) { SettingsProvider(details).getSettings<T>(callback); });
    }
    std::size_t settingsCalls() {
        return server.requests("GET", "/api/private/mobile_sdk/settings/app.json").size();
    }
    void storeSettings(const json& document, Date updatedAt) {
        const SettingsStore store("app");
        ASSERT_TRUE(store.storeSettings(Data::fromString(document.dump())));
        store.defaults()->set("updated_at", updatedAt);
    }
};

TEST_F(SettingsTest, FreshnessIsStrictOnBothEndsAndAFutureStampIsStale) {
    const IntervalValidator validator{3600, Date::now()};
    const auto u = Date::fromMillisecondsSince1970(1'795'289'368'000);
    EXPECT_FALSE(validator.isFresh(u, u));
    EXPECT_TRUE(validator.isFresh(u, u.addingTimeInterval(3599.999)));
    EXPECT_FALSE(validator.isFresh(u, u.addingTimeInterval(3600))) << "exactly one hour later is out of date";

    storeSettings(AccountServer::defaultSettings(), Date::now().addingTimeInterval(600));
    fetch<CoreSettings>();
    EXPECT_EQ(settingsCalls(), 1u) << "a future stamp (clock moved back) counts as out of date";
}

TEST_F(SettingsTest, BadDocumentsAndFailedCallsGiveTheDefaults) {
    // Each fails the strict read as a whole: an unknown authentication, a brand id past the signed 64 bits.
    for (const char* patch : {R"([{"op": "add", "path": "/core/authentication", "value": "saml"},
                                  {"op": "remove", "path": "/blips"}])",
                              R"([{"op": "add", "path": "/core/brand_id", "value": 9223372036854775808}])"}) {
        server.setSettings(AccountServer::defaultSettings().patch(json::parse(patch)));
        EXPECT_EQ(fetch<CoreSettings>(), CoreSettings::defaultValue()) << patch;
        EXPECT_FALSE(SettingsStore("app").settings().has_value()) << "undecodable answers are not stored";
    }

    server.setSettings(
        AccountServer::defaultSettings().patch(json::parse(R"([{"op": "remove", "path": "/blips"}])")));
    EXPECT_EQ(fetch<CoreSettings>().brandId, 1);
    EXPECT_EQ(fetch<BlipsSettings>(), BlipsSettings::defaultValue());

    SettingsStore("app").clear();
    server.script("GET", "/api/private/mobile_sdk/settings/app.json", {.status = 200, .drop = true});
    EXPECT_EQ(fetch<CoreSettings>(), CoreSettings::defaultValue());
}

TEST_F(SettingsTest, TheInterceptorFetchesOnlyWhileNoneAreStoredAndLeavesTheRequestAlone) {
    const auto request = Result<platform::URLRequest>::success(
        platform::URLRequest(*platform::URL::fromString(server.url() + "/x")));
    // None stored: fetched. Fresh: asked again (the inverted rule), answered from the store. Stale: not
    // asked.
    for (const bool stale : {false, false, true}) {
        SCOPED_TRACE(stale);
        if (stale) {
            storeSettings(AccountServer::defaultSettings(), Date::now().addingTimeInterval(-7200));
        }
        std::this_thread::sleep_for(5ms);  // past the stamp of what the last step stored
        SettingsRequestInterceptor interceptor(
            SettingsStore("app"), std::make_shared<SettingsProvider>(details), {3600, Date::now()});
        EXPECT_EQ(interceptor.needToFetchSettings(), !stale);
        EXPECT_TRUE(interceptor.intercept(request, {}).value().allHTTPHeaderFields.empty());
        EXPECT_EQ(settingsCalls(), 1u);
        EXPECT_FALSE(logs->linesStartingWith(
                             "[VERBOSE]: Settings interceptor retrived settings: CoreSettings(brandId: 1")
                         .empty());
    }

    // A host's executor that drops the settings call unanswered: the chain goes on without them.
    struct Dropping : ExecutorType {
        void perform(const ProviderService&, TaskCompletion) override {}
    };
    ExecutorConfig::setExecutor(std::make_shared<Dropping>());
    SettingsStore("app").clear();
    auto interceptor = std::make_shared<SettingsRequestInterceptor>(
        SettingsStore("app"), std::make_shared<SettingsProvider>(details),
        IntervalValidator{3600, Date::now()});
    EXPECT_TRUE(returnsWithin([interceptor, request] { (void)interceptor->intercept(request, {}); }));
    ExecutorConfig::setExecutor(nullptr);
}

TEST_F(SettingsTest, TheDefaultChainFetchesSettingsLogsInAndAuthorisesInThatOrder) {
    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    const auto url = resourceURL(details->accountUrl(), "/api/mobile/users/me.json").value();
    for (int i = 0; i < 2; ++i) {
        std::this_thread::sleep_for(5ms);  // the second time, past the stamp of the settings stored the first
        EXPECT_EQ(await<int>([&](auto callback) {
                      makeProviderService(details, url, true, HttpMethod::get, {}, std::nullopt,
                                          platform::DispatchQueue("com.velmora.tests.callbacks"))
                          .perform([callback](const auto&, const auto& response, const auto&) {
                              callback(response ? response->statusCode() : 0);
                          });
                  }),
                  200);
    }
    // Each request's method, path, client identifier and authorisation: the settings call passes no
    // interceptor; with settings stored and a token held, only the request goes out the second time.
    std::vector<std::string> sent;
    for (const auto& r : server.requests()) {
        sent.push_back(r.method + " " + r.path() + " " + r.header("Client-Identifier").value_or("-") + " " +
                       r.header("Authorization").value_or("-"));
    }
    const auto me = "GET /api/mobile/users/me.json client Bearer " + identity->oauthToken().value_or("?");
    EXPECT_EQ(sent, (std::vector<std::string>{"GET /api/private/mobile_sdk/settings/app.json - -",
                                              "POST /access/sdk/anonymous client -", me, me}));
    EXPECT_EQ(identity->userId(), 1000) << "the login stores the user id it was given";
}

}  // namespace
}  // namespace velmora::testing
