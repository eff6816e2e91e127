#include "tests/support/PersistedDefaults.h"

#include <fcntl.h>
#include <spawn.h>
#include <sqlite3.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <sstream>

extern char** environ;

namespace velmora::testing {

std::optional<PropertyValue> persistedValue(const std::filesystem::path& file, const std::string& suite,
                                            const std::string& key) {
    std::optional<PropertyValue> found;
    sqlite3* db = nullptr;
    if (sqlite3_open_v2(file.c_str(), &db, SQLITE_OPEN_READONLY, nullptr) == SQLITE_OK) {
        sqlite3_stmt* statement = nullptr;
        if (sqlite3_prepare_v2(db, "SELECT suite, key, value FROM defaults", -1, &statement, nullptr) ==
            SQLITE_OK) {
            while (sqlite3_step(statement) == SQLITE_ROW) {
                if (suite == reinterpret_cast<const char*>(sqlite3_column_text(statement, 0)) &&
                    key == reinterpret_cast<const char*>(sqlite3_column_text(statement, 1))) {
                    found = platform::decodeBinaryPropertyList(
                        Data(sqlite3_column_blob(statement, 2),
                             static_cast<std::size_t>(sqlite3_column_bytes(statement, 2))));
                }
            }
        }
        sqlite3_finalize(statement);
    }
    sqlite3_close_v2(db);
    return found;
}

pid_t forkChild(const std::function<int()>& body) {
    const pid_t child = ::fork();
    if (child == 0) {
        std::_Exit(body());
    }
    return child;
}

int waitForChild(pid_t child) {
    int status = 0;
    return child > 0 && ::waitpid(child, &status, 0) == child ? exitStatusOf(status) : -1;
}

pid_t spawnWithOutput(std::vector<std::string> arguments, const std::filesystem::path& out,
                      const std::filesystem::path& err) {
    std::vector<char*> argv;
    for (auto& argument : arguments) {
        argv.push_back(argument.data());
    }
    argv.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&actions, 2, err.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    pid_t pid = 0;
    if (posix_spawn(&pid, argv[0], &actions, nullptr, argv.data(), environ) != 0) {
        pid = 0;
    }
    posix_spawn_file_actions_destroy(&actions);
    return pid;
}

int exitStatusOf(int status) {
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
}

std::string readFile(const std::filesystem::path& file) {
    std::stringstream text;
    text << std::ifstream(file).rdbuf();
    return text.str();
}

ProcessRun runProgram(const std::filesystem::path& directory, std::vector<std::string> arguments) {
    const int exitCode =
        waitForChild(spawnWithOutput(std::move(arguments), directory / "stdout", directory / "stderr"));
    return {exitCode, readFile(directory / "stdout"), readFile(directory / "stderr")};
}

}  // namespace velmora::testing
