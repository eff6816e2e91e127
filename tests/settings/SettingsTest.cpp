#include "velmora/settings/SettingsRequestInterceptor.h"

#include <gtest/gtest.h>

#include <limits>
#include <thread>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/settings/DefaultInterceptors.h"
#include "velmora/storage/IdentityStore.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;
using mock::AccountServer;
using nlohmann::json;

class SettingsTest : public LibraryTest {
  protected:
    SettingsTest() {
        CoreLogger::setLogLevel(LogLevel::verbose);
        details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
    }

    template <class T>
    T fetch() {
        Awaited<T> settings;
        SettingsProvider(details).getSettings<T>(settings.callback());
        return settings.wait();
    }
    std::size_t settingsCalls() {
        return server.requests("GET", "/api/private/mobile_sdk/settings/app.json").size();
    }
    void storeSettings(const json& document, Date updatedAt) {
        const SettingsStore store("app");
        ASSERT_TRUE(store.storeSettings(Data::fromString(document.dump())));
        store.defaults()->set("updated_at", updatedAt);
    }

    Watchdog watchdog{60s, "settings test"};
    AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details;
};

TEST_F(SettingsTest, FetchedOnceWhileNoneAreStoredThenAnsweredFromTheStore) {
    EXPECT_EQ(fetch<CoreSettings>().identifier, "velmora-mock");  // the values: through the C session
    ASSERT_EQ(settingsCalls(), 1u);
    EXPECT_EQ(server.requests()[0].header("Client-Identifier"), std::nullopt)
        << "the settings call passes through no interceptor";

    std::this_thread::sleep_for(5ms);  // freshness is strictly after the stamp
    EXPECT_EQ(fetch<BlipsSettings>().permissions, (BlipsPermissions{true, false, true}));
    EXPECT_EQ(settingsCalls(), 1u) << "fresh settings come from the store";
}

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
    // Each fails the strict read as a whole: an unknown authentication, brand ids past the signed 64 bits.
    json unknownAuthentication = AccountServer::defaultSettings();
    unknownAuthentication["core"]["authentication"] = "saml";
    unknownAuthentication.erase("blips");
    json largest = AccountServer::defaultSettings(), past = largest;
    largest["core"]["brand_id"] = std::numeric_limits<std::uint64_t>::max();
    past["core"]["brand_id"] = std::uint64_t{1} << 63;
    for (const auto& document : {unknownAuthentication, largest, past}) {
        server.setSettings(document);
        EXPECT_EQ(fetch<CoreSettings>(), CoreSettings::defaultValue()) << document["core"].dump();
        EXPECT_FALSE(SettingsStore("app").settings().has_value()) << "undecodable answers are not stored";
    }

    json noBlips = AccountServer::defaultSettings();
    noBlips.erase("blips");
    server.setSettings(noBlips);
    EXPECT_EQ(fetch<CoreSettings>().brandId, 1);
    EXPECT_EQ(fetch<BlipsSettings>(), BlipsSettings::defaultValue());

    SettingsStore("app").clear();
    server.script("GET", "/api/private/mobile_sdk/settings/app.json", {.status = 200, .drop = true});
    EXPECT_EQ(fetch<CoreSettings>(), CoreSettings::defaultValue());

    Awaited<CoreSettings> cached;
    SettingsProvider(details).getCachedSettings<CoreSettings>(cached.callback());
    EXPECT_EQ(cached.wait(), CoreSettings::defaultValue());
}

TEST_F(SettingsTest, TheInterceptorFetchesOnlyWhileNoneAreStoredAndLeavesTheRequestAlone) {
    const IntervalValidator validator{3600, Date::now()};
    const auto interceptor = [&] {
        return SettingsRequestInterceptor(SettingsStore("app"), std::make_shared<SettingsProvider>(details),
                                          validator);
    };
    const auto request = Result<platform::URLRequest>::success(
        platform::URLRequest(*platform::URL::fromString(server.url() + "/x")));

    const auto intercepted = [&](bool fetches) {
        EXPECT_EQ(interceptor().needToFetchSettings(), fetches);
        return interceptor().intercept(request, platform::DispatchGroup());
    };
    EXPECT_TRUE(intercepted(true).value().allHTTPHeaderFields.empty());
    EXPECT_EQ(settingsCalls(), 1u);
    EXPECT_FALSE(
        logs->linesStartingWith("[VERBOSE]: Settings interceptor retrived settings: CoreSettings(brandId: 1")
            .empty());

    std::this_thread::sleep_for(5ms);  // fresh: asked again (the inverted rule), answered from the store
    (void)intercepted(true);
    EXPECT_EQ(settingsCalls(), 1u);

    storeSettings(AccountServer::defaultSettings(), Date::now().addingTimeInterval(-7200));
    (void)intercepted(false);  // stale: not asked at all
    EXPECT_EQ(settingsCalls(), 1u);
}

TEST_F(SettingsTest, TheDefaultChainFetchesSettingsLogsInAndAuthorisesInThatOrder) {
    IdentityStore("app").store(Identity::createAnonymous("Ann", std::nullopt));
    const auto get = [&] {
        Awaited<int> status;
        auto callback = status.callback();
        makeProviderService(details, resourceURL(details->accountUrl(), "/api/mobile/users/me.json").value(),
                            true, HttpMethod::get, {}, std::nullopt,
                            platform::DispatchQueue("com.velmora.tests.callbacks"))
            .perform([callback](const auto&, const auto& response, const auto&) {
                callback(response ? response->statusCode() : 0);
            });
        return status.wait();
    };
    EXPECT_EQ(get(), 200);
    std::vector<std::string> paths;
    for (const auto& r : server.requests()) {
        paths.push_back(r.method + " " + r.path());
    }
    EXPECT_EQ(paths,
              (std::vector<std::string>{"GET /api/private/mobile_sdk/settings/app.json",
                                        "POST /access/sdk/anonymous", "GET /api/mobile/users/me.json"}));
    const auto user = server.requests().back();
    EXPECT_EQ(user.header("Client-Identifier"), "client");
    EXPECT_EQ(user.header("Authorization"), "Bearer " + *IdentityStore("app").oauthToken());
    EXPECT_EQ(IdentityStore("app").userId(), 1000) << "the login stores the user id it was given";

    std::this_thread::sleep_for(5ms);  // past the settings stamp
    EXPECT_EQ(get(), 200);
    EXPECT_EQ(server.requests().size(), 4u) << "settings stored and a token held: only the request goes out";
}

}  // namespace
}  // namespace velmora::testing
