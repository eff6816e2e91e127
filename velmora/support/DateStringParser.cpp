#include "velmora/support/DateStringParser.h"

namespace velmora {

const platform::DateFormatter& DateStringParser::withMilliseconds() {
    static const platform::DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ss.SSS'Z'");
    return formatter;
}

const platform::DateFormatter& DateStringParser::withoutMilliseconds() {
    static const platform::DateFormatter formatter("yyyy-MM-dd'T'HH:mm:ss'Z'");
    return formatter;
}

}  // namespace velmora
