#include "velmora/settings/SettingsRequestInterceptor.h"

#include <gtest/gtest.h>

#include <limits>
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
    identity->store(Identity::createAnonymous("Ann", std::nullopt));
    const auto url = resourceURL(details->accountUrl(), "/api/mobile/users/me.json").value();
    const auto get = [&] {
        return await<int>([&](auto callback) {
            makeProviderService(details, url, true, HttpMethod::get, {}, std::nullopt,
                                platform::DispatchQueue("com.velmora.tests.callbacks"))
                .perform([callback](const auto&, const auto& response, const auto&) {
                    callback(response ? response->statusCode() : 0);
                });
        });
    };
    EXPECT_EQ(get(), 200);
    const auto sent = server.requests();
    std::vector<std::string> paths;
    for (const auto& r : sent) {
        paths.push_back(r.method + " " + r.path());
    }
    EXPECT_EQ(paths,
              (std::vector<std::string>{"GET /api/private/mobile_sdk/settings/app.json",
                                        "POST /access/sdk/anonymous", "GET /api/mobile/users/me.json"}));
    EXPECT_EQ(sent[0].header("Client-Identifier"), std::nullopt) << "the settings call passes no interceptor";
    EXPECT_EQ(sent.back().header("Client-Identifier"), "client");
    EXPECT_EQ(sent.back().header("Authorization"), "Bearer " + *identity->oauthToken());
    EXPECT_EQ(identity->userId(), 1000) << "the login stores the user id it was given";

    std::this_thread::sleep_for(5ms);  // past the settings stamp
    EXPECT_EQ(get(), 200);
    EXPECT_EQ(server.requests().size(), 4u) << "settings stored and a token held: only the request goes out";
}

}  // namespace
}  // namespace velmora::testing
