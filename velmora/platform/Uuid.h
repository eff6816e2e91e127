#pragma once

#include <string>

namespace velmora::platform {

// A random (version 4) UUID as 36 upper-case characters, "E621E1F8-C36C-495A-93FC-0C247A3E6E5F".
// The bits come from the kernel's cryptographic source: these identify users and devices.
std::string uuidString();

}  // namespace velmora::platform
