#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "velmora/storage/AppStorable.h"
#include "velmora/storage/PushTokenManagement.h"

namespace velmora {

// Values that belong to the current user's session, such as the push token.
class SessionStore : public AppStorable, public PushTokenManagement {
  public:
    static constexpr std::string_view suite = "com.velmora.core.session";
    static constexpr std::string_view pushTokenKey = "pushToken";

    explicit SessionStore(std::string appId) : AppStorable(suite, std::move(appId)) {}

    std::optional<PropertyValue> value(std::string_view key) const;
    // Stores the value under the key (removes the key when the value is empty), synchronizes, and reports
    // whether that succeeded.
    bool store(const std::optional<PropertyValue>& value, std::string_view key) const;

    std::optional<std::string> pushToken() const override;
    void updatePushToken(const std::optional<std::string>& token) const override;
};

}  // namespace velmora
