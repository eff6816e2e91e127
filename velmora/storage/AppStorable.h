#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "velmora/platform/PropertyList.h"
#include "velmora/platform/UserDefaults.h"

namespace velmora {

// A store that keeps its values in one user-defaults suite of a fixed name. The suite is opened when the
// store is made; a name the platform refuses is a fatal error ("failed to load suite named <name>").
class UserDefaultsStorable {
  public:
    explicit UserDefaultsStorable(std::string_view suiteName);
    virtual ~UserDefaultsStorable() = default;

    const std::string& suiteName() const { return suiteName_; }
    const std::shared_ptr<platform::UserDefaults>& defaults() const { return defaults_; }

  private:
    std::string suiteName_;
    std::shared_ptr<platform::UserDefaults> defaults_;
};

// A store that keeps one dictionary per application id inside its suite, so that two accounts configured in
// one host application never see each other's records.
class AppStorable : public UserDefaultsStorable {
  public:
    AppStorable(std::string_view suiteName, std::string appId)
        : UserDefaultsStorable(suiteName), appId_(std::move(appId)) {}

    const std::string& appId() const { return appId_; }

    // This app id's dictionary; empty when there is none or the stored value is not a dictionary.
    PropertyValue::Dictionary storage() const;
    // One member of this app id's dictionary, read in place.
    std::optional<PropertyValue> storedValue(std::string_view key) const;

    // Removes the whole suite: every app id's data in it, not only this one's.
    void clear() const;

    // Edits this app id's dictionary as stored now (by any process) and stores it, in one transaction of
    // the user defaults, or as part of the one under way. False when it could not be stored; nothing changed.
    bool change(const std::function<void(PropertyValue::Dictionary&)>& edit) const;

  private:
    std::string appId_;
};

}  // namespace velmora
