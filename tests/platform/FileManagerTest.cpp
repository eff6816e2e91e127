#include "velmora/platform/FileManager.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>

#include "tests/support/LibraryTest.h"

namespace velmora::testing {
namespace {

using platform::FileManager;
namespace fs = std::filesystem;

class FileManagerTest : public LibraryTest {
  protected:
    void touch(const fs::path& path) {
        fs::create_directories(path.parent_path());
        std::ofstream(path) << "x";
    }
};

TEST_F(FileManagerTest, ListingSkipsHiddenEntriesAndRemovalTakesEverything) {
    const auto dir = root / "listing";
    touch(dir / "a.txt");
    touch(dir / ".hidden");
    touch(dir / "sub" / "deep" / "b.txt");
    fs::create_directories(dir / ".git");

    auto listed = FileManager::contentsOfDirectory(dir);
    ASSERT_TRUE(listed.isSuccess()) << listed.error().description();
    auto names = listed.value();
    std::sort(names.begin(), names.end());
    EXPECT_EQ(names, (std::vector<fs::path>{dir / "a.txt", dir / "sub"}));

    EXPECT_EQ(FileManager::removeItem(dir), std::nullopt);
    EXPECT_FALSE(fs::exists(dir));
    EXPECT_EQ(FileManager::removeItem(dir), std::nullopt) << "removing what is gone already is no failure";
}

TEST_F(FileManagerTest, FailuresCarryAReadableDescription) {
    const auto missing = FileManager::contentsOfDirectory(root / "nowhere" / "velmora");
    ASSERT_TRUE(missing.isError());
    EXPECT_EQ(missing.error().domain(), "NSPOSIXErrorDomain");
    EXPECT_EQ(missing.error().code(), ENOENT);

    touch(root / "file");
    const auto notADirectory = FileManager::contentsOfDirectory(root / "file");
    ASSERT_TRUE(notADirectory.isError());
    EXPECT_EQ(notADirectory.error().localizedDescription(),
              "Could not view \u201cfile\u201d: Not a directory.");
}

TEST_F(FileManagerTest, CreatesDirectoriesWithTheGivenPermissionsAndFailsBelowAFile) {
    const auto dir = root / "one" / "two";
    ASSERT_EQ(FileManager::createDirectory(dir, fs::perms::owner_all), std::nullopt);
    struct stat info {};
    ASSERT_EQ(::stat(dir.c_str(), &info), 0);
    EXPECT_EQ(info.st_mode & 0777, 0700u);
    EXPECT_EQ(FileManager::createDirectory(dir, fs::perms::owner_all), std::nullopt) << "existing is fine";

    touch(root / "blocker");
    EXPECT_TRUE(FileManager::createDirectory(root / "blocker" / "child", fs::perms::owner_all).has_value());
}

}  // namespace
}  // namespace velmora::testing
