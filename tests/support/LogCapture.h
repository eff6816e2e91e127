#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/support/CoreLogger.h"

namespace velmora::testing {

// Collects what reaches the environment's log sink, so tests can assert it exactly: the logger's output
// ("[DEBUG]: text") and the platform log's ("Fatal error: ...", dispatch reports), with their levels.
// Thread-safe.
class LogCapture {
  public:
    void append(LogLevel level, std::string line);

    std::vector<std::string> lines() const;
    std::vector<LogLevel> levels() const;
    bool contains(std::string_view line) const { return count(line) > 0; }
    std::size_t count(std::string_view line) const;
    // Lines that start with `prefix`.
    std::vector<std::string> linesStartingWith(std::string_view prefix) const;
    void clear();

  private:
    mutable std::mutex mutex_;
    std::vector<std::string> lines_;
    std::vector<LogLevel> levels_;
};

}  // namespace velmora::testing
