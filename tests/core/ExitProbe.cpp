// A host that starts twenty user reads and leaves main, or calls exit(), without waiting: run by ExitTest.
//   exit_probe ACCOUNT_URL DATA_DIR return|exit
#include <cstdlib>
#include <string>

#include "velmora/Velmora.h"

int main(int argc, char** argv) {
    if (argc != 4) {
        return 2;
    }
    auto environment = velmora::platform::Environment::linuxDefaults("velmora-exit-probe");
    environment.dataDirectory = std::string(argv[2]) + "/data";
    environment.cachesDirectory = std::string(argv[2]) + "/caches";
    velmora::platform::Environment::install(environment);
    if (!velmora::Velmora::initialize("probe-app", "probe-client", argv[1])) {
        return 2;
    }
    const auto sdk = velmora::Velmora::instance();
    sdk->setIdentity(velmora::Identity::createAnonymous("Ann", std::nullopt));
    for (int i = 0; i < 20; ++i) {
        sdk->providerModule().user().getUser([](velmora::Result<velmora::User>) {});
    }
    if (std::string(argv[3]) == "exit") {
        std::exit(0);
    }
    return 0;
}
