#include <gtest/gtest.h>

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
            const auto ran = runProgram(root, {VELMORA_EXIT_PROBE_PATH, server.url(), data.string(), mode});
            if (ran.exitCode != 0) {
                failures += " " + std::to_string(ran.exitCode) + " " + ran.err;
            }
        }
        EXPECT_EQ(failures, "") << mode << ": runs that ended badly (exit code, or 128 + the signal)";
    }
}

}  // namespace
}  // namespace velmora::testing
