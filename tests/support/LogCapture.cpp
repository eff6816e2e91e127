#include "tests/support/LogCapture.h"

#include <algorithm>

namespace velmora::testing {

void LogCapture::append(LogLevel level, std::string line) {
    std::lock_guard lock(mutex_);
    levels_.push_back(level);
    lines_.push_back(std::move(line));
}

std::vector<std::string> LogCapture::lines() const {
    std::lock_guard lock(mutex_);
    return lines_;
}

std::vector<LogLevel> LogCapture::levels() const {
    std::lock_guard lock(mutex_);
    return levels_;
}

std::size_t LogCapture::count(std::string_view line) const {
    std::lock_guard lock(mutex_);
    return static_cast<std::size_t>(std::count(lines_.begin(), lines_.end(), line));
}

std::vector<std::string> LogCapture::linesStartingWith(std::string_view prefix) const {
    std::lock_guard lock(mutex_);
    std::vector<std::string> found;
    for (const auto& line : lines_) {
        if (line.starts_with(prefix)) {
            found.push_back(line);
        }
    }
    return found;
}

void LogCapture::clear() {
    std::lock_guard lock(mutex_);
    lines_.clear();
    levels_.clear();
}

}  // namespace velmora::testing
