#pragma once

#include "velmora/platform/DateFormatter.h"

namespace velmora {

// The two date forms of the account's REST interface, en_US and GMT.
class DateStringParser {
  public:
    // "yyyy-MM-dd'T'HH:mm:ss.SSS'Z'": analytics events.
    static const platform::DateFormatter& withMilliseconds();
    // "yyyy-MM-dd'T'HH:mm:ss'Z'": settings and user fields.
    static const platform::DateFormatter& withoutMilliseconds();
};

}  // namespace velmora
