#include "velmora/platform/DateFormatter.h"

#include <cstdint>
#include <limits>

#include "velmora/platform/Fatal.h"
#include "velmora/platform/Format.h"

namespace velmora::platform {
namespace {

// Days since 1970-01-01 of a proleptic Gregorian date, and back (H. Hinnant's civil-date algorithms).
constexpr std::int64_t daysFromCivil(std::int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const std::int64_t era = (y >= 0 ? y : y - 399) / 400;
    const auto yoe = static_cast<unsigned>(y - era * 400);
    const unsigned doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + static_cast<std::int64_t>(doe) - 719468;
}

struct Civil {
    std::int64_t year;
    unsigned month;
    unsigned day;
};

constexpr Civil civilFromDays(std::int64_t z) {
    z += 719468;
    const std::int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const auto doe = static_cast<unsigned>(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    const unsigned d = doy - (153 * mp + 2) / 5 + 1;
    const unsigned m = mp < 10 ? mp + 3 : mp - 9;
    return {static_cast<std::int64_t>(yoe) + era * 400 + (m <= 2), m, d};
}

constexpr unsigned daysInMonth(std::int64_t year, unsigned month) {
    constexpr unsigned days[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    return month == 2 && leap ? 29 : days[month - 1];
}

std::int64_t floorDiv(std::int64_t a, std::int64_t b) {
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)));
}

void appendPadded(std::string& out, std::int64_t value, std::size_t width) {
    std::string digits = std::to_string(value < 0 ? -value : value);
    if (digits.size() < width) {
        digits.insert(0, width - digits.size(), '0');
    }
    if (value < 0) {
        out += '-';
    }
    out += digits;
}

}  // namespace

DateFormatter::DateFormatter(std::string_view pattern) : pattern_(pattern) {
    for (std::size_t i = 0; i < pattern.size();) {
        const char c = pattern[i];
        if (c == '\'') {
            const auto close = pattern.find('\'', i + 1);
            if (close == std::string_view::npos) {
                fatalError("DateFormatter: unterminated quote in pattern " + pattern_);
            }
            tokens_.push_back({Field::literal, 0, std::string(pattern.substr(i + 1, close - i - 1))});
            i = close + 1;
            continue;
        }
        std::size_t run = 1;
        while (i + run < pattern.size() && pattern[i + run] == c) {
            ++run;
        }
        Field field = Field::literal;
        switch (c) {
            case 'y':
                field = Field::year;
                break;
            case 'M':
                field = Field::month;
                break;
            case 'd':
                field = Field::day;
                break;
            case 'H':
                field = Field::hour;
                break;
            case 'm':
                field = Field::minute;
                break;
            case 's':
                field = Field::second;
                break;
            case 'S':
                field = Field::millisecond;
                break;
            default:
                if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z')) {
                    fatalError("DateFormatter: unsupported pattern letter in " + pattern_);
                }
        }
        tokens_.push_back({field, field == Field::literal ? 0 : run,
                           field == Field::literal ? std::string(run, c) : std::string()});
        i += run;
    }
}

std::string DateFormatter::string(const Date& date) const {
    const std::int64_t ms = date.millisecondsSince1970();
    const std::int64_t days = floorDiv(ms, 86'400'000);
    const std::int64_t msOfDay = ms - days * 86'400'000;
    const Civil civil = civilFromDays(days);
    std::string out;
    for (const auto& token : tokens_) {
        switch (token.field) {
            case Field::literal:
                out += token.text;
                break;
            case Field::year:
                appendPadded(out, civil.year, token.width);
                break;
            case Field::month:
                appendPadded(out, civil.month, token.width);
                break;
            case Field::day:
                appendPadded(out, civil.day, token.width);
                break;
            case Field::hour:
                appendPadded(out, msOfDay / 3'600'000, token.width);
                break;
            case Field::minute:
                appendPadded(out, msOfDay / 60'000 % 60, token.width);
                break;
            case Field::second:
                appendPadded(out, msOfDay / 1000 % 60, token.width);
                break;
            case Field::millisecond:
                appendPadded(out, msOfDay % 1000, token.width);
                break;
        }
    }
    return out;
}

std::optional<Date> DateFormatter::date(std::string_view text) const {
    std::int64_t year = 1970;
    std::int64_t month = 1, day = 1, hour = 0, minute = 0, second = 0, millisecond = 0;
    std::size_t at = 0;
    for (const auto& token : tokens_) {
        if (token.field == Field::literal) {
            if (text.substr(at, token.text.size()) != token.text) {
                return std::nullopt;
            }
            at += token.text.size();
            continue;
        }
        if (at + token.width > text.size()) {
            return std::nullopt;
        }
        const auto digits =
            decimalDigits(text.substr(at, token.width), std::numeric_limits<std::int64_t>::max());
        if (!digits) {
            return std::nullopt;
        }
        const auto value = static_cast<std::int64_t>(*digits);
        at += token.width;
        switch (token.field) {
            case Field::year:
                year = value;
                break;
            case Field::month:
                month = value;
                break;
            case Field::day:
                day = value;
                break;
            case Field::hour:
                hour = value;
                break;
            case Field::minute:
                minute = value;
                break;
            case Field::second:
                second = value;
                break;
            case Field::millisecond:
                millisecond = value;
                break;
            case Field::literal:
                break;
        }
    }
    if (at != text.size() || month < 1 || month > 12 || day < 1 ||
        day > daysInMonth(year, static_cast<unsigned>(month)) || hour > 23 || minute > 59 || second > 59) {
        return std::nullopt;
    }
    const std::int64_t days = daysFromCivil(year, static_cast<unsigned>(month), static_cast<unsigned>(day));
    return Date::fromMillisecondsSince1970(((days * 24 + hour) * 60 + minute) * 60'000 + second * 1000 +
                                           millisecond);
}

}  // namespace velmora::platform
