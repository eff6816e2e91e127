#include <gtest/gtest.h>
#include <sys/wait.h>

#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

// Leaving main or calling exit() with requests in flight, without waitForPendingRequests, ends cleanly.
TEST_F(LibraryTest, AHostThatExitsWithRequestsInFlightNeverCrashes) {
    Watchdog watchdog{240s, "exit test"};
    mock::AccountServer server;
    constexpr int runs = VELMORA_EXIT_RUNS;
    for (int i = 0; i < runs * 21; ++i) {
        server.script("", "/api/mobile/users/me.json", {.status = 200, .body = "{}", .delay = 30ms});
    }
    for (const std::string mode : {"return", "exit"}) {
        std::string failures;
        for (int run = 0; run < runs; ++run) {
            const auto data = root / (mode + std::to_string(run));
            const pid_t pid = spawnWithOutput({VELMORA_EXIT_PROBE_PATH, server.url(), data.string(), mode},
                                              root / "stdout", root / "stderr");
            ASSERT_NE(pid, 0);
            int status = 0;
            ::waitpid(pid, &status, 0);
            if (const int code = exitStatusOf(status); code != 0) {
                failures += " " + std::to_string(code) + " " + readFile(root / "stderr");
            }
        }
        EXPECT_EQ(failures, "") << mode << ": runs that ended badly (exit code, or 128 + the signal)";
    }
}

}  // namespace
}  // namespace velmora::testing
