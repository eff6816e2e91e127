#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velmora/platform/Date.h"

namespace velmora::platform {

// Formats and parses dates in GMT with the en_US locale's digits, by a fixed pattern of the platform's
// date-format syntax. The library only needs numeric fields: yyyy, MM, dd, HH, mm, ss and SSS, literal
// text in single quotes, and punctuation. Parsing is strict: every field has exactly its width in digits,
// values must exist on the calendar, and the whole text must be consumed.
class DateFormatter {
  public:
    // A pattern letter other than the supported fields is a programming error and aborts.
    explicit DateFormatter(std::string_view pattern);

    const std::string& pattern() const { return pattern_; }

    std::string string(const Date& date) const;
    std::optional<Date> date(std::string_view text) const;

  private:
    enum class Field { literal, year, month, day, hour, minute, second, millisecond };
    struct Token {
        Field field;
        std::size_t width;
        std::string text;  // literals only
    };

    std::string pattern_;
    std::vector<Token> tokens_;
};

}  // namespace velmora::platform
