#include "velmora/support/CoreLogger.h"

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

}  // namespace

std::optional<LogLevel> logLevelFromRawValue(int rawValue) {
    if (rawValue < static_cast<int>(LogLevel::error) || rawValue > static_cast<int>(LogLevel::verbose)) {
        return std::nullopt;
    }
    return static_cast<LogLevel>(rawValue);
}

void ConsoleLogger::log(std::string_view format, std::string_view string) {
    platform::systemLog(format, string);
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
    slot.logger = std::move(logger);
}

void CoreLogger::emit(LogLevel level, std::string_view format, std::string_view message) {
    if (isLogging(level)) {
        LoggerConfig::logger()->log(format, message);
    }
}

void CoreLogger::error(std::string_view message) {
    emit(LogLevel::error, "[ERROR]: %@", message);
}
void CoreLogger::warn(std::string_view message) {
    emit(LogLevel::warn, "[WARNING]: %@", message);
}
void CoreLogger::info(std::string_view message) {
    emit(LogLevel::info, "[INFO]: %@", message);
}
void CoreLogger::debug(std::string_view message) {
    emit(LogLevel::debug, "[DEBUG]: %@", message);
}
void CoreLogger::verbose(std::string_view message) {
    emit(LogLevel::verbose, "[VERBOSE]: %@", message);
}

void CoreLogger::log(LogLevel level, const std::function<void()>& loggingBlock) {
    if (isLogging(level) && loggingBlock) {
        loggingBlock();
    }
}

}  // namespace velmora
