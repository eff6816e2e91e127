#pragma once

#include <memory>

#include "velmora/core/Providers.h"
#include "velmora/storage/Stores.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

class Velmora;

// Decides on each initialize whether a new instance is built.
class InitialisationStrategy {
  public:
    virtual ~InitialisationStrategy() = default;
    virtual std::shared_ptr<Velmora> initialise(const std::shared_ptr<const AccountDetails>& details,
                                                std::shared_ptr<const Stores> stores,
                                                std::shared_ptr<const Providers> providers) const = 0;
};

// The process's first initialize: always a new instance.
class ColdInitialisationStrategy : public InitialisationStrategy {
  public:
    std::shared_ptr<Velmora> initialise(const std::shared_ptr<const AccountDetails>& details,
                                        std::shared_ptr<const Stores> stores,
                                        std::shared_ptr<const Providers> providers) const override;
};

// A repeat: nothing when the recorded account is this one, else a new instance.
class WarmInitialisationStrategy : public InitialisationStrategy {
  public:
    std::shared_ptr<Velmora> initialise(const std::shared_ptr<const AccountDetails>& details,
                                        std::shared_ptr<const Stores> stores,
                                        std::shared_ptr<const Providers> providers) const override;
};

}  // namespace velmora
