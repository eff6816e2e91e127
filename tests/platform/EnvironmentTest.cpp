// The host environment: directories, locale and kernel readings, files, and notifications.
#include "velmora/platform/Environment.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <algorithm>
#include <fstream>
#include <tuple>

#include "tests/support/LibraryTest.h"
#include "velmora/platform/DeviceFacts.h"
#include "velmora/platform/FileManager.h"
#include "velmora/platform/NotificationCenter.h"

namespace velmora::testing {
namespace {

using namespace platform;
namespace fs = std::filesystem;

// Each test runs in a process of its own: changing the process environment here touches no other test.
TEST(EnvironmentTest, LinuxDefaultsFollowTheXdgBaseDirectories) {
    ::setenv("HOME", "/home/ada", 1);
    ::unsetenv("XDG_DATA_HOME");
    ::setenv("XDG_CACHE_HOME", "/var/cache/ada", 1);
    ::setenv("XDG_DOCUMENTS_DIR", "relative/ignored", 1);
    const auto env = Environment::linuxDefaults("velmora-cli");
    EXPECT_EQ(env.dataDirectory, "/home/ada/.local/share/velmora-cli");
    EXPECT_EQ(env.cachesDirectory, "/var/cache/ada/velmora-cli");
    EXPECT_EQ(env.documentsDirectory, "/home/ada/Documents") << "XDG paths must be absolute to count";

    ::unsetenv("HOME");
    ::unsetenv("XDG_CACHE_HOME");
    const auto homeless = Environment::linuxDefaults("velmora-cli");
    EXPECT_FALSE(homeless.cachesDirectory.has_value() || homeless.dataDirectory.has_value());
}

TEST(EnvironmentTest, PreferredLanguagesComeFromTheLocaleSettingsInPriorityOrder) {
    const std::pair<const char*, std::optional<std::string>> tags[] = {
        {"en_US.UTF-8", "en-US"}, {"de_DE@euro", "de-DE"}, {"pt", "pt"}, {"C.UTF-8", {}}, {"POSIX", {}}};
    for (const auto& [locale, tag] : tags) {
        EXPECT_EQ(platform::languageTagFromLocale(locale), tag) << locale;
    }

    platform::LinuxDeviceFacts facts;
    ::setenv("LANGUAGE", "fr_CA:fr::en_US", 1);
    ::setenv("LC_ALL", "", 1);
    ::setenv("LC_MESSAGES", "en_US.UTF-8", 1);
    ::setenv("LANG", "nl_NL.UTF-8", 1);
    EXPECT_EQ(facts.preferredLanguages(), (std::vector<std::string>{"fr-CA", "fr", "en-US"}));
    ::unsetenv("LANGUAGE");
    ::unsetenv("LC_MESSAGES");
    ::setenv("LANG", "C", 1);
    EXPECT_EQ(facts.preferredLanguages(), (std::vector<std::string>{"en"}));
}

TEST(EnvironmentTest, TheKernelReadingsAreThoseOfARunningProcess) {
    const auto linux = platform::DeviceFacts::current();
    EXPECT_FALSE(linux->systemName().empty());
    EXPECT_GT(linux->residentMemoryBytes().value_or(0), 0u);
    EXPECT_LT(*linux->residentMemoryBytes(), linux->physicalMemoryBytes().value_or(0));
}

using FileManagerTest = LibraryTest;

// Hidden directories are seen to be skipped too in StoresTest, when the cache directory is cleared.
TEST_F(FileManagerTest, FileListingsSkipHiddenEntriesRemovalTakesEverythingAndFailuresAreReadable) {
    const auto dir = root / "listing";
    fs::create_directories(dir / "sub" / "deep");
    for (const char* name : {"a.txt", ".hidden", "sub/deep/b.txt"}) {
        std::ofstream(dir / name) << "x";
    }
    auto names = FileManager::contentsOfDirectory(dir).value();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<fs::path>{dir / "a.txt", dir / "sub"}));
    EXPECT_EQ(FileManager::removeItem(dir), std::nullopt);
    EXPECT_EQ(FileManager::removeItem(dir), std::nullopt) << "removing what is gone already is no failure";
    const auto missing = FileManager::contentsOfDirectory(dir).error();  // ENOENT: the removal took it all
    EXPECT_EQ(std::tuple(missing.domain(), missing.code()), std::tuple("NSPOSIXErrorDomain", ENOENT));
    std::ofstream(root / "file") << "x";
    EXPECT_EQ(FileManager::contentsOfDirectory(root / "file").error().localizedDescription(),
              "Could not view \u201cfile\u201d: Not a directory.");
}

TEST(NotificationCenterTest, DeliversByNameInOrderAndObserversMayRemoveThemselvesAndPostWhileNotified) {
    NotificationCenter center;
    std::vector<std::string> seen;
    NotificationCenter::ObserverToken named = 0;
    named = center.addObserver("velmoraNotInitialised", [&](const Notification& n) {
        seen.push_back("named:" + n.name + ":" + n.userInfo.value("why", std::string()));
        center.removeObserver(named);
        center.post("echo");
    });
    center.addObserver("", [&](const Notification& n) { seen.push_back("all:" + n.name); });
    center.post("other");
    center.post("velmoraNotInitialised", {}, {{"why", "no instance"}});
    center.post("velmoraNotInitialised");
    EXPECT_EQ(seen,
              (std::vector<std::string>{"all:other", "named:velmoraNotInitialised:no instance", "all:echo",
                                        "all:velmoraNotInitialised", "all:velmoraNotInitialised"}));
}

}  // namespace
}  // namespace velmora::testing
