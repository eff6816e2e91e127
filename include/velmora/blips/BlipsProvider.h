#pragma once

#include <memory>

#include "velmora/Export.h"
#include "velmora/blips/BlipRecords.h"
#include "velmora/platform/URL.h"
#include "velmora/settings/Settings.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

class UserDetails;

// Sends analytics events as far as the account's stored settings permit: fire and forget, outcomes only
// logged. Events need no authentication, so their chain has no login: sending one never logs in.
class VELMORA_EXPORT BlipsProvider {
  public:
    BlipsProvider(std::shared_ptr<const AccountDetails> accountDetails,
                  std::shared_ptr<const UserDetails> userDetails,
                  std::shared_ptr<SettingsProvider> settingsProvider)
        : accountDetails_(std::move(accountDetails)),
          userDetails_(std::move(userDetails)),
          settingsProvider_(std::move(settingsProvider)) {}

    void send(const UserAction& blip, BlipsGroup group) const;
    void send(const PageView& blip, BlipsGroup group) const;

    BlipRequest convert(const UserAction& blip) const;
    BlipRequest convert(const PageView& blip) const;

    // An event encoded earlier, sent now if its group is permitted.
    void sendEncoded(const Data& data, BlipsGroup group) const;
    void sendBlipEvent(const Data& data, BlipsGroup group) const;

    // The account URL + "/embeddable_blip?data=" + the event's base64, put into the query as it is.
    // A URL error when the event is too large for a URL.
    static Result<platform::URL> blipURL(const Data& data, const AccountDetails& accountDetails);

  private:
    void sendIfPermitted(const BlipRequest& request, BlipsGroup group) const;

    std::shared_ptr<const AccountDetails> accountDetails_;
    std::shared_ptr<const UserDetails> userDetails_;
    std::shared_ptr<SettingsProvider> settingsProvider_;
};

}  // namespace velmora
