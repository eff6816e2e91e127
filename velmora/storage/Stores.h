#pragma once

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "velmora/storage/AccountStore.h"
#include "velmora/storage/CacheDirectoryManager.h"
#include "velmora/storage/IdentityStore.h"
#include "velmora/storage/SessionStore.h"
#include "velmora/storage/SettingsStore.h"

namespace velmora {

// What the rest of the library may do with the stores of the current account.
class StoreModule {
  public:
    virtual ~StoreModule() = default;
    virtual const SessionStore& sessionStore() const = 0;
    virtual std::optional<std::filesystem::path> cacheDirectory() const = 0;
    virtual void clearAll() const = 0;
    virtual void clearSettingsAndSession() const = 0;
    virtual void clearSession() const = 0;
};

// The stores of one app id, and the cache directory. Shared between threads (a 401 clears it from the
// network thread), so the lazily made cache manager is guarded.
class Stores : public StoreModule {
  public:
    explicit Stores(const std::string& appId);

    const AccountStore& accountStore() const { return accountStore_; }
    const IdentityStore& identityStore() const { return identityStore_; }
    const SettingsStore& settingStore() const { return settingStore_; }
    const SessionStore& sessionStore() const override { return sessionStore_; }

    std::optional<std::filesystem::path> cacheDirectory() const override;

    // Every change `body` makes to any store, committed at once or not at all; see UserDefaults.
    bool transaction(const std::function<void()>& body) const;

    // Each clear is one transaction (or part of the one under way); the cache directory goes once the
    // stores' part is committed, or at once inside a transaction, since a cache may always be lost.
    // Identity, session, then the cache directory. Settings stay.
    void clearSession() const override;
    // Session, then settings. The identity and the cache directory stay.
    void clearSettingsAndSession() const override;
    // Session, identity, settings, then the cache directory. The account record is never cleared here.
    void clearAll() const override;

  private:
    const CacheDirectoryManager& cache() const;
    void removeCacheDirectory() const;

    AccountStore accountStore_;
    IdentityStore identityStore_;
    SettingsStore settingStore_;
    SessionStore sessionStore_;
    mutable std::once_flag cacheOnce_;
    mutable std::unique_ptr<CoreCacheDirectoryManager> cache_;
};

}  // namespace velmora
