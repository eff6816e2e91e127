#include "velmora/support/DateStringParser.h"

namespace velmora {

const platform::DateFormatter& DateStringParser::withMilliseconds() {
    // Leaked, like every static a library thread may use while the process exits.
    static const auto& formatter = *new platform::DateFormatter("yyyy-MM-dd'T'HH:mm:ss.SSS'Z'");
    return formatter;
}

const platform::DateFormatter& DateStringParser::withoutMilliseconds() {
    static const auto& formatter = *new platform::DateFormatter("yyyy-MM-dd'T'HH:mm:ss'Z'");
    return formatter;
}

}  // namespace velmora
