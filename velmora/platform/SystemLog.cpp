#include "velmora/platform/SystemLog.h"

#include <cxxabi.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "velmora/platform/Environment.h"
#include "velmora/platform/Fatal.h"
#include "velmora/platform/Format.h"

namespace velmora::platform {
namespace {

void writeToStandardError(const std::string& process, std::string_view message) {
    const auto now = std::chrono::system_clock::now();
    const auto millis =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    std::tm utc{};
    gmtime_r(&seconds, &utc);
    char stamp[32];
    const auto stampLength = std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &utc);

    std::string line(stamp, stampLength);
    char ids[96];
    std::snprintf(ids, sizeof ids, ".%03dZ %s[%d:%ld] ", static_cast<int>(millis), process.c_str(),
                  static_cast<int>(getpid()), static_cast<long>(syscall(SYS_gettid)));
    line += ids;
    line += message;
    line += '\n';
    // One write per line so that lines from different threads never interleave.
    std::size_t written = 0;
    while (written < line.size()) {
        const auto n = ::write(STDERR_FILENO, line.data() + written, line.size() - written);
        if (n <= 0) {
            return;
        }
        written += static_cast<std::size_t>(n);
    }
}

using HeldLines = std::vector<std::pair<LogLevel, std::string>>;
thread_local int holding = 0;  // LogsAfterUnlock alive on this thread
// A plain pointer, made on the first line held: a thread-local object is destroyed before a host's static
// destructors run, which may still call the library at exit.
thread_local HeldLines* held = nullptr;

HeldLines takeHeld() {
    HeldLines lines;
    if (held != nullptr) {
        lines.swap(*held);
        delete std::exchange(held, nullptr);
    }
    return lines;
}

}  // namespace

LogsAfterUnlock::LogsAfterUnlock() {
    ++holding;
}

LogsAfterUnlock::~LogsAfterUnlock() {
    if (--holding == 0) {
        for (const auto& [level, line] : takeHeld()) {
            systemLogLine(level, line);
        }
    }
}

void systemLogLine(LogLevel level, std::string_view message) {
    if (holding > 0) {
        if (held == nullptr) {
            held = new HeldLines();
        }
        held->emplace_back(level, message);
        return;
    }
    const auto env = Environment::current();
    if (!env->logSink) {
        writeToStandardError(env->applicationDomainName, message);
        return;
    }
    try {
        env->logSink(level, message);
    } catch (abi::__forced_unwind&) {
        throw;       // a cancelled thread must unwind
    } catch (...) {  // the host's code, called from anywhere in the library (destructors included)
    }
}

std::string thrownDescription() {
    try {
        throw;
    } catch (const std::exception& thrown) {
        return thrown.what();
    } catch (...) {
        return "an exception of an unknown type";
    }
}

void systemLog(LogLevel level, std::string_view format, std::string_view argument) {
    const std::string arguments[] = {std::string(argument)};
    systemLogLine(level, formatArguments(format, arguments));
}

void fatalError(std::string_view message) {
    // The process ends here. Lines held under a lock go to standard error, not to the host's sink, which may
    // want that lock.
    const bool underLock = holding > 0;
    holding = 0;
    const std::string process = Environment::current()->applicationDomainName;
    for (const auto& [level, line] : takeHeld()) {
        writeToStandardError(process, line);
    }
    const auto line = std::string("Fatal error: ") + std::string(message);
    underLock ? writeToStandardError(process, line) : systemLogLine(LogLevel::error, line);
    std::abort();
}

}  // namespace velmora::platform
