#pragma once

#include <chrono>
#include <cstdint>

#include "velmora/Export.h"

namespace velmora::platform {

// A point in time with millisecond precision, on the system clock. Everything the library stores or sends
// (settings age, event timestamps) needs no finer grain, and whole milliseconds survive every round trip.
class VELMORA_EXPORT Date {
  public:
    Date() = default;

    static Date now();
    static Date fromMillisecondsSince1970(std::int64_t milliseconds) { return Date(milliseconds); }
    static Date fromSecondsSince1970(double seconds);

    std::int64_t millisecondsSince1970() const { return milliseconds_; }
    double timeIntervalSince1970() const { return static_cast<double>(milliseconds_) / 1000.0; }
    // Seconds from `other` to this date; negative when this date is earlier.
    double timeIntervalSince(const Date& other) const {
        return static_cast<double>(milliseconds_ - other.milliseconds_) / 1000.0;
    }
    Date addingTimeInterval(double seconds) const;

    friend auto operator<=>(const Date&, const Date&) = default;

  private:
    explicit Date(std::int64_t milliseconds) : milliseconds_(milliseconds) {}
    std::int64_t milliseconds_ = 0;
};

}  // namespace velmora::platform

namespace velmora {
using platform::Date;
}
