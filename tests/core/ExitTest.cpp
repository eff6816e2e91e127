#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include "tests/support/LibraryTest.h"
#include "tests/support/Watchdog.h"
#include "tools/velmora-mock/AccountServer.h"

extern char** environ;

namespace velmora::testing {
namespace {

using namespace std::chrono_literals;

// A host that forgets waitForPendingRequests is the common case: leaving main or calling exit() with
// requests in flight must end the process cleanly, every time.
TEST_F(LibraryTest, AHostThatExitsWithRequestsInFlightNeverCrashes) {
    Watchdog watchdog{240s, "exit test"};
    mock::AccountServer server;
    constexpr int runs = VELMORA_EXIT_RUNS;
    for (int i = 0; i < runs * 21; ++i) {
        server.script("", "/api/mobile/users/me.json", {.status = 200, .body = "{}", .delay = 30ms});
    }
    for (const std::string mode : {"return", "exit"}) {
        int crashed = 0;
        std::string statuses;
        for (int run = 0; run < runs; ++run) {
            std::string probe = VELMORA_EXIT_PROBE_PATH;
            std::string url = server.url();
            std::string data = (root / ("run-" + mode + std::to_string(run))).string();
            std::string how = mode;
            char* argv[] = {probe.data(), url.data(), data.data(), how.data(), nullptr};
            pid_t pid = 0;
            ASSERT_EQ(posix_spawn(&pid, argv[0], nullptr, nullptr, argv, environ), 0);
            int status = 0;
            waitpid(pid, &status, 0);
            if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
                ++crashed;
                statuses +=
                    " " + std::to_string(WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status));
            }
        }
        EXPECT_EQ(crashed, 0) << mode << ": " << crashed << " of " << runs
                              << " runs ended badly:" << statuses;
    }
}

}  // namespace
}  // namespace velmora::testing
