#include "velmora/core/DeviceUnregistration.h"

#include "velmora/support/CoreLogger.h"

namespace velmora {

void WarmInitialisationUnregistrationStrategy::unregisterDevice() const {
    if (context_.accountProvider().storedAccount(*details_)) {
        return;
    }
    // The token stays in the old store; wiping the session suite removes it.
    const auto token = context_.tokenStore().pushToken();
    if (!token) {
        return;
    }
    context_.pushProvider().unregisterForPush(*token);
    CoreLogger::debug("Automatically unregistering for push.");
}

void ColdInitialisationUnregistrationStrategy::unregisterDevice() const {
    if (!context_.accountProvider().storedAccount(*details_)) {
        CoreLogger::debug(
            "The details provided during intialization were not previously stored. If this device was "
            "previously registered for push notficiations using different Velmora SDK application details it "
            "is not possible to unregister automatically.");
    }
}

std::unique_ptr<DeviceUnregistrationStrategy> DeviceUnregistrationManager::strategy(
    const PushUnregistrationContextProvider* contextProvider, std::shared_ptr<const AccountDetails> details,
    std::shared_ptr<const PushTokenManagement> tokenStore,
    std::shared_ptr<const PushUnregisterProtocol> pushProvider,
    std::shared_ptr<const AccountStoreProvider> accountProvider) {
    if (contextProvider != nullptr) {
        return std::make_unique<WarmInitialisationUnregistrationStrategy>(contextProvider->pushContext(),
                                                                          std::move(details));
    }
    return std::make_unique<ColdInitialisationUnregistrationStrategy>(
        CorePushUnregistrationContext(std::move(tokenStore), std::move(pushProvider),
                                      std::move(accountProvider)),
        std::move(details));
}

}  // namespace velmora
