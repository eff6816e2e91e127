// Processes sharing a data directory, killed or on a failing disk: acknowledged changes stay, others leave no
// trace.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <unistd.h>

#include <random>
#include <thread>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "velmora/core/Velmora.h"
#include "velmora/identity/Identity.h"
#include "velmora/storage/AccountStore.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"

namespace velmora::testing {
namespace {

using Dictionary = PropertyValue::Dictionary;
constexpr const char* accountUrl = "http://127.0.0.1:9";  // never reached: nothing here makes a request

class SharedStorageTest : public LibraryTest {
  protected:
    std::filesystem::path file() const { return *environment.dataDirectory / "UserDefaults.sqlite"; }

    // The anonymous name stored for `appId` as a later launch reads it; "" for no identity.
    std::string storedName(const std::string& appId) const {
        const auto stored = persistedValue(file(), std::string(IdentityStore::suite), appId);
        const auto* dictionary = stored ? stored->getIf<Dictionary>() : nullptr;
        if (dictionary == nullptr || !dictionary->contains("identity") ||
            !dictionary->at("identity").is<Data>()) {
            return "";
        }
        const auto identity = Identity::decode(*dictionary->at("identity").getIf<Data>());
        const auto* anonymous = identity.isSuccess() ? identity.value().anonymous() : nullptr;
        return anonymous != nullptr ? anonymous->name.value_or("?") : "?";
    }
    std::string storedAccount() const {
        const auto stored = persistedValue(file(), std::string(AccountStore::suite), "account-id");
        return stored && stored->getIf<std::string>() ? *stored->getIf<std::string>() : "";
    }
};

TEST_F(SharedStorageTest, ProcessesWritingTheSameDictionaryKeepEveryAcknowledgedChange) {
    constexpr int processes = 4, writes = 30;
    const auto value = [](int p, int i) { return std::to_string(p) + "-" + std::to_string(i); };
    std::vector<pid_t> children;
    for (int p = 0; p < processes; ++p) {
        children.push_back(forkChild([&, p] {
            const SessionStore store("app");
            for (int i = 0; i < writes; ++i) {
                if (!store.store(PropertyValue(value(p, i)), "own-" + value(p, i)) ||
                    !store.store(PropertyValue(value(p, i)), "shared")) {
                    return 1;
                }
            }
            return 0;
        }));
    }
    for (const pid_t child : children) {
        EXPECT_EQ(waitForChild(child), 0);
    }
    const auto stored = persistedValue(file(), std::string(SessionStore::suite), "app");
    ASSERT_TRUE(stored && stored->getIf<Dictionary>());
    const auto& dictionary = *stored->getIf<Dictionary>();
    // Nothing else writes the suite: every key a process wrote, and only those, is there.
    EXPECT_EQ(dictionary.size(), processes * writes + 1u) << "a key of its own for every acknowledged write";
    EXPECT_TRUE(dictionary.at("shared").getIf<std::string>()->ends_with("-" + std::to_string(writes - 1)))
        << "the shared key holds some process's last write";
}

TEST_F(SharedStorageTest, AnIdentityChangeRacingALoginIsNeverReverted) {
    constexpr int rounds = 40;
    const pid_t identities = forkChild([] {
        if (!Velmora::initialize("app", "client", accountUrl)) {
            return 1;
        }
        for (int i = 1; i <= rounds; ++i) {
            Velmora::instance()->setIdentity(
                Identity::createAnonymous("N" + std::to_string(i), std::nullopt));
        }
        return 0;
    });
    const pid_t logins = forkChild([] {
        const IdentityStore store("app");
        for (int i = 0;; ++i) {  // what logins store, until the other process is done changing identities
            store.update(IdentityStore::authTokenKey, PropertyValue("token-" + std::to_string(i)));
        }
        return 0;
    });
    EXPECT_EQ(waitForChild(identities), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    ::kill(logins, SIGKILL);
    EXPECT_EQ(waitForChild(logins), 128 + SIGKILL);
    EXPECT_EQ(storedName("app"), "N" + std::to_string(rounds));
}

// Switching accounts and identities over and over, killed at random moments: the state before or after a
// step.
TEST_F(SharedStorageTest, AKillAtAnyMomentLeavesTheStateBeforeOrAfterTheChange) {
    // The steps: an app id, and an empty name to switch to its account or another to set as the identity's.
    const std::vector<std::pair<std::string, std::string>> cycle{{"b", ""}, {"b", "B1"}, {"b", "B2"},
                                                                 {"a", ""}, {"a", "A1"}, {"a", "A2"}};
    const auto matchesStateAfter = [&](std::size_t step) {
        const auto& [appId, name] = cycle[step % cycle.size()];
        return storedAccount() == *ApplicationConfiguration(appId, "client", accountUrl).base64() &&
               storedName(appId) == name;
    };
    std::mt19937 random(20261123);
    for (int kill = 0; kill < 40; ++kill) {
        int progress[2];
        ASSERT_EQ(::pipe(progress), 0);
        const pid_t child = forkChild([&] {
            ::close(progress[0]);
            Velmora::initialize("a", "client", accountUrl);
            Velmora::instance()->setIdentity(Identity::createAnonymous("A2", std::nullopt));
            for (std::size_t step = 0;; ++step) {
                const char mark = static_cast<char>(step % cycle.size());
                if (::write(progress[1], &mark, 1) != 1) {
                    return 1;
                }
                const auto& [appId, name] = cycle[step % cycle.size()];
                if (name.empty()) {
                    Velmora::initialize(appId, "client", accountUrl);
                } else {
                    Velmora::instance()->setIdentity(Identity::createAnonymous(name, std::nullopt));
                }
            }
        });
        ::close(progress[1]);
        char mark = 0;
        ASSERT_EQ(::read(progress[0], &mark, 1), 1) << "the child started its cycle";
        std::this_thread::sleep_for(std::chrono::microseconds(random() % 60'000));
        ::kill(child, SIGKILL);
        EXPECT_EQ(waitForChild(child), 128 + SIGKILL);
        char buffer[4096];
        for (ssize_t n; (n = ::read(progress[0], buffer, sizeof buffer)) > 0;) {
            mark = buffer[n - 1];
        }
        ::close(progress[0]);

        const auto step = static_cast<std::size_t>(mark);
        EXPECT_TRUE(matchesStateAfter(step + cycle.size() - 1) || matchesStateAfter(step))
            << "killed during step " << step << ": found account " << storedAccount() << ", identity '"
            << storedName(cycle[step].first) << "'";
    }
}

TEST_F(SharedStorageTest, AChangeTheDiskRefusesKeepsTheOldIdentityAndIsReported) {
    const int status = waitForChild(forkChild([&] {
        Velmora::initialize("app", "client", accountUrl);
        const auto velmora = Velmora::instance();
        velmora->setIdentity(Identity::createAnonymous("Ann", std::nullopt));
        ::signal(SIGXFSZ, SIG_IGN);  // from here on every write to a file fails, as on a full disk
        const rlimit none{0, 0};
        ::setrlimit(RLIMIT_FSIZE, &none);
        const bool reported = !velmora->setIdentity(Identity::createAnonymous("Bob", std::nullopt));
        const bool keptInMemory = velmora->identity() == Identity::createAnonymous("Ann");
        // Logged at error level, by the logger or by the store.
        const bool logged = std::ranges::count(logs->levels(), LogLevel::error) > 0;
        return (keptInMemory ? 0 : 1) | (logged ? 0 : 2) | (reported ? 0 : 4);
    }));
    EXPECT_EQ(status, 0) << "1: the process shows the change it did not store; 2: nothing logged at error "
                            "level; 4: setIdentity reported success";
    EXPECT_EQ(storedName("app"), "Ann");
}

}  // namespace
}  // namespace velmora::testing
