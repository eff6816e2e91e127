#pragma once

#include "velmora/Export.h"
#include "velmora/blips/BlipsProvider.h"
#include "velmora/push/PushRegistrationProvider.h"
#include "velmora/settings/Settings.h"
#include "velmora/user/UserProvider.h"

namespace velmora {

// The providers of the current account, as hosts and kits reach them through the facade.
class VELMORA_EXPORT ProviderModule {
  public:
    virtual ~ProviderModule() = default;
    virtual const PushRegistrationProvider& push() const = 0;
    virtual SettingsProvider& settings() const = 0;
    virtual const BlipsProvider& blip() const = 0;
    virtual const UserProvider& user() const = 0;
};

}  // namespace velmora
