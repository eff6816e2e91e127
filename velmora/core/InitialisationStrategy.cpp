#include "velmora/core/InitialisationStrategy.h"

#include "velmora/core/Velmora.h"

namespace velmora {

std::shared_ptr<Velmora> ColdInitialisationStrategy::initialise(
    const std::shared_ptr<const AccountDetails>& details, std::shared_ptr<const Stores> stores,
    std::shared_ptr<const Providers> providers) const {
    return std::make_shared<Velmora>(*details, std::move(stores), std::move(providers));
}

std::shared_ptr<Velmora> WarmInitialisationStrategy::initialise(
    const std::shared_ptr<const AccountDetails>& details, std::shared_ptr<const Stores> stores,
    std::shared_ptr<const Providers> providers) const {
    if (AccountStore().storedAccount(*details)) {
        return nullptr;
    }
    return std::make_shared<Velmora>(*details, std::move(stores), std::move(providers));
}

}  // namespace velmora
