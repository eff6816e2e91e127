#pragma once

#include <cstdint>
#include <filesystem>
#include <optional>
#include <vector>

#include "velmora/Errors.h"
#include "velmora/platform/Error.h"
#include "velmora/platform/Result.h"

namespace velmora::platform {

struct FileSystemSpace {
    std::uint64_t totalBytes = 0;
    std::uint64_t freeBytes = 0;
};

// File services with errors a person can read. Failures are values, never exceptions.
class FileManager {
  public:
    // Errors carry the POSIX errno as their code in this domain.
    static constexpr std::string_view errorDomain = errors::posixDomain;

    // The entries of a directory, without hidden ones (names starting with a dot), in no set order.
    static Result<std::vector<std::filesystem::path>> contentsOfDirectory(
        const std::filesystem::path& directory);
    // Removes a file, or a directory with everything in it.
    static std::optional<Error> removeItem(const std::filesystem::path& path);
    // Creates a directory and its missing parents with the given permissions (existing ones are kept).
    static std::optional<Error> createDirectory(const std::filesystem::path& directory,
                                                std::filesystem::perms permissions);
    // Size and free space of the file system that holds `path`.
    // Makes the file exist with owner-only permissions (0600), and narrows an existing one to them, before a
    // database library opens it with the process's umask.
    static void makePrivateFile(const std::filesystem::path& file);
    static Result<FileSystemSpace> fileSystemSpace(const std::filesystem::path& path);

    // The error for a failed operation on `path`, described for people ("The folder “velmora” doesn’t
    // exist.").
    static Error errorFor(int errorNumber, const std::filesystem::path& path, std::string_view action);
};

}  // namespace velmora::platform
