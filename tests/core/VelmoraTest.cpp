#include "velmora/core/Velmora.h"

#include <gtest/gtest.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "tests/support/ServerTest.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/platform/UserDefaults.h"
#include "velmora/storage/LegacyIdentityMigrator.h"
#include "velmora/storage/Stores.h"

namespace velmora::testing {
namespace {

using nlohmann::json;

constexpr const char* coldNotice =
    "[DEBUG]: The details provided during intialization were not previously stored. If this device was "
    "previously registered for push notficiations using different Velmora SDK application details it is not "
    "possible to unregister automatically.";
constexpr const char* wiping = "[DEBUG]: Initialized with a different SDK configuration. Clearing storage.";
constexpr const char* unregistering = "[DEBUG]: Automatically unregistering for push.";
constexpr const char* device1 = "/api/mobile/push_notification_devices/device-1.json";

class VelmoraTest : public ServerTest {
  protected:
    // What an earlier launch for this account would have left behind.
    void storePreviousLaunch(const std::string& appId) {
        ASSERT_TRUE(
            AccountStore().store(ApplicationConfiguration(appId, "client", server.url())).isSuccess());
        // The local server's settings, which permit the required events (such as "init").
        ASSERT_TRUE(SettingsStore(appId).storeSettings(
            Data::fromString(mock::AccountServer::defaultSettings().dump())));
        IdentityStore(appId).store(Identity::createAnonymous("Ann", "ann@example.com"));
        ASSERT_TRUE(SessionStore(appId).store(PropertyValue("old-device"), "pushToken"));
    }
    std::shared_ptr<Velmora> start() {
        Velmora::initialize("app", "client", server.url());
        return Velmora::instance();
    }
    static bool registerDevice1(const std::shared_ptr<Velmora>& velmora) {
        Awaited<Result<PushRegistrationResponse>> registered;
        velmora->providerModule().push().registerForPush("device-1", "en", registered.callback());
        return registered.wait().isSuccess();
    }
    // Whether `later` was logged after `earlier`.
    bool loggedInOrder(const std::string& earlier, const std::string& later) const {
        const auto lines = logs->lines();
        const auto first = std::find(lines.begin(), lines.end(), earlier);
        return first != lines.end() && std::find(first, lines.end(), later) != lines.end();
    }
    static bool drain() { return Velmora::waitForPendingRequests(std::chrono::seconds(10)); }
    static std::optional<std::string> pushToken() { return SessionStore("app").pushToken(); }
};

TEST_F(VelmoraTest, AFirstLaunchWithAnotherAccountStoredWipesRecordsAndSendsNothing) {
    storePreviousLaunch("other-app");
    ASSERT_TRUE(SessionStore("app").store(PropertyValue("stale-device"), "pushToken"));
    identity->store(Identity::createJwt("stale"));
    ASSERT_NE(start(), nullptr);
    ASSERT_TRUE(drain());
    EXPECT_TRUE(server.requests().empty()) << "a cold start cannot unregister and has no settings for events";
    EXPECT_TRUE(loggedInOrder(coldNotice, wiping)) << "the notice comes before the wipe";
    EXPECT_EQ(std::tuple(pushToken(), identity->identity()), std::tuple(std::nullopt, std::nullopt));
}

TEST_F(VelmoraTest, ARelaunchKeepsTheAccountsStateSendsOneInitEventAndARepeatChangesNothing) {
    storePreviousLaunch("app");
    const auto first = start();
    EXPECT_EQ(std::tuple(logs->contains(coldNotice), first->identity(), pushToken()),
              std::tuple(false, Identity::createAnonymous("Ann", "ann@example.com"), "old-device"));
    Velmora::initialize("app", "another-client", server.url());
    EXPECT_EQ(Velmora::instance(), first);
    ASSERT_TRUE(drain());
    const auto events = server.events("init");
    ASSERT_EQ(events.size(), 1u);
    const auto& e = events[0];
    EXPECT_EQ(json({e["appId"], e["version"], e["channel"], e["userAction"]["category"]}),
              json({"app", "2.0.0", "core_sdk", "CoreSDK"}));
    EXPECT_EQ(server.requests().size(), 1u) << "no login, no unregistration";
}

TEST_F(VelmoraTest,
       AWarmSwitchUnregistersAnyPushTokenThroughTheOldAccountThenWipesAndTheOldInstanceStaysUsable) {
    mock::AccountServer other;
    const auto old = start();
    old->setIdentity(Identity::createAnonymous("Ann", std::nullopt));
    ASSERT_TRUE(registerDevice1(old));
    ASSERT_TRUE(drain());
    server.clearRequests();
    logs->clear();
    Velmora::initialize("app-2", "client-2", other.url());
    ASSERT_TRUE(drain());
    const auto deleted = server.requests("DELETE", device1);
    ASSERT_EQ(deleted.size(), 1u);
    EXPECT_EQ(deleted[0].header("Authorization"), "Bearer token-1") << "the old user's token";
    EXPECT_EQ(std::tuple(server.requests("POST", "/access/sdk/anonymous").empty(), other.requests().empty(),
                         loggedInOrder(unregistering, wiping), logs->contains(coldNotice), pushToken()),
              std::tuple(true, true, true, false, std::nullopt));
    EXPECT_EQ(Velmora::instance()->accountDetails().applicationId(), "app-2");
    // Still usable by whoever holds it, though the wipe took the identities of every app id with it.
    const auto user = await<Result<User>>([&](auto done) { old->providerModule().user().getUser(done); });
    EXPECT_EQ(user.error().code(), 100);
    // Without a push token, a switch sends nothing and says nothing of push.
    logs->clear();
    Velmora::initialize("app-3", "client-3", other.url());
    ASSERT_TRUE(drain());
    EXPECT_EQ(std::tuple(other.requests().empty(), logs->contains(unregistering), logs->contains(wiping)),
              std::tuple(true, false, true));
}

TEST_F(VelmoraTest, SettingTheSameIdentityKeepsTheSessionAndAnotherOneClearsIt) {
    const auto velmora = start();
    velmora->setIdentity(Identity::createJwt("jwt-1"));
    ASSERT_TRUE(registerDevice1(velmora));
    const auto cache = *velmora->storeModule().cacheDirectory();
    std::filesystem::create_directories(cache);
    std::ofstream(cache / "page.html") << "cached";
    velmora->setIdentity(Identity::createJwt("jwt-1"));
    EXPECT_EQ(std::tuple(identity->oauthToken(), pushToken(), std::filesystem::exists(cache / "page.html")),
              std::tuple("token-1", "device-1", true));
    velmora->setIdentity(Identity::createAnonymous("Bo", std::nullopt));
    EXPECT_EQ(std::tuple(identity->oauthToken(), pushToken(), std::filesystem::exists(cache)),
              std::tuple(std::nullopt, std::nullopt, false));
    velmora->setIdentity(Identity::createAnonymous("\xff", std::nullopt));
    EXPECT_EQ(logs->linesStartingWith("[ERROR]: Can't change identity ").size(), 1u);
    EXPECT_EQ(velmora->identity()->anonymous()->name, "Bo") << "an identity that cannot be stored is refused";
    ASSERT_TRUE(drain());
    const auto deleted = server.requests("DELETE", device1);
    ASSERT_EQ(deleted.size(), 1u);
    EXPECT_EQ(deleted[0].header("Authorization"), "Bearer token-1") << "on behalf of the user who registered";
    EXPECT_EQ(server.requests("POST", "/access/sdk/jwt").size(), 1u) << "no login for the next user yet";
}

TEST_F(VelmoraTest, TheEarlierGenerationsIdentityIsTakenOverWithoutClearingOrUnregistering) {
    const auto velmora = start();
    const auto plantLegacyJwt = [] {
        const auto standard = platform::UserDefaults::standard();
        standard->set("vmk-identity", VMKJwtIdentity("T").archivedData());
        standard->set("vmk-oauth", "old-token");
        standard->set("vmk-user-id", 77);
        ASSERT_TRUE(standard->synchronize());
    };
    plantLegacyJwt();
    velmora->setIdentity(Identity::createJwt("T"));
    EXPECT_EQ(identity->oauthToken(), "old-token");
    EXPECT_EQ(identity->uuid(), "") << "a fresh store gets no UUID from a migration";
    // Over another user's session, with a push registration and cached pages of its own.
    ASSERT_TRUE(identity->store(Identity::createJwt("U")));
    const auto uuid = identity->currentUuid();
    ASSERT_TRUE(SessionStore("app").store(PropertyValue("device-1"), "pushToken"));
    const auto cache = *velmora->storeModule().cacheDirectory();
    std::filesystem::create_directories(cache);
    std::ofstream(cache / "page.html") << "cached";
    plantLegacyJwt();
    velmora->setIdentity(Identity::createJwt("T"));
    EXPECT_EQ(std::tuple(identity->oauthToken(), identity->userId(), identity->currentUuid(), pushToken(),
                         std::filesystem::exists(cache / "page.html")),
              std::tuple("old-token", 77, uuid, "device-1", true))
        << "the session was not cleared";
    ASSERT_TRUE(drain());
    EXPECT_TRUE(server.requests().empty()) << "no unregistration of device-1, no login";
}

TEST_F(VelmoraTest, TheBridgeConvertsBothWaysAndRefusesForeignClasses) {
    const auto velmora = start();
    EXPECT_EQ(velmora->objCIdentity(), nullptr);
    velmora->setIdentity(VMKObjCAnonymous(std::nullopt, std::nullopt));
    EXPECT_EQ(velmora->identity(), Identity::createAnonymous());
    velmora->setIdentity(VMKObjCJwt("jwt-1"));
    const auto jwt = std::dynamic_pointer_cast<VMKObjCJwt>(velmora->objCIdentity());
    ASSERT_NE(jwt, nullptr);
    EXPECT_EQ(jwt->token(), "jwt-1");
    EXPECT_NE(velmora->objCIdentity(), velmora->objCIdentity());
    velmora->setIdentity(VMKObjCAnonymous("Ann", "ann@example.com"));
    const auto anonymous = std::dynamic_pointer_cast<VMKObjCAnonymous>(velmora->objCIdentity());
    ASSERT_NE(anonymous, nullptr);
    EXPECT_EQ(json(anonymous->anonymous()),
              json({{"name", "Ann"}, {"email", "ann@example.com"}, {"guid", identity->guid().value()}}));
    EXPECT_EQ(json(anonymous->update("new@example.com")->anonymous()),
              json({{"name", "Ann"}, {"email", "new@example.com"}}))
        << "a host's update carries no GUID";
    class HostIdentity : public VMKObjCIdentity {};
    logs->clear();
    velmora->setIdentity(HostIdentity());
    EXPECT_EQ(logs->lines(),
              (std::vector<std::string>{"[ERROR]: Can't change identity The operation couldn\u2019t "
                                        "be completed. (VelmoraCoreSDK.ObjCIdentityError error 0.)"}));
    EXPECT_EQ(velmora->identity(), Identity::createAnonymous("Ann", "ann@example.com"));
}

TEST_F(VelmoraTest, ReadingTheInstanceBeforeInitializeIsLoggedAndNotifiedEveryTime) {
    std::vector<json> received;
    const auto token = platform::NotificationCenter::defaultCenter().addObserver(
        std::string(velmoraNotInitialised), [&](const auto& n) { received.push_back(n.userInfo); });
    const std::string text =
        "Can't use withtout initialization, call Velmora `class initialize(appId:clientId:velmoraUrl:)`";
    EXPECT_EQ(std::tuple(Velmora::instance(), Velmora::instance()), std::tuple(nullptr, nullptr));
    platform::NotificationCenter::defaultCenter().removeObserver(token);
    EXPECT_EQ(logs->count("[ERROR]: " + text), 2u);
    EXPECT_EQ(received, std::vector<json>(2, json({{"NSLocalizedDescription", text}})));
    start();
    EXPECT_EQ(logs->count("[ERROR]: " + text), 2u) << "initialize itself never reads an empty instance";
}

TEST_F(VelmoraTest, InstancesCanBeReadWhileOtherThreadsSwitchAccounts) {
    Velmora::initialize("app-0", "client", server.url());
    std::atomic<int> switching{2};
    {
        std::vector<std::jthread> threads;  // joined on leaving the block
        for (int t = 0; t < 2; ++t) {
            threads.emplace_back([&] {
                do {  // at least once, however quickly the switchers end
                    const auto velmora = Velmora::instance();
                    EXPECT_TRUE(velmora->accountDetails().applicationId().starts_with("app-"));
                    velmora->setActionHandlerRegistry(velmora->actionHandlerRegistry());
                } while (switching > 0);
            });
            threads.emplace_back([&, t] {
                for (int i = 0; i < 10; ++i) {
                    Velmora::initialize("app-" + std::to_string(t * 10 + i), "client", server.url());
                }
                --switching;
            });
        }
    }
    EXPECT_TRUE(AccountStore().storedAccount(Velmora::instance()->accountDetails()))
        << "the installed instance is the account last recorded";
}

}  // namespace
}  // namespace velmora::testing
