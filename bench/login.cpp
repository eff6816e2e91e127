// Lazy login under a burst: 200 concurrent getUser with no token (each chain may log in) against one login
// followed by 200 concurrent getUser with the token stored, in the same run against the local account server.
#include <condition_variable>
#include <cstdio>
#include <mutex>

#include "bench/BenchSupport.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/network/AccessProvider.h"
#include "velmora/user/UserProvider.h"

using namespace velmora;
using namespace velmora::bench;

namespace {

constexpr int burst = 200;
constexpr int rounds = 7;

class Countdown {
  public:
    explicit Countdown(int count) : left_(count) {}
    void arrive() {
        std::lock_guard lock(mutex_);
        --left_;
        changed_.notify_all();
    }
    void wait() {
        std::unique_lock lock(mutex_);
        changed_.wait(lock, [&] { return left_ <= 0; });
    }

  private:
    std::mutex mutex_;
    std::condition_variable changed_;
    int left_;
};

void getUsers(const UserProvider& users) {
    Countdown done(burst);
    for (int i = 0; i < burst; ++i) {
        users.getUser([&](const Result<User>&) { done.arrive(); });
    }
    done.wait();
}

void forgetToken() {
    IdentityStore("app").update(IdentityStore::authTokenKey, PropertyValue(Data()));
}

}  // namespace

int main() {
    const ScratchEnvironment scratch;
    mock::AccountServer server;
    const auto details = std::make_shared<ApplicationConfiguration>("app", "client", server.url());
    IdentityStore("app").store(Identity::createAnonymous("Ann", std::nullopt));
    const UserProvider users(details);
    getUsers(users);  // warm: settings stored, threads and connections made

    std::vector<double> cold;
    std::vector<double> warm;
    std::vector<double> accessCalls;
    for (int r = 0; r < rounds; ++r) {
        forgetToken();
        const auto before = server.requests("POST", "/access/sdk/anonymous").size();
        auto start = Clock::now();
        getUsers(users);
        cold.push_back(nanosecondsBetween(start, Clock::now()));
        accessCalls.push_back(
            static_cast<double>(server.requests("POST", "/access/sdk/anonymous").size() - before));

        forgetToken();
        start = Clock::now();
        Countdown login(1);
        AccessProvider(details).getAccess([&](Result<Access> access) {
            if (access.isSuccess()) {
                IdentityStore("app").update(IdentityStore::authTokenKey,
                                            access.value().authentication.access_token);
            }
            login.arrive();
        });
        login.wait();
        getUsers(users);
        warm.push_back(nanosecondsBetween(start, Clock::now()));
    }

    std::printf("login: %d concurrent getUser, %d rounds\n", burst, rounds);
    std::printf("  %-44s p50 %8.1f ms\n", "no token (the burst shares one login)",
                percentile(cold, 50) / 1e6);
    std::printf("  %-44s p50 %8.1f ms\n", "one login, then with the token", percentile(warm, 50) / 1e6);
    std::printf("  access calls per burst without a token: p50 %.0f, max %.0f\n", percentile(accessCalls, 50),
                percentile(accessCalls, 100));
    printRatio("login_burst", percentile(cold, 50) / percentile(warm, 50));
    printRatio("access_calls_per_burst", percentile(accessCalls, 50));
    return 0;
}
