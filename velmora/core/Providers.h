#pragma once

#include <memory>

#include "velmora/blips/BlipsProvider.h"
#include "velmora/core/ProviderModule.h"
#include "velmora/push/PushRegistrationProvider.h"
#include "velmora/settings/Settings.h"
#include "velmora/storage/PushTokenManagement.h"
#include "velmora/support/AccountDetails.h"
#include "velmora/user/UserProvider.h"

namespace velmora {

// One account's providers. Those that need settings share one settings provider of the same account.
class Providers : public ProviderModule {
  public:
    Providers(const std::shared_ptr<const AccountDetails>& accountDetails,
              const std::shared_ptr<const UserDetails>& userDetails,
              std::shared_ptr<const PushTokenManagement> tokenManagement);

    const PushRegistrationProvider& push() const override { return *push_; }
    SettingsProvider& settings() const override { return *settings_; }
    const BlipsProvider& blip() const override { return blip_; }
    const UserProvider& user() const override { return user_; }

    // The push provider as something that outlives this container, for unregistrations still under way.
    std::shared_ptr<const PushRegistrationProvider> sharedPush() const { return push_; }

  private:
    std::shared_ptr<SettingsProvider> settings_;
    BlipsProvider blip_;
    std::shared_ptr<const PushRegistrationProvider> push_;
    UserProvider user_;
};

}  // namespace velmora
