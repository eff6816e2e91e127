#pragma once

#include <string>
#include <string_view>

#include "velmora/platform/Error.h"

namespace velmora::platform {

// A header's text without the spaces and tabs around it.
std::string_view trimmedField(std::string_view text);
// ASCII letters in lower case, as header names and directives compare.
std::string lowercased(std::string_view text);

// What may stand in a header field: a name is a token; a value holds no CR, LF or NUL, which would end the
// field early and let the rest be read as another header or another request.
bool isHeaderName(std::string_view name);
bool isHeaderValue(std::string_view value);

// Whether the text stays one path segment when put into a URL as it is: printable ASCII without "/", "\",
// "?", "#" or "%", and neither "." nor "..", which a URL parser resolves away.
bool isPathSegment(std::string_view text);

// The URL error for a value that cannot be one path segment; `what` names the value ("the push
// identifier"), and the value is shown quoted, escaped and shortened, never raw.
Error pathSegmentError(std::string_view what, std::string_view value);
// The text as a JSON string of at most about `limit` bytes: safe in a log line or an error message.
std::string quotedForMessage(std::string_view text, std::size_t limit = 64);

}  // namespace velmora::platform
