#include "velmora/platform/Date.h"

#include <cmath>

namespace velmora::platform {

Date Date::now() {
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return Date(std::chrono::duration_cast<std::chrono::milliseconds>(since).count());
}

Date Date::fromSecondsSince1970(double seconds) {
    return Date(static_cast<std::int64_t>(std::llround(seconds * 1000.0)));
}

Date Date::addingTimeInterval(double seconds) const {
    return Date(milliseconds_ + static_cast<std::int64_t>(std::llround(seconds * 1000.0)));
}

}  // namespace velmora::platform
