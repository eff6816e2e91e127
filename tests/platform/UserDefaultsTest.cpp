#include "velmora/platform/UserDefaults.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>

#include <fstream>
#include <random>
#include <thread>

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
        return persistedValue(file(), suite, key);
    }

    static PropertyValue everyKind() {
        // clang-format off
        return PropertyValue::Dictionary{
            {"string", "caf\u00e9 \u2615"}, {"data", Data::fromString(std::string("\0\x01\xff", 3))},
            {"date", Date::fromMillisecondsSince1970(1'795'289'368'005)},
            {"old date", Date::fromMillisecondsSince1970(-86'400'123)},
            {"just before 2001", Date::fromMillisecondsSince1970(978'307'199'500)},
            {"zero", 0}, {"negative", std::int64_t{-9'007'199'254'740'993}},
            {"large", std::int64_t{9'223'372'036'854'775'807}}, {"real", 0.1}, {"true", true},
            {"false", false},
            {"array", PropertyValue::Array{1, "two", PropertyValue::Array{}, PropertyValue::Dictionary{}}},
            {"nested", PropertyValue::Dictionary{{"inner", PropertyValue::Dictionary{{"deep", 3.5}}}}}};
        // clang-format on
    }
};

// Written by another process that is then killed, so that what is read can only have come from the file.
TEST_F(UserDefaultsTest, AKilledProcessLeavesExactlyTheSynchronizedValuesOfEveryKind) {
    const auto expected = everyKind();
    const int status = runInChild([&] {
        const auto suite = UserDefaults::suite("com.velmora.tests.kill");
        suite->set("value", expected);
        suite->set("kept", "synchronized");
        suite->set("overwritten", 1);
        if (!suite->synchronize()) {
            std::_Exit(1);
        }
        suite->set("overwritten", 2);
        suite->set("lost", "never synchronized");
        suite->removeObject("kept");
        ::raise(SIGKILL);
    });
    ASSERT_EQ(status, 128 + SIGKILL);

    const auto suite = UserDefaults::suite("com.velmora.tests.kill");
    EXPECT_EQ(suite->object("value"), expected);
    EXPECT_EQ(suite->object("kept"), PropertyValue("synchronized"));
    EXPECT_EQ(suite->object("overwritten"), PropertyValue(1));
    EXPECT_EQ(suite->object("lost"), std::nullopt);
    EXPECT_EQ(fs::status(file().parent_path()).permissions() & fs::perms::all, fs::perms::owner_all);
}

TEST_F(UserDefaultsTest, ChangesAreSharedAtOnceButReachTheDiskOnlyThroughSynchronize) {
    const auto writer = UserDefaults::suite("com.velmora.tests.view");
    const auto reader = UserDefaults::suite("com.velmora.tests.view");
    writer->set("key", "value");
    EXPECT_EQ(reader->object("key"), PropertyValue("value"));
    EXPECT_EQ(persisted("com.velmora.tests.view", "key"), std::nullopt);
    EXPECT_TRUE(reader->synchronize()) << "any handle on the suite synchronizes its changes";
    EXPECT_EQ(persisted("com.velmora.tests.view", "key"), PropertyValue("value"));

    // Nothing pending: the file is not touched.
    struct stat before {};
    struct stat after {};
    const auto wal = file().string() + "-wal";
    ASSERT_EQ(::stat(wal.c_str(), &before), 0);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_TRUE(writer->synchronize());
    ASSERT_EQ(::stat(wal.c_str(), &after), 0);
    EXPECT_EQ(before.st_mtim.tv_nsec, after.st_mtim.tv_nsec);
    EXPECT_EQ(before.st_size, after.st_size);

    writer->removeObject("key");
    EXPECT_EQ(reader->object("key"), std::nullopt);
    EXPECT_TRUE(writer->synchronize());
    EXPECT_EQ(persisted("com.velmora.tests.view", "key"), std::nullopt);
}

TEST_F(UserDefaultsTest, RemovingADomainDeletesOnlyThatSuiteInMemoryAndOnDisk) {
    const auto doomed = UserDefaults::suite("com.velmora.tests.doomed");
    const auto kept = UserDefaults::suite("com.velmora.tests.kept");
    doomed->set("a", 1);
    ASSERT_TRUE(doomed->synchronize());
    doomed->set("b", 2);  // pending, never synchronized
    kept->set("a", 1);
    ASSERT_TRUE(kept->synchronize());

    kept->removePersistentDomain("com.velmora.tests.doomed");
    EXPECT_EQ(doomed->object("a"), std::nullopt);
    EXPECT_EQ(doomed->object("b"), std::nullopt);
    EXPECT_EQ(persisted("com.velmora.tests.doomed", "a"), std::nullopt);
    EXPECT_TRUE(doomed->synchronize());
    EXPECT_EQ(persisted("com.velmora.tests.doomed", "b"), std::nullopt)
        << "a removed domain's pending change";
    EXPECT_EQ(kept->object("a"), PropertyValue(1));
    EXPECT_EQ(persisted("com.velmora.tests.kept", "a"), PropertyValue(1));
}

TEST_F(UserDefaultsTest, ThreadsSynchronizingDifferentSuitesBothPersist) {
    const auto writer = [](std::string suiteName) {
        const auto suite = UserDefaults::suite(suiteName);
        for (int i = 0; i < 200; ++i) {
            suite->set("counter", i);
            suite->set("key-" + std::to_string(i % 7), suiteName);
            ASSERT_TRUE(suite->synchronize());
        }
    };
    std::thread first(writer, "com.velmora.tests.first");
    std::thread second(writer, "com.velmora.tests.second");
    first.join();
    second.join();
    for (const char* suite : {"com.velmora.tests.first", "com.velmora.tests.second"}) {
        EXPECT_EQ(persisted(suite, "counter"), PropertyValue(199)) << suite;
        EXPECT_EQ(persisted(suite, "key-6"), PropertyValue(suite));
    }
}

// Under a host's usual umask of 022, whatever the library creates is still the owner's alone.
TEST_F(UserDefaultsTest, AFileThatIsNotADatabaseIsMovedAsideAndAFreshPrivateOneUsed) {
    ::umask(022);
    fs::create_directories(file().parent_path());
    {
        std::mt19937 random(11);
        std::ofstream out(file(), std::ios::binary);
        for (int i = 0; i < 8192; ++i) {
            out.put(static_cast<char>(random()));
        }
    }
    const auto suite = UserDefaults::suite("com.velmora.tests.corrupt");
    EXPECT_EQ(suite->object("anything"), std::nullopt);
    suite->set("fresh", true);
    EXPECT_TRUE(suite->synchronize());
    EXPECT_EQ(persisted("com.velmora.tests.corrupt", "fresh"), PropertyValue(true));

    const auto reports =
        logs->linesStartingWith("UserDefaults error: " + file().string() + " is not a valid database");
    ASSERT_EQ(reports.size(), 1u);
    std::size_t aside = 0;
    for (const auto& entry : fs::directory_iterator(file().parent_path())) {
        if (entry.path().filename().string().starts_with("UserDefaults.sqlite.corrupt-")) {
            ++aside;
            EXPECT_EQ(fs::file_size(entry.path()), 8192u)
                << "the damaged file is kept for inspection, unchanged";
            EXPECT_NE(reports[0].find(entry.path().string()), std::string::npos);
        }
        EXPECT_EQ(fs::status(entry.path()).permissions() & fs::perms::all,
                  fs::perms::owner_read | fs::perms::owner_write)
            << entry.path() << " is readable by others";
    }
    EXPECT_EQ(aside, 1u);
    for (const char* suffix : {"", "-wal", "-shm"}) {
        EXPECT_TRUE(fs::exists(file().string() + suffix)) << suffix;
    }
}

TEST_F(UserDefaultsTest, ValuesPrintAsLogLinesShowThem) {
    EXPECT_EQ(platform::textOf(everyKind()),
              "[array: [1, two, [], [:]], data: 3 bytes, date: 2026-11-21 19:29:28 +0000, false: false, "
              "just before 2001: 2000-12-31 23:59:59 +0000, large: 9223372036854775807, negative: "
              "-9007199254740993, nested: [inner: [deep: 3.5]], old date: 1969-12-30 23:59:59 +0000, "
              "real: 0.1, string: caf\u00e9 \u2615, true: true, zero: 0]");
    EXPECT_EQ(platform::textOf(std::optional<PropertyValue>()), "nil");
}

}  // namespace
}  // namespace velmora::testing
