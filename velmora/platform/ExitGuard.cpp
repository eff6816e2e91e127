#include "velmora/platform/ExitGuard.h"

#include <atomic>
#include <cstdlib>

namespace velmora::platform {
namespace {

// Long enough for a callback in progress to finish, short enough that nobody notices it at exit.
constexpr std::chrono::milliseconds exitGrace{250};

void stopAtExit() {
    stopLibraryThreads(exitGrace);
}

}  // namespace

void registerExitGuard() {
    // Handlers run in reverse order of registration: registered after libcurl initialised OpenSSL (which
    // registers its own cleanup then), this one runs first.
    std::atexit(stopAtExit);
}

void stopLibraryThreads(std::chrono::milliseconds grace) {
    static std::atomic<bool> stopped{false};
    if (stopped.exchange(true)) {
        return;
    }
    const auto deadline = std::chrono::steady_clock::now() + grace;
    stopURLSessions(deadline);
    stopDispatchThreads(deadline);
}

}  // namespace velmora::platform
