#pragma once

namespace velmora::platform {

// Least to most verbose. Every line of the library's log carries one, the logger's messages and the
// platform's own reports alike, so that a host's sink can route lines by severity.
enum class LogLevel : int { error = 0, warn = 1, info = 2, debug = 3, verbose = 4 };

}  // namespace velmora::platform
