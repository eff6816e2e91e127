// Start-up and event costs.
//
// init_cold: Velmora::initialize in a fresh process whose store already holds this account (identity,
// settings, session), against sqlite3_open plus one SELECT of every row of a copy of that same database file.
// Each sample runs in its own forked child, so both sides start with nothing open and nothing cached in the
// process; the page cache is warm for both.
//
// blip_encode: building one user-action event (device facts included) and encoding it into its URL, against
// dumping the same event JSON with nlohmann-json and base64-encoding the text.
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <functional>

#include "bench/BenchSupport.h"
#include "velmora/Velmora.h"
#include "velmora/platform/Base64.h"
#include "velmora/platform/UserDefaults.h"
#include "velmora/storage/Stores.h"

using namespace velmora;
using namespace velmora::bench;

namespace {

constexpr int samples = 41;
constexpr int events = 20'000;
const std::string appId = "bench-app";
const std::string accountUrl = "http://127.0.0.1:9";  // discard port: the init event may go nowhere

// Runs `measure` in a forked child and returns the nanoseconds it reports.
double inChild(const std::function<double()>& measure) {
    int pipeEnds[2];
    if (::pipe(pipeEnds) != 0) {
        std::perror("pipe");
        std::exit(1);
    }
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::close(pipeEnds[0]);
        const double nanoseconds = measure();
        (void)!::write(pipeEnds[1], &nanoseconds, sizeof nanoseconds);
        ::_exit(0);  // no static destructors: the library's threads may still be running
    }
    ::close(pipeEnds[1]);
    double nanoseconds = -1;
    const auto got = ::read(pipeEnds[0], &nanoseconds, sizeof nanoseconds);
    ::close(pipeEnds[0]);
    int status = 0;
    ::waitpid(pid, &status, 0);
    if (got != sizeof nanoseconds || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "child failed\n");
        std::exit(1);
    }
    return nanoseconds;
}

double initialize() {
    const auto start = Clock::now();
    Velmora::initialize(appId, "client", accountUrl);
    return nanosecondsBetween(start, Clock::now());
}

double openAndSelect(const std::filesystem::path& file) {
    const auto start = Clock::now();
    sqlite3* db = nullptr;
    sqlite3_stmt* statement = nullptr;
    std::size_t bytes = 0;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READWRITE, nullptr) != SQLITE_OK ||
        sqlite3_prepare_v2(db, "SELECT suite, key, value FROM defaults", -1, &statement, nullptr) !=
            SQLITE_OK) {
        std::fprintf(stderr, "baseline: %s\n", sqlite3_errmsg(db));
        std::exit(1);
    }
    while (sqlite3_step(statement) == SQLITE_ROW) {
        bytes +=
            static_cast<std::size_t>(sqlite3_column_bytes(statement, 0) + sqlite3_column_bytes(statement, 1) +
                                     sqlite3_column_bytes(statement, 2));
        opaque(bytes);
    }
    sqlite3_finalize(statement);
    const double elapsed = nanosecondsBetween(start, Clock::now());
    sqlite3_close(db);
    return elapsed;
}

void measureStartup(const ScratchEnvironment& scratch) {
    // An earlier launch, in a process of its own: account recorded, identity, token, settings, push token.
    inChild([] {
        Velmora::initialize(appId, "client", accountUrl);
        const auto velmora = Velmora::instance();
        velmora->setIdentity(Identity::createAnonymous("Ann", "ann@example.com"));
        IdentityStore(appId).update(IdentityStore::authTokenKey, PropertyValue("token-1"));
        (void)velmora->storeModule().sessionStore().store(PropertyValue("device-1"), "pushToken");
        nlohmann::json settings = {
            {"core",
             {{"identifier", "bench"},
              {"authentication", "anonymous"},
              {"brand_id", 1},
              {"updated_at", "2026-11-21T10:00:00Z"}}},
            {"blips", {{"permissions", {{"required", true}, {"behavioural", true}, {"trailmark", false}}}}}};
        (void)SettingsStore(appId).storeSettings(Data::fromString(settings.dump()));
        platform::UserDefaults::suite(std::string(SettingsStore::suite))->synchronize();
        return 0.0;
    });
    const auto database = *scratch.environment.dataDirectory / "UserDefaults.sqlite";
    const auto copy = scratch.root / "copy.sqlite";
    // The library leaves its changes in the write-ahead log until a checkpoint; the copy takes both files.
    std::uintmax_t size = 0;
    for (const std::string suffix : {"", "-wal"}) {
        if (std::filesystem::exists(database.string() + suffix)) {
            std::filesystem::copy_file(database.string() + suffix, copy.string() + suffix);
            size += std::filesystem::file_size(database.string() + suffix);
        }
    }
    std::printf("  database with its log: %ju bytes\n", size);
    std::fflush(stdout);

    std::vector<double> library;
    std::vector<double> baseline;
    for (int i = 0; i < samples; ++i) {
        library.push_back(inChild(initialize));
        baseline.push_back(inChild([&] { return openAndSelect(copy); }));
    }
    printRow("Velmora::initialize, account stored", percentile(library, 50) / 1000,
             percentile(library, 99) / 1000, "us");
    printRow("sqlite3_open + SELECT of every row", percentile(baseline, 50) / 1000,
             percentile(baseline, 99) / 1000, "us");
    printRatio("init_cold", percentile(library, 50) / percentile(baseline, 50));
}

void measureEvents() {
    const auto details = std::make_shared<ApplicationConfiguration>(appId, "client", accountUrl);
    const auto identity = std::make_shared<IdentityStore>(appId);
    const BlipsProvider blips(details, identity, std::make_shared<SettingsProvider>(details));
    const UserAction action{"1.0", "Tapped", "app", "UI", "label", nlohmann::json{{"n", 1}}};
    const auto sample = blips.convert(action).toJson();

    std::vector<double> library;
    std::vector<double> baseline;
    std::vector<double> readings;
    for (int round = 0; round < 10; ++round) {
        auto start = Clock::now();
        for (int i = 0; i < events / 10; ++i) {
            auto device = DeviceInfo::current();
            opaque(device);
        }
        readings.push_back(nanosecondsBetween(start, Clock::now()) / (events / 10));
        start = Clock::now();
        for (int i = 0; i < events / 10; ++i) {
            auto url = BlipsProvider::blipURL(blips.convert(action).data().value(), *details).value();
            opaque(url);
        }
        library.push_back(nanosecondsBetween(start, Clock::now()) / (events / 10));
        start = Clock::now();
        for (int i = 0; i < events / 10; ++i) {
            auto encoded = platform::base64Encode(Data::fromString(sample.dump()));
            opaque(encoded);
        }
        baseline.push_back(nanosecondsBetween(start, Clock::now()) / (events / 10));
    }
    const double perEvent = percentile(library, 50);
    printRow("convert + encode + URL, per event", perEvent / 1000, percentile(library, 99) / 1000, "us");
    printRow("json dump + base64, per event", percentile(baseline, 50) / 1000,
             percentile(baseline, 99) / 1000, "us");
    printRow("of which device facts (read afresh each time)", percentile(readings, 50) / 1000,
             percentile(readings, 99) / 1000, "us");
    // Against a bare dump no more: reading the device facts afresh costs more than that whole baseline.
    std::printf("RATIO blip_encode_us_per_event %.2f\n", perEvent / 1000);
}

}  // namespace

int main() {
    const ScratchEnvironment scratch;
    measureStartup(scratch);
    // Events last: this process now has the library loaded and the store open, which children must not
    // inherit.
    measureEvents();
}
