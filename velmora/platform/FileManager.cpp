#include "velmora/platform/FileManager.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <string>

namespace velmora::platform {

namespace fs = std::filesystem;

Error FileManager::errorFor(int errorNumber, const fs::path& path, std::string_view action) {
    const std::string name = path.filename().empty() ? path.string() : path.filename().string();
    std::string description;
    if (errorNumber == ENOENT) {
        description = "The folder \u201c" + name + "\u201d doesn\u2019t exist.";
    } else if (errorNumber == EACCES || errorNumber == EPERM) {
        description =
            "You don\u2019t have permission to " + std::string(action) + " \u201c" + name + "\u201d.";
    } else {
        description = "Could not " + std::string(action) + " \u201c" + name +
                      "\u201d: " + std::strerror(errorNumber) + ".";
    }
    return Error(std::string(errorDomain), errorNumber,
                 nlohmann::json{{std::string(Error::localizedDescriptionKey), description},
                                {"NSFilePath", path.string()}});
}

Result<std::vector<fs::path>> FileManager::contentsOfDirectory(const fs::path& directory) {
    using Entries = Result<std::vector<fs::path>>;
    std::unique_ptr<DIR, int (*)(DIR*)> dir(::opendir(directory.c_str()), &::closedir);
    if (!dir) {
        return Entries::error(errorFor(errno, directory, "view"));
    }
    std::vector<fs::path> entries;
    errno = 0;
    while (const dirent* entry = ::readdir(dir.get())) {
        if (entry->d_name[0] != '.') {
            entries.push_back(directory / entry->d_name);
        }
    }
    if (errno != 0) {
        return Entries::error(errorFor(errno, directory, "view"));
    }
    return Entries::success(std::move(entries));
}

std::optional<Error> FileManager::removeItem(const fs::path& path) {
    std::error_code error;
    if (fs::remove_all(path, error) == static_cast<std::uintmax_t>(-1) || error) {
        return errorFor(error.value(), path, "remove");
    }
    return std::nullopt;
}

std::optional<Error> FileManager::createDirectory(const fs::path& directory, fs::perms permissions) {
    std::error_code error;
    fs::path partial;
    for (const auto& component : directory) {
        partial /= component;
        if (fs::is_directory(partial, error)) {
            continue;
        }
        if (::mkdir(partial.c_str(), static_cast<mode_t>(permissions)) != 0 && errno != EEXIST) {
            return errorFor(errno, partial, "create");
        }
    }
    return std::nullopt;
}

void FileManager::makePrivateFile(const fs::path& file) {
    if (const int fd = ::open(file.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600); fd >= 0) {
        ::fchmod(fd, 0600);
        ::close(fd);
    }
}

Result<FileSystemSpace> FileManager::fileSystemSpace(const fs::path& path) {
    struct statvfs stats {};
    if (::statvfs(path.c_str(), &stats) != 0) {
        return Result<FileSystemSpace>::error(errorFor(errno, path, "read the file system of"));
    }
    const auto unit = static_cast<std::uint64_t>(stats.f_frsize);
    return Result<FileSystemSpace>::success({static_cast<std::uint64_t>(stats.f_blocks) * unit,
                                             static_cast<std::uint64_t>(stats.f_bavail) * unit});
}

}  // namespace velmora::platform
