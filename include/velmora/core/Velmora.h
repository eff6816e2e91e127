#pragma once

#include <chrono>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/Export.h"
#include "velmora/core/ProviderModule.h"
#include "velmora/identity/Identity.h"
#include "velmora/identity/ObjCIdentity.h"
#include "velmora/support/AccountDetails.h"
#include "velmora/support/ActionHandlerRegistry.h"

namespace velmora {

class CorePushUnregistrationContext;
class Providers;
class StoreModule;
class Stores;

// The previously installed instance, whose push token and push provider still belong to the old account.
class VELMORA_EXPORT PushUnregistrationContextProvider {
  public:
    virtual ~PushUnregistrationContextProvider() = default;
    virtual CorePushUnregistrationContext pushContext() const = 0;
};

// Posted on the default notification center on every read of the instance before initialize; the user info
// carries the error text under the localized-description key.
inline constexpr std::string_view velmoraNotInitialised = "velmoraNotInitialised";

// The library for one account: its stores, its providers and the end user's identity. One instance is
// installed at a time; a replaced one stays usable for as long as someone holds it. Nothing here throws:
// failures are logged and the operation ends without change.
class VELMORA_EXPORT Velmora : public PushUnregistrationContextProvider {
  public:
    // Builds the library for the account and installs it, unless the installed instance already serves the
    // same account (account URL and app id; the client id takes no part). A change of account unregisters
    // the old account's push token, then wipes storage. Safe from any thread; calls are serialised.
    // Refused, with an error line and nothing installed (an installed instance stays), when the account URL
    // is not a plain http or https base (no user info, query or fragment) or the application id is not one
    // URL path segment. True when an instance serving these details is installed afterwards.
    static bool initialize(const std::string& appId, const std::string& clientId,
                           const std::string& velmoraUrl);

    // The installed instance; empty before initialize, which is logged and notified on every such read.
    static std::shared_ptr<Velmora> instance();

    // Waits until every request handed to the library so far, fire-and-forget ones (events,
    // unregistrations) included, has completed and its callback has run. Hosts call it before they exit.
    // False when the time-out passed first. Never call it from the main queue: callbacks arrive there.
    static bool waitForPendingRequests(std::chrono::milliseconds timeout);

    Velmora(const AccountDetails& accountDetails, std::shared_ptr<const Stores> stores,
            std::shared_ptr<const Providers> providers);

    // The stored identity; an anonymous one carries the store's current GUID.
    std::optional<Identity> identity() const;
    // Another user clears the old one's session (token, push registration, cache directory) first. No
    // request is made: login happens with the first request that needs it. The clearing and the new
    // identity are stored together. False when the identity was refused or could not be stored (a full
    // disk, a read-only file): then the previous identity and session stay, and an error line says why.
    bool setIdentity(const Identity& identity) const;
    bool setIdentity(const VMKObjCIdentity& identity) const;
    std::shared_ptr<VMKObjCIdentity> objCIdentity() const;

    CorePushUnregistrationContext pushContext() const override;

    // The stores are the library's own: kits inside it reach their type through its private headers.
    const StoreModule& storeModule() const;
    const ProviderModule& providerModule() const;
    const AccountDetails& accountDetails() const { return *application_; }

    // A copy; changes take effect when written back.
    ActionHandlerRegistry actionHandlerRegistry() const;
    void setActionHandlerRegistry(ActionHandlerRegistry registry);

  private:
    std::shared_ptr<const Stores> stores_;
    std::shared_ptr<const Providers> providers_;
    std::shared_ptr<const ApplicationConfiguration> application_;

    mutable std::mutex identityMutex_;
    mutable std::mutex registryMutex_;
    ActionHandlerRegistry actionHandlerRegistry_;
};

}  // namespace velmora
