// What an idle library costs its host: the threads it keeps and how often they wake, over ten seconds after
// initialize and again after a burst of requests. On a laptop or a phone every wake-up is battery spent for
// nothing, so the goal is none at all.
//
// The local account server runs in a child process, so that every thread of this process but the main one
// is the library's. Wake-ups are the context switches the kernel counted for those threads.
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <fstream>
#include <future>
#include <string>
#include <thread>

#include "bench/BenchSupport.h"
#include "tools/velmora-mock/AccountServer.h"
#include "velmora/Velmora.h"

namespace {

using namespace std::chrono_literals;

struct ThreadCensus {
    int threads = 0;                // besides the main thread
    long long contextSwitches = 0;  // of those threads, voluntary and not
};

ThreadCensus census() {
    ThreadCensus result;
    const auto self = std::to_string(::getpid());
    for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
        if (entry.path().filename() == self) {
            continue;
        }
        ++result.threads;
        std::ifstream status(entry.path() / "status");
        std::string line;
        while (std::getline(status, line)) {
            if (line.find("ctxt_switches:") != std::string::npos) {
                result.contextSwitches += std::stoll(line.substr(line.find(':') + 1));
            }
        }
    }
    return result;
}

// Wake-ups per second of the library's threads while the host does nothing; threads that end within the
// window take their last counts with them, which can only understate what they cost before they ended.
double idleWakeupsPerSecond(const char* phase) {
    std::this_thread::sleep_for(3s);  // extra pool workers retire after two idle seconds
    const auto before = census();
    const auto start = velmora::bench::Clock::now();
    std::this_thread::sleep_for(10s);
    const auto after = census();
    const double seconds = velmora::bench::nanosecondsBetween(start, velmora::bench::Clock::now()) / 1e9;
    const double rate =
        static_cast<double>(std::max(0LL, after.contextSwitches - before.contextSwitches)) / seconds;
    std::printf("  %-32s threads %3d -> %3d   wake-ups %.2f per second\n", phase, before.threads,
                after.threads, rate);
    return rate;
}

}  // namespace

int main() {
    int portPipe[2];
    if (::pipe(portPipe) != 0) {
        std::perror("pipe");
        return 1;
    }
    const pid_t server = ::fork();
    if (server == 0) {
        velmora::mock::AccountServer account;
        const int port = account.port();
        if (::write(portPipe[1], &port, sizeof port) != sizeof port) {
            std::_Exit(1);
        }
        ::pause();
        std::_Exit(0);
    }
    int port = 0;
    if (::read(portPipe[0], &port, sizeof port) != sizeof port) {
        std::fprintf(stderr, "the local account server did not start\n");
        return 1;
    }
    const std::string url = "http://127.0.0.1:" + std::to_string(port);

    velmora::bench::ScratchEnvironment scratch;
    std::printf("Idle cost of the library (10 s windows, after 3 s to settle)\n");
    velmora::Velmora::initialize("bench-app", "bench-client", url);
    const auto sdk = velmora::Velmora::instance();
    sdk->setIdentity(velmora::Identity::createAnonymous("Ann", std::nullopt));
    std::promise<bool> first;
    sdk->providerModule().user().getUser(
        [&first](velmora::Result<velmora::User> user) { first.set_value(user.isSuccess()); });
    const bool signedIn = first.get_future().get();
    velmora::Velmora::waitForPendingRequests(10s);
    const double afterInitialize = idleWakeupsPerSecond("after initialize and a first read");

    std::vector<std::future<bool>> answers;
    for (int i = 0; i < 50; ++i) {
        auto promise = std::make_shared<std::promise<bool>>();
        answers.push_back(promise->get_future());
        sdk->providerModule().user().getUser(
            [promise](velmora::Result<velmora::User> user) { promise->set_value(user.isSuccess()); });
    }
    int failed = 0;
    for (auto& answer : answers) {
        failed += answer.get() ? 0 : 1;
    }
    velmora::Velmora::waitForPendingRequests(10s);
    if (!signedIn || failed > 0) {
        std::fprintf(stderr, "%d of the burst's requests failed\n", failed);
    }
    const double afterBurst = idleWakeupsPerSecond("after a burst of 50 user reads");

    ::kill(server, SIGTERM);
    ::waitpid(server, nullptr, 0);
    velmora::bench::printRatio("idle_wakeups_per_s", std::max(afterInitialize, afterBurst));
    std::fflush(stdout);
    std::_Exit(0);
}
