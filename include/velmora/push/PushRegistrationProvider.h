#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "velmora/Export.h"
#include "velmora/blips/BlipsProvider.h"
#include "velmora/network/ProviderService.h"
#include "velmora/platform/Result.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

class PushTokenManagement;
class UserDetails;

struct VELMORA_EXPORT PushRegistrationResponse {
    std::string identifier;
    // {"push_notification_device": {"identifier": ...}}
    static Result<PushRegistrationResponse> decode(const Data& data);
};

class VELMORA_EXPORT PushUnregisterProtocol {
  public:
    virtual ~PushUnregisterProtocol() = default;
    virtual void unregisterForPush(const std::string& deviceIdentifier) const = 0;
};

// Registers the device for the account's push notifications under one identifier, skips a registration that
// would repeat the stored one, and reports registrations and unregistrations as analytics events.
class VELMORA_EXPORT PushRegistrationProvider : public PushUnregisterProtocol {
  public:
    using Callback = std::function<void(Result<PushRegistrationResponse>)>;

    PushRegistrationProvider(std::shared_ptr<const AccountDetails> accountDetails,
                             std::shared_ptr<const UserDetails> userDetails, BlipsProvider blipsProvider,
                             std::shared_ptr<const PushTokenManagement> tokenManagement)
        : accountDetails_(std::move(accountDetails)),
          userDetails_(std::move(userDetails)),
          blipsProvider_(std::move(blipsProvider)),
          tokenManagement_(std::move(tokenManagement)) {}

    // A device token; the callback comes on the main queue, or at once when the registration is skipped.
    void registerForPush(const std::string& deviceIdentifier, const std::string& locale,
                         Callback callback) const;
    // A channel identifier of an outside push-delivery service.
    void registerForPushWithUAChannelId(const std::string& channelId, const std::string& locale,
                                        Callback callback) const;

    void unregisterForPush() const;
    void unregisterForPush(const std::string& deviceIdentifier) const override;

  private:
    void registerIdentifier(const std::string& identifier, const std::string& locale, bool channel,
                            Callback callback) const;
    void sendPushEvent(const char* action) const;
    ProviderService unregistrationService(platform::URL url) const;

    std::shared_ptr<const AccountDetails> accountDetails_;
    std::shared_ptr<const UserDetails> userDetails_;
    BlipsProvider blipsProvider_;
    std::shared_ptr<const PushTokenManagement> tokenManagement_;
};

}  // namespace velmora
