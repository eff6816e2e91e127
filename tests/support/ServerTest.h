#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/support/AccountDetails.h"

namespace velmora::testing {

// LibraryTest with the local account server, app "app" of client "client" on it, and that app's identity.
class ServerTest : public LibraryTest {
  protected:
    // Starts a call with a callback and waits for what the callback is handed.
    template <class T, class Start>
    static T await(Start&& start) {
        Awaited<T> value;
        start(value.callback());
        return value.wait();
    }
    // Waits (up to five seconds) for a log line starting with `prefix`; how many there are then.
    std::size_t awaitLinesStartingWith(const std::string& prefix) const {
        (void)eventually([&] { return !logs->linesStartingWith(prefix).empty(); });
        return logs->linesStartingWith(prefix).size();
    }

    Watchdog watchdog{std::chrono::seconds(90), "a test against the local account server"};
    mock::AccountServer server;
    std::shared_ptr<ApplicationConfiguration> details =
        std::make_shared<ApplicationConfiguration>("app", "client", server.url());
    std::shared_ptr<IdentityStore> identity = std::make_shared<IdentityStore>("app");
};

}  // namespace velmora::testing
