#include "velmora/core/Providers.h"

namespace velmora {

Providers::Providers(const std::shared_ptr<const AccountDetails>& accountDetails,
                     const std::shared_ptr<const UserDetails>& userDetails,
                     std::shared_ptr<const PushTokenManagement> tokenManagement)
    : settings_(std::make_shared<SettingsProvider>(accountDetails)),
      blip_(accountDetails, userDetails, settings_),
      push_(std::make_shared<PushRegistrationProvider>(accountDetails, userDetails, blip_,
                                                       std::move(tokenManagement))),
      user_(accountDetails) {}

}  // namespace velmora
