#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/platform/LogLevel.h"

namespace velmora {

using LogLevel = platform::LogLevel;

// The level for a raw value, or nothing outside 0...4.
VELMORA_EXPORT std::optional<LogLevel> logLevelFromRawValue(int rawValue);

// Where the logger's output goes. `format` holds exactly one "%@", for `string`. Hosts receive the log
// through the environment's log sink, which also gets the level; a LoggerType replaces the formatting
// itself, for kits that forward the logger's messages elsewhere.
class VELMORA_EXPORT LoggerType {
  public:
    virtual ~LoggerType() = default;
    virtual void log(std::string_view format, std::string_view string) = 0;
};

// The default sink: one line through the platform log per message, at the level its format's tag names.
class VELMORA_EXPORT ConsoleLogger : public LoggerType {
  public:
    void log(std::string_view format, std::string_view string) override;
};

class VELMORA_EXPORT LoggerConfig {
  public:
    // The sink in use; never empty (setting an empty one restores the console).
    static std::shared_ptr<LoggerType> logger();
    static void setLogger(std::shared_ptr<LoggerType> logger);
};

// The library's one logger. Off until the host turns it on; safe to switch from any thread.
class VELMORA_EXPORT CoreLogger {
  public:
    static bool enabled() { return enabled_.load(std::memory_order_relaxed); }
    static void setEnabled(bool enabled) { enabled_.store(enabled, std::memory_order_relaxed); }
    static LogLevel logLevel() { return static_cast<LogLevel>(level_.load(std::memory_order_relaxed)); }
    static void setLogLevel(LogLevel level) {
        level_.store(static_cast<int>(level), std::memory_order_relaxed);
    }

    static void error(std::string_view message);
    static void warn(std::string_view message);
    static void info(std::string_view message);
    static void debug(std::string_view message);
    static void verbose(std::string_view message);

    // Runs the block on this thread when a message of `level` would be emitted; the block does its own
    // output.
    static void log(LogLevel level, const std::function<void()>& loggingBlock);

    // Whether a message of `level` would be emitted now; lets callers skip composing one that would not.
    static bool isLogging(LogLevel level) {
        return enabled() && static_cast<int>(level) <= level_.load(std::memory_order_relaxed);
    }

  private:
    static void emit(LogLevel level, std::string_view message);

    static std::atomic<bool> enabled_;
    static std::atomic<int> level_;
};

}  // namespace velmora
