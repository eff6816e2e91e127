#include "velmora/core/Velmora.h"

#include "velmora/core/AccountStorageStrategy.h"
#include "velmora/core/DeviceUnregistration.h"
#include "velmora/core/InitialisationStrategy.h"
#include "velmora/core/Providers.h"
#include "velmora/network/NetworkClient.h"
#include "velmora/network/PendingRequests.h"
#include "velmora/platform/HTTPText.h"
#include "velmora/platform/NotificationCenter.h"
#include "velmora/storage/LegacyIdentityMigrator.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

namespace {

// Serialises whole initialisations; the instance itself has a lock of its own so that reading it never
// waits for one (a log sink may read it while initialize is logging).
std::mutex& initializeMutex() {
    static std::mutex mutex;
    return mutex;
}

std::mutex& instanceMutex() {
    static std::mutex mutex;
    return mutex;
}

std::shared_ptr<Velmora>& installedInstance() {
    static auto* instance = new std::shared_ptr<Velmora>();  // leaked: library threads may read it at exit
    return *instance;
}

std::shared_ptr<Velmora> currentInstance() {
    std::lock_guard lock(instanceMutex());
    return installedInstance();
}

void install(std::shared_ptr<Velmora> instance) {
    std::shared_ptr<Velmora> previous;
    {
        std::lock_guard lock(instanceMutex());
        previous = std::exchange(installedInstance(), std::move(instance));
    }
    // The previous instance is released here, outside the lock, should this be its last owner.
}

// Why the library cannot serve these details, or nothing when it can. Both become part of every request's
// URL: the account URL must be a plain http or https base, and the application id one path segment.
std::optional<std::string> unusableDetails(const std::string& appId, const std::string& velmoraUrl) {
    if (!platform::isPathSegment(appId)) {
        return "the application id " + platform::quotedForMessage(appId) +
               " cannot be one segment of a URL path";
    }
    const auto url = platform::URL::fromString(velmoraUrl);
    const auto shown = platform::quotedForMessage(velmoraUrl, 256);
    if (!url || (url->scheme() != "http" && url->scheme() != "https")) {
        return "the account URL " + shown + " is not an http or https URL";
    }
    if (url->hasUserInfo()) {
        return "the account URL " + shown +
               " holds a user name or password, which would be sent to the account";
    }
    if (velmoraUrl.find_first_of("?#") != std::string::npos) {
        return "the account URL " + shown + " has a query or a fragment, which every request would carry";
    }
    return std::nullopt;
}

}  // namespace

bool Velmora::initialize(const std::string& appId, const std::string& clientId,
                         const std::string& velmoraUrl) {
    if (const auto reason = unusableDetails(appId, velmoraUrl)) {
        CoreLogger::error("Velmora was not initialized: " + *reason + ".");
        return false;
    }
    std::lock_guard serialised(initializeMutex());
    // The shared client, and with it libcurl and OpenSSL, is set up now, off the host's thread (it costs more
    // than the rest of initialize): the first request most likely finds it ready.
    platform::DispatchQueue::global().async([] { NetworkClient::defaultClient(); });

    auto stores = std::make_shared<const Stores>(appId);
    auto details = std::make_shared<const ApplicationConfiguration>(appId, clientId, velmoraUrl);
    auto tokenManagement = std::make_shared<const SessionStore>(appId);
    auto providers = std::make_shared<const Providers>(details, std::make_shared<const IdentityStore>(appId),
                                                       tokenManagement);

    const auto previous = currentInstance();
    std::unique_ptr<InitialisationStrategy> strategy;
    if (previous) {
        strategy = std::make_unique<WarmInitialisationStrategy>();
    } else {
        strategy = std::make_unique<ColdInitialisationStrategy>();
    }
    auto velmora = strategy->initialise(details, stores, providers);
    if (!velmora) {
        CoreLogger::debug("Velmora is already initialized with these Velmora details.");
        return true;
    }
    if (velmoraUrl.ends_with('/')) {
        // Kept as given, so every path is joined after it with a second slash; most servers accept that.
        CoreLogger::warn("The account URL " + velmoraUrl +
                         " ends with \"/\": request paths are appended after it as they are.");
    }

    // Before anything is wiped, while the old account's push token can still be read.
    DeviceUnregistrationManager::strategy(previous.get(), details, tokenManagement, providers->sharedPush(),
                                          std::make_shared<const AccountStore>())
        ->unregisterDevice();

    // Read and changed under the storage's write lock: another process initialising at the same time sees
    // either none of the switch or all of it.
    bool accountKept = false;
    const bool stored = stores->transaction([&] {
        accountKept = AccountStore().storedAccount(*details);
        if (accountKept) {
            ExistingAccountStorageStrategy(details, stores).execute();
        } else {
            NewAccountStorageStrategy(details, stores).execute();
        }
    });
    if (stored && !accountKept) {
        NetworkClient::defaultClient().removeCachedResponses();
    }
    if (!stored) {
        // Installing now would show this account the previous account's identity and session.
        CoreLogger::error(
            "Velmora was not initialized: the storage of the previous account could not be "
            "replaced.");
        return false;
    }

    install(velmora);
    velmora->providers_->blip().send(coreSdkEvent("init"), BlipsGroup::required);
    return true;
}

