// The local account server for people: serves the account's REST interface until SIGINT or SIGTERM.
//   velmora-mock [--port PORT] [--host ADDR] [--state FILE] [--script FILE] [--log FILE] [--tls CERT KEY]
// --state: users, devices, events, settings and user fields are loaded from FILE at start (none: an empty
// account) and saved back to it, atomically, when the server is stopped. --script: scripted answers in their
// JSON form. --log: every request appended to FILE as one JSON line. The admin calls under /__mock/ read the
// request log, add answers, reset the server to how it started and read its state.
#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "tools/velmora-mock/AccountServer.h"

namespace {

using nlohmann::json;
using velmora::mock::AccountServer;

constexpr const char* usageLine =
    "usage: velmora-mock [--port PORT] [--host ADDR] [--state FILE] [--script FILE] [--log FILE] "
    "[--tls CERT KEY]\n";

int usage(const std::string& problem) {
    std::fprintf(stderr, "velmora-mock: %s\n%s", problem.c_str(), usageLine);
    return 2;
}

// A file named on the command line that cannot be used stops the server before it takes the port.
int fileProblem(const std::string& file, const std::string& problem) {
    std::fprintf(stderr, "velmora-mock: %s: %s\n", file.c_str(), problem.c_str());
    return 2;
}

std::optional<int> portNumber(const std::string& text) {
    int port = -1;
    const auto [end, failure] = std::from_chars(text.data(), text.data() + text.size(), port);
    if (failure != std::errc() || end != text.data() + text.size() || port < 0 || port > 65535) {
        return std::nullopt;
    }
    return port;
}

std::filesystem::path directoryOf(const std::string& file) {
    const auto parent = std::filesystem::path(file).parent_path();
    return parent.empty() ? std::filesystem::path(".") : parent;
}

// The whole of `file`; nothing when there is no such file. Throws std::runtime_error when it cannot be read
// (a directory, no permission).
std::optional<std::string> readFile(const std::string& file) {
    const int fd = ::open(file.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0 && errno == ENOENT) {
        return std::nullopt;
    }
    if (fd < 0) {
        throw std::runtime_error(std::string("cannot read it: ") + std::strerror(errno));
    }
    std::string text;
    char buffer[1 << 16];
    for (;;) {
        const ssize_t n = ::read(fd, buffer, sizeof buffer);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n <= 0) {
            const int failure = n < 0 ? errno : 0;
            ::close(fd);
            if (failure != 0) {
                throw std::runtime_error(std::string("cannot read it: ") + std::strerror(failure));
            }
            return text;
        }
        text.append(buffer, static_cast<std::size_t>(n));
    }
}

// The JSON document in `file`; nothing when there is no such file. Throws std::runtime_error saying why it
// cannot be used.
std::optional<json> readJson(const std::string& file) {
    const auto text = readFile(file);
    if (!text) {
        return std::nullopt;
    }
    try {
        // In place: json converts to almost anything, std::optional included, which makes `return json`
        // ambiguous.
        return std::optional<json>(std::in_place, json::parse(*text));
    } catch (const json::parse_error& e) {
        throw std::runtime_error(std::string("not valid JSON: ") + e.what());
    }
}

// Writes FILE.tmp, flushes it to the disk and renames it over FILE: whenever the process or the machine
// stops, FILE holds the old state or the new one, whole. Throws std::runtime_error.
void saveAtomically(const std::string& file, const std::string& text) {
    const std::string temporary = file + ".tmp";
    // A new file is private (it holds access tokens); an existing one keeps its mode.
    struct stat existing {};
    const mode_t mode = ::stat(file.c_str(), &existing) == 0 ? (existing.st_mode & 07777) : mode_t{0600};
    const int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, mode);
    if (fd < 0) {
        throw std::runtime_error("cannot create " + temporary + ": " + std::strerror(errno));
    }
    const auto fail = [&temporary](const char* what, int failure, int descriptor) {
        if (descriptor >= 0) {
            ::close(descriptor);
        }
        ::unlink(temporary.c_str());
        throw std::runtime_error(std::string(what) + " " + temporary + ": " + std::strerror(failure));
    };
    std::size_t written = 0;
    while (written < text.size()) {
        const ssize_t n = ::write(fd, text.data() + written, text.size() - written);
        if (n < 0 && errno == EINTR) {
            continue;
        }
        if (n < 0) {
            fail("cannot write", errno, fd);
        }
        written += static_cast<std::size_t>(n);
    }
    // open() narrowed the mode by the umask.
    if (::fchmod(fd, mode) != 0) {
        fail("cannot set the mode of", errno, fd);
    }
    if (::fsync(fd) != 0) {
        fail("cannot flush", errno, fd);
    }
    if (::close(fd) != 0) {
        fail("cannot close", errno, -1);
    }
    if (::rename(temporary.c_str(), file.c_str()) != 0) {
        fail("cannot rename", errno, -1);
    }
    // The rename itself lasts once the directory is flushed as well.
    const int directory = ::open(directoryOf(file).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (directory >= 0) {
        ::fsync(directory);
        ::close(directory);
    }
}

}  // namespace

