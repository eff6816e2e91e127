#pragma once

#include <memory>

#include "velmora/storage/Stores.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

// Keeps or wipes stored data when the library is initialised.
class AccountStorageStrategy {
  public:
    virtual ~AccountStorageStrategy() = default;
    virtual void execute() const = 0;
};

// What both storage strategies hold: the account being initialised and its stores.
class AccountStorageStrategyFor : public AccountStorageStrategy {
  public:
    AccountStorageStrategyFor(std::shared_ptr<const AccountDetails> details,
                              std::shared_ptr<const Stores> stores)
        : details_(std::move(details)), stores_(std::move(stores)) {}

  protected:
    std::shared_ptr<const AccountDetails> details_;
    std::shared_ptr<const Stores> stores_;
};

// A different account than last time: wipe everything of the old one, then record the new account.
class NewAccountStorageStrategy : public AccountStorageStrategyFor {
  public:
    using AccountStorageStrategyFor::AccountStorageStrategyFor;
    void execute() const override;
};

// The same account as last time: everything stored is kept.
class ExistingAccountStorageStrategy : public AccountStorageStrategyFor {
  public:
    using AccountStorageStrategyFor::AccountStorageStrategyFor;
    void execute() const override;
};

}  // namespace velmora
