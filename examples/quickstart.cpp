// The library from C++ in a few lines: initialise for an account, say who the user is, read their record.
//
//   quickstart ACCOUNT_URL
//
// Login is lazy: the identity is exchanged for an access token by the first request that needs one.
#include <cstdio>
#include <future>

#include "velmora/Velmora.h"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: quickstart ACCOUNT_URL\n");
        return 2;
    }
    // Optional: where state is kept (XDG directories of an application of this name otherwise).
    auto environment = velmora::platform::Environment::linuxDefaults("velmora-quickstart");
    velmora::platform::Environment::install(environment);

    velmora::Velmora::initialize("quickstart-app", "quickstart-client", argv[1]);
    const auto sdk = velmora::Velmora::instance();
    sdk->setIdentity(velmora::Identity::createAnonymous("Ann", "ann@example.com"));

    // Callbacks arrive on the library's main queue; this thread just waits for the one it needs.
    std::promise<velmora::Result<velmora::User>> answer;
    sdk->providerModule().user().getUser(
        [&answer](velmora::Result<velmora::User> user) { answer.set_value(std::move(user)); });
    const auto user = answer.get_future().get();

    // Let fire-and-forget work (analytics events) finish before the process goes.
    velmora::Velmora::waitForPendingRequests(std::chrono::seconds(10));

    if (user.isError()) {
        std::fprintf(stderr, "could not read the user: %s\n", user.error().localizedDescription().c_str());
        return 1;
    }
    std::printf("signed in as %s (user %s)\n", user.value().name.c_str(), user.value().id.c_str());
    return 0;
}