int main(int argc, char** argv) {
    // Blocked before the server's threads start, which inherit the mask: SIGINT and SIGTERM wait for the
    // sigwait() below, which saves the state, instead of ending the process; SIGPIPE (a client gone in the
    // middle of a TLS answer) is never delivered.
    sigset_t stopSignals;
    sigemptyset(&stopSignals);
    sigaddset(&stopSignals, SIGINT);
    sigaddset(&stopSignals, SIGTERM);
    sigset_t blocked = stopSignals;
    sigaddset(&blocked, SIGPIPE);
    pthread_sigmask(SIG_BLOCK, &blocked, nullptr);

    AccountServer::Options options;
    std::string stateFile;
    std::string scriptFile;
    std::string logFile;
    const std::map<std::string, std::string*> textOptions{
        {"--host", &options.host}, {"--state", &stateFile}, {"--script", &scriptFile}, {"--log", &logFile}};
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        // The word after the option; none (or an empty one) is a usage error.
        const auto value = [&]() -> std::optional<std::string> {
            if (i + 1 >= argc || argv[i + 1][0] == '\0') {
                return std::nullopt;
            }
            return std::string(argv[++i]);
        };
        if (const auto it = textOptions.find(arg); it != textOptions.end()) {
            const auto text = value();
            if (!text) {
                return usage(arg + " needs a value");
            }
            *it->second = *text;
        } else if (arg == "--port") {
            const auto text = value();
            const auto port = text ? portNumber(*text) : std::nullopt;
            if (!port) {
                return usage("--port needs a number from 0 to 65535 (0: any free port)");
            }
            options.port = *port;
        } else if (arg == "--tls") {
            const auto certificate = value();
            const auto key = certificate ? value() : std::nullopt;
            if (!key) {
                return usage("--tls needs a certificate file and a key file");
            }
            options.certificate = *certificate;
            options.privateKey = *key;
        } else if (arg == "--help") {
            std::printf("%s", usageLine);
            return 0;
        } else {
            return usage("unknown argument " + arg);
        }
    }

    // Every file is read and checked before the port is taken.
    json startState = json::object();
    if (!stateFile.empty()) {
        try {
            if (const auto saved = readJson(stateFile)) {
                AccountServer::checkState(*saved);
                startState = *saved;
            } else if (std::error_code ignored;
                       !std::filesystem::is_directory(directoryOf(stateFile), ignored)) {
                return fileProblem(stateFile, "no such file, nor a directory to save it in");
            }
        } catch (const std::exception& e) {
            return fileProblem(stateFile, e.what());
        }
    }
    std::vector<velmora::mock::ScriptEntry> script;
    if (!scriptFile.empty()) {
        try {
            const auto answers = readJson(scriptFile);
            if (!answers) {
                return fileProblem(scriptFile, "no such file");
            }
            script = velmora::mock::parseScriptedAnswers(*answers);
        } catch (const std::exception& e) {
            return fileProblem(scriptFile, e.what());
        }
    }
    std::ofstream requestLog;
    if (!logFile.empty()) {
        requestLog.open(logFile, std::ios::app);
        if (!requestLog) {
            return fileProblem(logFile, std::string("cannot open it for appending: ") + std::strerror(errno));
        }
        // Flushed line by line, so that whoever reads the file sees each request once it is answered.
        options.onRequest = [&requestLog](const velmora::mock::RecordedRequest& request) {
            requestLog << request.logEntry().dump(-1, ' ', false, json::error_handler_t::replace) << '\n'
                       << std::flush;
        };
    }

    std::unique_ptr<AccountServer> server;
    try {
        server = std::make_unique<AccountServer>(options);
    } catch (const std::exception& e) {
        // A port in use, an address not this machine's, a certificate or key that cannot be read.
        std::fprintf(stderr, "%s\n", e.what());
        return 2;
    }
    server->loadState(startState);
    for (auto& entry : script) {
        server->script(std::move(entry.method), std::move(entry.path), std::move(entry.answer));
    }
    server->markStart();
    std::printf("velmora-mock listening on %s\n", server->url().c_str());
    std::fflush(stdout);

    int received = 0;
    sigwait(&stopSignals, &received);
    server->stop();
    if (!stateFile.empty()) {
        // Keys this version does not know stay in the file: a save never holds less than the load did.
        json saved = startState;
        const json current = server->state();
        for (const auto& part : current.items()) {
            saved[part.key()] = part.value();
        }
        try {
            saveAtomically(stateFile, saved.dump(2, ' ', false, json::error_handler_t::replace) + "\n");
        } catch (const std::exception& e) {
            std::fprintf(stderr, "velmora-mock: %s: the state was not saved: %s\n", stateFile.c_str(),
                         e.what());
            return 1;
        }
    }
    return 0;
}
