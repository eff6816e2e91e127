#pragma once

#include <functional>
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
// Several processes may share the file. Each write happens under the file's write lock after loading what
// other processes have committed, so no process writes back an old view of another's values. A read sees
// another process's commits at most 10 ms late (asking the file on every read would cost it a hundredfold).
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

    // Runs `body` holding the file's write lock, with the values every process has committed loaded, and
    // commits everything it changes through any suite of this file (set, removeObject,
    // removePersistentDomain) in one transaction: a crash leaves all of it or none. Inside, reads see the
    // body's own changes, synchronize() is a no-op and a nested transaction joins this one. True when the
    // changes are on disk. Otherwise (a full disk, a read-only file) nothing of them is kept, in memory or on
    // disk, and the failure is logged at error level. Without a data directory, memory is where values are
    // kept: the changes are applied there and reported stored. The body must not wait for another thread that
    // uses the user defaults.
    bool transaction(const std::function<void()>& body) const;

    UserDefaults(std::string name, std::shared_ptr<DefaultsDatabase> database);

  private:
    std::string name_;
    std::shared_ptr<DefaultsDatabase> database_;
};

}  // namespace velmora::platform