std::shared_ptr<Velmora> Velmora::instance() {
    if (auto installed = currentInstance()) {
        return installed;
    }
    static constexpr const char* message =
        "Can't use withtout initialization, call Velmora `class initialize(appId:clientId:velmoraUrl:)`";
    CoreLogger::error(message);
    platform::NotificationCenter::defaultCenter().post(
        std::string(velmoraNotInitialised), {},
        nlohmann::json{{std::string(Error::localizedDescriptionKey), message}});
    return nullptr;
}

bool Velmora::waitForPendingRequests(std::chrono::milliseconds timeout) {
    return PendingRequests::waitUntilDrained(timeout);
}

Velmora::Velmora(const AccountDetails& accountDetails, std::shared_ptr<const Stores> stores,
                 std::shared_ptr<const Providers> providers)
    : stores_(std::move(stores)),
      providers_(std::move(providers)),
      application_(std::make_shared<const ApplicationConfiguration>(
          accountDetails.applicationId(), accountDetails.clientId(), accountDetails.accountUrl())) {}

const StoreModule& Velmora::storeModule() const {
    return *stores_;
}

const ProviderModule& Velmora::providerModule() const {
    return *providers_;
}

std::optional<Identity> Velmora::identity() const {
    const auto& store = stores_->identityStore();
    auto stored = store.identity();
    if (!stored) {
        CoreLogger::error("Couldn't retrieve identity from storage.");
        return std::nullopt;
    }
    if (const auto* anonymous = stored->anonymous()) {
        auto current = *anonymous;
        current.guid = store.guid();
        return Identity(std::move(current));
    }
    return stored;
}

bool Velmora::setIdentity(const Identity& identity) const {
    std::lock_guard serialised(identityMutex_);
    const auto& identityStore = stores_->identityStore();
    // Text that is not UTF-8 cannot be stored: refuse it before the current user's session is cleared.
    if (const auto encoded = identity.encode(); encoded.isError()) {
        CoreLogger::error("Can't change identity " + encoded.error().localizedDescription());
        return false;
    }
    // One transaction: a crash, a full disk or another process never leaves the old session cleared
    // without the new identity stored.
    bool cleared = false;
    const bool stored = stores_->transaction([&] {
        if (LegacyIdentityMigrator(*application_, identity).checkedAndMigratedIdentity()) {
            (void)identityStore.storeIdentityOnly(identity);
            return;
        }
        if (const auto current = this->identity(); current && *current == identity) {
            CoreLogger::debug("This identity is currently set.");
            return;
        }
        if (const auto pushToken = stores_->sessionStore().pushToken()) {
            providers_->push().unregisterForPush(*pushToken);
        }
        stores_->clearSession();
        cleared = true;
        (void)identityStore.store(identity);
    });
    if (stored && cleared) {
        NetworkClient::defaultClient().removeCachedResponses();
    }
    return stored;
}

bool Velmora::setIdentity(const VMKObjCIdentity& identity) const {
    auto unwrapped = identity.unwrap();
    if (unwrapped.isError()) {
        CoreLogger::error("Can't change identity " + unwrapped.error().localizedDescription());
        return false;
    }
    return setIdentity(unwrapped.value());
}

std::shared_ptr<VMKObjCIdentity> Velmora::objCIdentity() const {
    const auto current = identity();
    return current ? makeObjCIdentity(*current) : nullptr;
}

CorePushUnregistrationContext Velmora::pushContext() const {
    // Aliasing pointers: the context keeps this instance's stores and providers alive while it is used.
    return CorePushUnregistrationContext(
        std::shared_ptr<const PushTokenManagement>(stores_, &stores_->sessionStore()),
        providers_->sharedPush(), std::make_shared<const AccountStore>());
}

ActionHandlerRegistry Velmora::actionHandlerRegistry() const {
    std::lock_guard lock(registryMutex_);
    return actionHandlerRegistry_;
}

void Velmora::setActionHandlerRegistry(ActionHandlerRegistry registry) {
    std::lock_guard lock(registryMutex_);
    actionHandlerRegistry_ = std::move(registry);
}

}  // namespace velmora
