#pragma once

#include <string_view>

#include "velmora/platform/Result.h"
#include "velmora/storage/AppStorable.h"
#include "velmora/support/AccountDetails.h"

namespace velmora {

enum class AccountStoreError { base64EncodingError };

Error toError(AccountStoreError error);

class AccountStoreProvider {
  public:
    virtual ~AccountStoreProvider() = default;
    virtual bool storedAccount(const AccountDetails& details) const = 0;
};

// Remembers which account the host application last initialised with storage wiped: one "account-id" entry
// for the whole application, not scoped by app id.
class AccountStore : public AccountStoreProvider, public UserDefaultsStorable {
  public:
    static constexpr std::string_view suite = "com.velmora.core.account";
    static constexpr std::string_view accountIdKey = "account-id";

    AccountStore() : UserDefaultsStorable(suite) {}

    // Whether the recorded account is the one of `details`; false when none (or no text) is recorded.
    bool storedAccount(const AccountDetails& details) const override;
    // Records the details' account key; fails with AccountStoreError::base64EncodingError when there is none.
    Result<Void> store(const AccountDetails& details) const;
};

}  // namespace velmora
