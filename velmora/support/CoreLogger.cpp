#include "velmora/support/CoreLogger.h"

#include <cxxabi.h>

#include <mutex>

#include "velmora/platform/SystemLog.h"

namespace velmora {

std::atomic<bool> CoreLogger::enabled_{false};
std::atomic<int> CoreLogger::level_{static_cast<int>(LogLevel::debug)};

namespace {

struct SinkSlot {
    std::mutex mutex;
    std::shared_ptr<LoggerType> logger = std::make_shared<ConsoleLogger>();
};

SinkSlot& sinkSlot() {
    static auto* slot = new SinkSlot();  // leaked: library threads may log during static destruction
    return *slot;
}

// The fixed format of each level, in the order of the levels' raw values.
constexpr std::string_view formats[] = {"[ERROR]: %@", "[WARNING]: %@", "[INFO]: %@", "[DEBUG]: %@",
                                        "[VERBOSE]: %@"};

std::string_view formatOf(LogLevel level) {
    return formats[static_cast<int>(level)];
}

// A format of the logger's own names its level; any other (a kit's) is informational.
LogLevel levelOfFormat(std::string_view format) {
    for (int raw = 0; raw <= static_cast<int>(LogLevel::verbose); ++raw) {
        if (formats[raw] == format) {
            return static_cast<LogLevel>(raw);
        }
    }
    return LogLevel::info;
}

}  // namespace

std::optional<LogLevel> logLevelFromRawValue(int rawValue) {
    if (rawValue < static_cast<int>(LogLevel::error) || rawValue > static_cast<int>(LogLevel::verbose)) {
        return std::nullopt;
    }
    return static_cast<LogLevel>(rawValue);
}

void ConsoleLogger::log(std::string_view format, std::string_view string) {
    platform::systemLog(levelOfFormat(format), format, string);
}

std::shared_ptr<LoggerType> LoggerConfig::logger() {
    auto& slot = sinkSlot();
    std::lock_guard lock(slot.mutex);
    return slot.logger;
}

void LoggerConfig::setLogger(std::shared_ptr<LoggerType> logger) {
    if (!logger) {
        logger = std::make_shared<ConsoleLogger>();
    }
    auto& slot = sinkSlot();
    std::lock_guard lock(slot.mutex);
    std::swap(slot.logger, logger);  // the old one goes after the lock: its destructor is the host's
}

void CoreLogger::emit(LogLevel level, std::string_view message) {
    if (isLogging(level)) {
        try {
            LoggerConfig::logger()->log(formatOf(level), message);
        } catch (abi::__forced_unwind&) {
            throw;       // a cancelled thread must unwind
        } catch (...) {  // the host's logger, called from anywhere in the library: it loses this line only
        }
    }
}

void CoreLogger::error(std::string_view message) {
    emit(LogLevel::error, message);
}
void CoreLogger::warn(std::string_view message) {
    emit(LogLevel::warn, message);
}
void CoreLogger::info(std::string_view message) {
    emit(LogLevel::info, message);
}
void CoreLogger::debug(std::string_view message) {
    emit(LogLevel::debug, message);
}
void CoreLogger::verbose(std::string_view message) {
    emit(LogLevel::verbose, message);
}

void CoreLogger::log(LogLevel level, const std::function<void()>& loggingBlock) {
    if (isLogging(level) && loggingBlock) {
        loggingBlock();
    }
}

}  // namespace velmora
