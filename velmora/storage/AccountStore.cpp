#include "velmora/storage/AccountStore.h"

#include "velmora/Errors.h"
#include "velmora/support/LibraryError.h"

namespace velmora {

Error toError(AccountStoreError error) {
    return libraryError(errors::accountStoreDomain, error, std::nullopt);
}

bool AccountStore::storedAccount(const AccountDetails& details) const {
    const auto stored = defaults()->object(accountIdKey);
    const auto* text = stored ? stored->getIf<std::string>() : nullptr;
    return text != nullptr && details.base64() == *text;
}

Result<Void> AccountStore::store(const AccountDetails& details) const {
    const auto key = details.base64();
    if (!key) {
        return Result<Void>::error(toError(AccountStoreError::base64EncodingError));
    }
    const auto& userDefaults = defaults();
    (void)userDefaults->transaction([&] { userDefaults->set(accountIdKey, *key); });
    return Result<Void>::success({});
}

}  // namespace velmora
