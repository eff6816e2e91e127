#include "velmora/platform/Environment.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include "velmora/platform/DeviceFacts.h"

namespace velmora::testing {
namespace {

using platform::DeviceFacts;
using platform::Environment;
using platform::languageTagFromLocale;

// Each test runs in a process of its own, so changing the process environment here touches no other test.

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
    EXPECT_FALSE(homeless.cachesDirectory.has_value());
    EXPECT_FALSE(homeless.dataDirectory.has_value());
}

TEST(EnvironmentTest, PreferredLanguagesComeFromTheLocaleSettingsInPriorityOrder) {
    EXPECT_EQ(languageTagFromLocale("en_US.UTF-8"), "en-US");
    EXPECT_EQ(languageTagFromLocale("de_DE@euro"), "de-DE");
    EXPECT_EQ(languageTagFromLocale("pt"), "pt");
    EXPECT_EQ(languageTagFromLocale("C.UTF-8"), std::nullopt);
    EXPECT_EQ(languageTagFromLocale("POSIX"), std::nullopt);

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
    const auto linux = DeviceFacts::current();
    EXPECT_FALSE(linux->systemName().empty());
    EXPECT_GT(linux->physicalMemoryBytes().value_or(0), 0u);
    EXPECT_GT(linux->residentMemoryBytes().value_or(0), 0u);
    EXPECT_LT(*linux->residentMemoryBytes(), *linux->physicalMemoryBytes());
}

}  // namespace
}  // namespace velmora::testing
