#pragma once

#include <sys/types.h>

#include <filesystem>
#include <functional>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "velmora/platform/PropertyList.h"

namespace velmora::testing {

// Reads what is committed to a user-defaults file through a connection of its own, as a later launch would.
std::optional<PropertyValue> persistedValue(const std::filesystem::path& file, const std::string& suite,
                                            const std::string& key);

// Runs `body` in a forked child, which exits with what `body` returns.
pid_t forkChild(const std::function<int()>& body);
// How a child ended: its exit code, or 128 + the signal that ended it; -1 for no child.
int waitForChild(pid_t child);

// Other programs, run as separate processes the way a user runs them.
// Starts `arguments` (the program first) with its standard output and error written to the files `out` and
// `err`; returns the child's process id, or 0 when it could not be started.
pid_t spawnWithOutput(std::vector<std::string> arguments, const std::filesystem::path& out,
                      const std::filesystem::path& err);
// What waitpid's `status` says of how a child ended: its exit code, or 128 + the signal that ended it.
int exitStatusOf(int status);
// A whole file as text; empty when it cannot be read.
std::string readFile(const std::filesystem::path& file);

// One run of a program to its end, its output kept in `directory`.
struct ProcessRun {
    int exitCode = -1;
    std::string out;
    std::string err;
    nlohmann::json errJson() const { return nlohmann::json::parse(err, nullptr, false); }
};
ProcessRun runProgram(const std::filesystem::path& directory, std::vector<std::string> arguments);

}  // namespace velmora::testing
