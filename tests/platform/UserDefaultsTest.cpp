#include "velmora/platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <array>
#include <fstream>
#include <thread>

#include "tests/support/Awaited.h"
#include "tests/support/LibraryTest.h"
#include "tests/support/PersistedDefaults.h"

namespace velmora::testing {
namespace {

using platform::UserDefaults;
namespace fs = std::filesystem;

class UserDefaultsTest : public LibraryTest {
  protected:
    fs::path file() const { return *environment.dataDirectory / "UserDefaults.sqlite"; }
    std::optional<PropertyValue> persisted(const std::string& suite, const std::string& key) const {
        return persistedValue(file(), "com.velmora.tests." + suite, key);
    }
    static std::shared_ptr<UserDefaults> suite(const std::string& name) {
        return UserDefaults::suite("com.velmora.tests." + name);
    }

    static PropertyValue everyKind() {
        // clang-format off
        return PropertyValue::Dictionary{
            {"string \u00e9", "caf\u00e9 \u2615\U0001F600"}, {"false", false}, {"true", true},
            {"data", Data::fromString(std::string("\0\x01\xff", 3))},
            {"date", Date::fromMillisecondsSince1970(1'795'289'368'005)},
            {"old date", Date::fromMillisecondsSince1970(-86'400'123)},
            {"just before 2001", Date::fromMillisecondsSince1970(978'307'199'500)},
            {"zero", 0}, {"negative", std::int64_t{-9'007'199'254'740'993}},
            {"large", std::int64_t{9'223'372'036'854'775'807}}, {"real", 0.1},
            {"array", PropertyValue::Array{1, "two", PropertyValue::Array{}, PropertyValue::Dictionary{}}},
            {"nested", PropertyValue::Dictionary{{"inner", PropertyValue::Dictionary{{"deep", 3.5}}}}}};
        // clang-format on
    }
};

// Written by another process that is then killed, so that what is read can only have come from the file. That
// a new key set but never synchronized stays off the disk is checked on the file itself, below.
TEST_F(UserDefaultsTest, AKilledProcessLeavesExactlyTheSynchronizedValuesOfEveryKind) {
    const auto expected = everyKind();
    const int status = waitForChild(forkChild([&] {
        const auto killed = suite("kill");
        killed->set("value", expected);
        killed->set("kept", "synchronized");
        killed->set("overwritten", 1);
        if (!killed->synchronize()) {
            return 1;
        }
        killed->set("overwritten", 2);
        killed->removeObject("kept");
        return ::raise(SIGKILL);
    }));
    ASSERT_EQ(status, 128 + SIGKILL);

    const auto read = suite("kill");
    EXPECT_EQ((std::vector{read->object("value"), read->object("kept"), read->object("overwritten")}),
              (std::vector<std::optional<PropertyValue>>{expected, "synchronized", 1}));
    EXPECT_EQ(fs::status(file().parent_path()).permissions() & fs::perms::all, fs::perms::owner_all);
}

// That a synchronized removal leaves the disk is checked through the legacy identity migrator's records.
TEST_F(UserDefaultsTest, ChangesAreSharedAtOnceButReachTheDiskOnlyThroughSynchronize) {
    const auto writer = suite("view"), reader = suite("view");
    writer->set("key", "value");
    EXPECT_EQ(reader->object("key"), PropertyValue("value"));
    EXPECT_EQ(persisted("view", "key"), std::nullopt);
    EXPECT_TRUE(reader->synchronize()) << "any handle on the suite synchronizes its changes";
    EXPECT_EQ(persisted("view", "key"), PropertyValue("value"));

    const auto wal = file().string() + "-wal";
    const auto stamp = [&] { return std::pair(fs::last_write_time(wal), fs::file_size(wal)); };
    const auto before = stamp();
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(writer->synchronize());
    EXPECT_TRUE(stamp() == before) << "nothing pending: the file is not touched";

    writer->removeObject("key");
    EXPECT_EQ(reader->object("key"), std::nullopt);
}

// That the domain leaves the disk at once is checked through the legacy identity migrator's push suite.
TEST_F(UserDefaultsTest, RemovingADomainDeletesOnlyThatSuiteInMemoryAndOnDisk) {
    const auto doomed = suite("doomed"), kept = suite("kept");
    doomed->set("a", 1);
    ASSERT_TRUE(doomed->synchronize());
    doomed->set("b", 2);  // pending, never synchronized
    kept->set("a", 1);
    ASSERT_TRUE(kept->synchronize());

    kept->removePersistentDomain("com.velmora.tests.doomed");
    EXPECT_EQ(doomed->object("a"), std::nullopt);
    EXPECT_TRUE(doomed->synchronize());
    EXPECT_EQ(persisted("doomed", "b"), std::nullopt) << "a removed domain's pending change";
    EXPECT_EQ(persisted("kept", "a"), PropertyValue(1));
}

TEST_F(UserDefaultsTest, ThreadsSynchronizingDifferentSuitesBothPersist) {
    const auto writer = [](std::string name) {
        const auto written = suite(name);
        for (int i = 0; i < 200; ++i) {
            written->set("counter", i);
            written->set("owner", name);
            ASSERT_TRUE(written->synchronize());
        }
    };
    for (auto& thread : std::array{std::thread(writer, "first"), std::thread(writer, "second")}) {
        thread.join();
    }
    for (const char* name : {"first", "second"}) {
        EXPECT_EQ(persisted(name, "counter"), PropertyValue(199)) << name;
        EXPECT_EQ(persisted(name, "owner"), PropertyValue(name));
    }
}

// Under a host's usual umask of 022, whatever the library creates is still the owner's alone. The host's log
// sink may use the store while the store reports the damage.
TEST_F(UserDefaultsTest, AFileThatIsNotADatabaseIsMovedAsideAndAFreshPrivateOneUsed) {
    ::umask(022);
    fs::create_directories(file().parent_path());
    std::ofstream(file(), std::ios::binary) << std::string(8192, '\x5a');
    environment.logSink = [capture = logs](LogLevel level, std::string_view line) {
        capture->append(level, std::string(line));
        (void)suite("sink")->object("x");
    };
    platform::Environment::install(environment);
    std::shared_ptr<UserDefaults> fresh;
    ASSERT_TRUE(returnsWithin([&fresh] { fresh = suite("corrupt"); }));
    fresh->set("fresh", true);
    EXPECT_TRUE(fresh->synchronize());
    EXPECT_EQ(persisted("corrupt", "fresh"), PropertyValue(true));

    const auto reports =
        logs->linesStartingWith("UserDefaults error: " + file().string() + " is not a valid database");
    ASSERT_EQ(reports.size(), 1u);
    std::size_t aside = 0;
    for (const auto& entry : fs::directory_iterator(file().parent_path())) {
        if (entry.path().filename().string().starts_with("UserDefaults.sqlite.corrupt-")) {
            ++aside;
            EXPECT_EQ(fs::file_size(entry.path()), 8192u) << "the damaged file is kept, unchanged";
            EXPECT_NE(reports[0].find(entry.path().string()), std::string::npos);
        }
        EXPECT_EQ(fs::status(entry.path()).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write)
            << entry.path() << " is readable by others";
    }
    EXPECT_EQ(aside, 1u);
    EXPECT_TRUE(fs::exists(file().string() + "-wal") && fs::exists(file().string() + "-shm"));
}

TEST_F(UserDefaultsTest, ValuesPrintAsLogLinesShowThem) {
    EXPECT_EQ(platform::textOf(everyKind()),
              "[array: [1, two, [], [:]], data: 3 bytes, date: 2026-11-21 19:29:28 +0000, false: false, "
              "just before 2001: 2000-12-31 23:59:59 +0000, large: 9223372036854775807, negative: "
              "-9007199254740993, nested: [inner: [deep: 3.5]], old date: 1969-12-30 23:59:59 +0000, "
              "real: 0.1, string \u00e9: caf\u00e9 \u2615\U0001F600, true: true, zero: 0]");
    EXPECT_EQ(platform::textOf(std::optional<PropertyValue>()), "nil");
}

}  // namespace
}  // namespace velmora::testing
