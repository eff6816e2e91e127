// SessionStore.store (which synchronizes) against the least a durable write can cost, pwrite + fdatasync of
// the same bytes in the same directory, alone and while a second process keeps writing the same database;
// SessionStore.value against an unordered_map lookup; and the number of file syncs each synchronize costs.
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <string>
#include <thread>
#include <unordered_map>

#include "bench/BenchSupport.h"
#include "velmora/platform/Environment.h"
#include "velmora/platform/PropertyList.h"
#include "velmora/platform/UserDefaults.h"
#include "velmora/storage/SessionStore.h"

using namespace velmora;
using namespace velmora::bench;

// Every file sync of the process, counted: the executable's definitions take precedence over libc's for
// calls from SQLite, and pass them on.
static std::atomic<int> fileSyncs{0};
extern "C" int fsync(int fd) {
    static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fsync"));
    fileSyncs.fetch_add(1);
    return real(fd);
}
extern "C" int fdatasync(int fd) {
    static auto real = reinterpret_cast<int (*)(int)>(dlsym(RTLD_NEXT, "fdatasync"));
    fileSyncs.fetch_add(1);
    return real(fd);
}

namespace {

constexpr int rounds = 10;
constexpr int writesPerRound = 30;
constexpr int reads = 200'000;

// The second process: stores into the same database's session suite, for another app id, until killed.
[[noreturn]] void writeUntilKilled(const char* dataDirectory) {
    auto environment = platform::Environment::linuxDefaults("velmora-bench");
    environment.dataDirectory = dataDirectory;
    platform::Environment::install(environment);
    const SessionStore other("bench-other-app");
    for (long i = 0;; ++i) {
        (void)other.store(PropertyValue(std::to_string(i)), "counter");
    }
}

}  // namespace

extern char** environ;

int main(int argc, char** argv) {
    if (argc == 3 && std::string(argv[1]) == "--writer") {
        writeUntilKilled(argv[2]);
    }
    const ScratchEnvironment scratch;
    const auto& env = scratch.environment;

    const SessionStore store("bench-app");
    const std::string token(64, 'a');
    (void)store.store(PropertyValue(token), "pushToken");  // creates the file and its WAL

    const auto bytes = platform::encodeBinaryPropertyList(PropertyValue::Dictionary{{"pushToken", token}});
    const auto rawPath = *env.dataDirectory / "raw.bin";
    const int fd = ::open(rawPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);

    std::vector<double> storeSamples;
    std::vector<double> rawSamples;
    std::vector<int> syncsPerStore;
    for (int r = 0; r < rounds; ++r) {
        for (int i = 0; i < writesPerRound; ++i) {
            const auto before = fileSyncs.load();
            const auto start = Clock::now();
            const bool ok = store.store(PropertyValue(token + std::to_string(i % 10)), "pushToken");
            storeSamples.push_back(nanosecondsBetween(start, Clock::now()));
            syncsPerStore.push_back(fileSyncs.load() - before);
            if (!ok) {
                std::fprintf(stderr, "store failed\n");
                return 1;
            }
        }
        for (int i = 0; i < writesPerRound; ++i) {
            const auto start = Clock::now();
            if (::pwrite(fd, bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size()) ||
                ::fdatasync(fd) != 0) {
                std::perror("raw write");
                return 1;
            }
            rawSamples.push_back(nanosecondsBetween(start, Clock::now()));
        }
    }
    ::close(fd);

    std::vector<double> sharedSamples;
    std::string dataDirectory = env.dataDirectory->string();
    std::string writerFlag = "--writer";
    char* writerArguments[] = {argv[0], writerFlag.data(), dataDirectory.data(), nullptr};
    pid_t writer = 0;
    if (posix_spawn(&writer, "/proc/self/exe", nullptr, nullptr, writerArguments, environ) != 0) {
        std::perror("posix_spawn");
        return 1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));  // until it writes steadily
    for (int i = 0; i < rounds * writesPerRound; ++i) {
        const auto start = Clock::now();
        const bool ok = store.store(PropertyValue(token + std::to_string(i % 10)), "pushToken");
        sharedSamples.push_back(nanosecondsBetween(start, Clock::now()));
        if (!ok) {
            std::fprintf(stderr, "store failed while another process wrote\n");
            return 1;
        }
    }
    ::kill(writer, SIGKILL);
    ::waitpid(writer, nullptr, 0);

    const auto idleBefore = fileSyncs.load();
    const bool idleOk = store.defaults()->synchronize();
    const int idleSyncs = fileSyncs.load() - idleBefore;

    std::unordered_map<std::string, std::string> map{{"pushToken", token}, {"other", "x"}};
    std::string key = "pushToken";
    std::size_t sink = 0;
    auto start = Clock::now();
    for (int i = 0; i < reads; ++i) {
        opaque(key);
        const auto it = map.find(key);
        sink += it->second.size();
    }
    const double mapNs = nanosecondsBetween(start, Clock::now()) / reads;
    start = Clock::now();
    for (int i = 0; i < reads; ++i) {
        opaque(key);
        const auto value = store.value(key);
        sink += value->getIf<std::string>()->size();
    }
    const double valueNs = nanosecondsBetween(start, Clock::now()) / reads;

    int maxSyncs = 0;
    double totalSyncs = 0;
    for (const int n : syncsPerStore) {
        maxSyncs = std::max(maxSyncs, n);
        totalSyncs += n;
    }

    std::printf("storage: durable write of one session value (%d samples each)\n", rounds * writesPerRound);
    printRow("pwrite + fdatasync of the same bytes", percentile(rawSamples, 50) / 1000,
             percentile(rawSamples, 99) / 1000, "us");
    printRow("SessionStore.store (synchronizes)", percentile(storeSamples, 50) / 1000,
             percentile(storeSamples, 99) / 1000, "us");
    printRow("the same, another process writing too", percentile(sharedSamples, 50) / 1000,
             percentile(sharedSamples, 99) / 1000, "us");
    std::printf("storage: file syncs per synchronize: mean %.2f, max %d; with nothing pending: %d (%s)\n",
                totalSyncs / static_cast<double>(syncsPerStore.size()), maxSyncs, idleSyncs,
                idleOk ? "ok" : "failed");
    std::printf("storage: read of one session value (%d reads, checksum %zu)\n", reads, sink % 10);
    std::printf("  %-44s %10.1f ns\n", "std::unordered_map::find", mapNs);
    std::printf("  %-44s %10.1f ns\n", "SessionStore.value", valueNs);

    printRatio("storage_sync", percentile(storeSamples, 50) / percentile(rawSamples, 50));
    printRatio("storage_sync_two_processes", percentile(sharedSamples, 50) / percentile(rawSamples, 50));
    printRatio("storage_read", valueNs / mapNs);
    std::printf("RATIO storage_syncs_per_synchronize %.2f\n",
                totalSyncs / static_cast<double>(syncsPerStore.size()));

    return 0;
}
