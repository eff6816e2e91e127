#pragma once

#include <optional>
#include <string>

namespace velmora {

// The device's push token as the push registration and unregistration code see it.
class PushTokenManagement {
  public:
    virtual ~PushTokenManagement() = default;
    virtual std::optional<std::string> pushToken() const = 0;
    virtual void updatePushToken(const std::optional<std::string>& token) const = 0;
};

}  // namespace velmora
