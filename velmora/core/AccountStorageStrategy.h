#pragma once

#include <memory>

#include "velmora/Export.h"
#include "velmora/core/AccountDetails.h"
#include "velmora/storage/Stores.h"

namespace velmora {

// Keeps or wipes stored data when the library is initialised.
class VELMORA_EXPORT AccountStorageStrategy {
  public:
    virtual ~AccountStorageStrategy() = default;
    virtual void execute() const = 0;
};

// A different account than last time: wipe everything of the old one, then record the new account.
class VELMORA_EXPORT NewAccountStorageStrategy : public AccountStorageStrategy {
  public:
    NewAccountStorageStrategy(std::shared_ptr<const AccountDetails> details,
                              std::shared_ptr<const Stores> stores)
        : details_(std::move(details)), stores_(std::move(stores)) {}
    void execute() const override;

  private:
    std::shared_ptr<const AccountDetails> details_;
    std::shared_ptr<const Stores> stores_;
};

// The same account as last time: everything stored is kept.
class VELMORA_EXPORT ExistingAccountStorageStrategy : public AccountStorageStrategy {
  public:
    ExistingAccountStorageStrategy(std::shared_ptr<const AccountDetails> details,
                                   std::shared_ptr<const Stores> stores)
        : details_(std::move(details)), stores_(std::move(stores)) {}
    void execute() const override;

  private:
    std::shared_ptr<const AccountDetails> details_;
    std::shared_ptr<const Stores> stores_;
};

}  // namespace velmora
