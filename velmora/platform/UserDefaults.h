#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "velmora/platform/PropertyList.h"

namespace velmora::platform {

class DefaultsDatabase;

// Named suites of property-list values, persisted in one SQLite file per application (the environment's
// data directory, "UserDefaults.sqlite"). Changes are visible to every reader in the process at once and
// reach the disk only through synchronize(), in one transaction. Safe from any thread.
//
// A file that is not a valid database is moved aside (reported through the platform log) and a fresh one
// is used. Without a data directory the values live in memory only and synchronize() reports failure.
class UserDefaults {
  public:
    // The application's own domain, named after the environment's application domain name.
    static std::shared_ptr<UserDefaults> standard();
    // A named suite; empty when the name cannot name a suite (the empty name).
    static std::shared_ptr<UserDefaults> suite(std::string_view name);

    const std::string& name() const { return name_; }

    std::optional<PropertyValue> object(std::string_view key) const;
    // Calls `reader` with the value under the key (null when there is none) without copying it. The value is
    // only valid during the call, and the reader must not use the user defaults itself.
    template <class Reader>
    void inspect(std::string_view key, Reader&& reader) const {
        const auto found = lookup(key);
        reader(found.value);
    }

    // A value found under the lock that keeps it valid; see inspect().
    struct Lookup {
        std::unique_lock<std::mutex> lock;
        const PropertyValue* value = nullptr;
    };
    Lookup lookup(std::string_view key) const;
    void set(std::string_view key, PropertyValue value);
    void removeObject(std::string_view key);

    // Writes every change of this suite made since the last synchronize. True when they are on disk (or there
    // were none: then the disk is not touched at all).
    bool synchronize();

    // Deletes every value of the named suite, in memory and on disk, at once.
    void removePersistentDomain(std::string_view name);

    UserDefaults(std::string name, std::shared_ptr<DefaultsDatabase> database);

  private:
    std::string name_;
    std::shared_ptr<DefaultsDatabase> database_;
};

}  // namespace velmora::platform
