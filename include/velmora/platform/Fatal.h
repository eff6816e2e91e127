#pragma once

#include <string_view>

#include "velmora/Export.h"

namespace velmora::platform {

// Logs the message through the platform log and aborts the process. Reserved for the few states the
// library cannot continue from (a storage suite that cannot exist, a URL that cannot be formed) and for
// broken internal invariants; bad input from hosts, disks or the network never ends here.
[[noreturn]] VELMORA_EXPORT void fatalError(std::string_view message);

}  // namespace velmora::platform
