#include "velmora/core/AccountStorageStrategy.h"

#include "velmora/support/CoreLogger.h"

namespace velmora {

void NewAccountStorageStrategy::execute() const {
    CoreLogger::debug("Initialized with a different SDK configuration. Clearing storage.");
    stores_->clearAll();
    // Not recording the account only means the next initialise counts as a change of account again.
    (void)AccountStore().store(*details_);
}

void ExistingAccountStorageStrategy::execute() const {
    CoreLogger::debug("Initialized with existing stored details.");
}

}  // namespace velmora
