#include "velmora/core/AccountStorageStrategy.h"

#include "velmora/support/CoreLogger.h"

namespace velmora {

void NewAccountStorageStrategy::execute() const {
    CoreLogger::debug("Initialized with a different SDK configuration. Clearing storage.");
    // Part of the transaction initialize runs, so the wipe and the record land together. Details that have
    // no record (not text) still wipe: the next initialise then counts as a change of account again.
    stores_->clearAll();
    (void)AccountStore().store(*details_);
}

void ExistingAccountStorageStrategy::execute() const {
    CoreLogger::debug("Initialized with existing stored details.");
}

}  // namespace velmora
