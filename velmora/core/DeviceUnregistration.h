#pragma once

#include <memory>

#include "velmora/core/Velmora.h"
#include "velmora/push/PushRegistrationProvider.h"
#include "velmora/storage/AccountStore.h"
#include "velmora/storage/PushTokenManagement.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// What an unregistration on re-initialisation needs: where the push token is, who can unregister it, and
// which account was last recorded.
class PushUnregistrationContext {
  public:
    virtual ~PushUnregistrationContext() = default;
    virtual const PushTokenManagement& tokenStore() const = 0;
    virtual const PushUnregisterProtocol& pushProvider() const = 0;
    virtual const AccountStoreProvider& accountProvider() const = 0;
};

class CorePushUnregistrationContext : public PushUnregistrationContext {
  public:
    CorePushUnregistrationContext(std::shared_ptr<const PushTokenManagement> tokenStore,
                                  std::shared_ptr<const PushUnregisterProtocol> pushProvider,
                                  std::shared_ptr<const AccountStoreProvider> accountProvider)
        : tokenStore_(std::move(tokenStore)),
          pushProvider_(std::move(pushProvider)),
          accountProvider_(std::move(accountProvider)) {}

    const PushTokenManagement& tokenStore() const override { return *tokenStore_; }
    const PushUnregisterProtocol& pushProvider() const override { return *pushProvider_; }
    const AccountStoreProvider& accountProvider() const override { return *accountProvider_; }

  private:
    std::shared_ptr<const PushTokenManagement> tokenStore_;
    std::shared_ptr<const PushUnregisterProtocol> pushProvider_;
    std::shared_ptr<const AccountStoreProvider> accountProvider_;
};

class DeviceUnregistrationStrategy {
  public:
    virtual ~DeviceUnregistrationStrategy() = default;
    virtual void unregisterDevice() const = 0;
};

// What both re-initialisation strategies hold: where to unregister from, and the account being initialised.
class InitialisationUnregistrationStrategy : public DeviceUnregistrationStrategy {
  public:
    InitialisationUnregistrationStrategy(CorePushUnregistrationContext context,
                                         std::shared_ptr<const AccountDetails> details)
        : context_(std::move(context)), details_(std::move(details)) {}

  protected:
    CorePushUnregistrationContext context_;
    std::shared_ptr<const AccountDetails> details_;
};

// An instance is live: its provider can still unregister the old account's device.
class WarmInitialisationUnregistrationStrategy : public InitialisationUnregistrationStrategy {
  public:
    using InitialisationUnregistrationStrategy::InitialisationUnregistrationStrategy;
    void unregisterDevice() const override;
};

// A first start: the old account's details are gone, so a change of account can only be logged.
class ColdInitialisationUnregistrationStrategy : public InitialisationUnregistrationStrategy {
  public:
    using InitialisationUnregistrationStrategy::InitialisationUnregistrationStrategy;
    void unregisterDevice() const override;
};

class DeviceUnregistrationManager {
  public:
    DeviceUnregistrationManager() = delete;

    // Warm with the previous instance's context when there is one; else cold with the new account's parts.
    static std::unique_ptr<DeviceUnregistrationStrategy> strategy(
        const PushUnregistrationContextProvider* contextProvider,
        std::shared_ptr<const AccountDetails> details, std::shared_ptr<const PushTokenManagement> tokenStore,
        std::shared_ptr<const PushUnregisterProtocol> pushProvider,
        std::shared_ptr<const AccountStoreProvider> accountProvider);
};

}  // namespace velmora
