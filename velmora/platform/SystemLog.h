#pragma once

#include <string_view>

#include "velmora/platform/LogLevel.h"

namespace velmora::platform {

// The platform log: `format` with `argument` substituted for its "%@", handed to the environment's log
// sink as one line. Always on; the library's own logger decides what reaches it.
void systemLog(LogLevel level, std::string_view format, std::string_view argument);
// Writes a line to the sink as it is.
void systemLogLine(LogLevel level, std::string_view message);

}  // namespace velmora::platform
