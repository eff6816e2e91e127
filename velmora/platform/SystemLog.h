#pragma once

#include <string>
#include <string_view>

#include "velmora/platform/LogLevel.h"

namespace velmora::platform {

// The platform log: `format` with `argument` substituted for its "%@", handed to the environment's log
// sink as one line. Always on; the library's own logger decides what reaches it.
void systemLog(LogLevel level, std::string_view format, std::string_view argument);
// Writes a line to the sink as it is. A sink that throws loses that line only.
void systemLogLine(LogLevel level, std::string_view message);

// What the exception being handled says of itself, for a log line or an error; called inside a catch block
// (after any handler for a cancelled thread's unwinding, which must be rethrown).
std::string thrownDescription();

// While one lives on a thread, the lines that thread logs are held, and written when the outermost one
// ends. Declared before a lock is taken, it keeps the host's log sink, which may call back into the
// library, from running under that lock.
class LogsAfterUnlock {
  public:
    LogsAfterUnlock();
    ~LogsAfterUnlock();
    LogsAfterUnlock(const LogsAfterUnlock&) = delete;
    LogsAfterUnlock& operator=(const LogsAfterUnlock&) = delete;
};

}  // namespace velmora::platform
