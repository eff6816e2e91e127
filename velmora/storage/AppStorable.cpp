#include "velmora/storage/AppStorable.h"

#include "velmora/platform/Fatal.h"
#include "velmora/platform/Format.h"
#include "velmora/support/CoreLogger.h"

namespace velmora {

std::shared_ptr<platform::UserDefaults> UserDefaultsStorable::defaults() const {
    auto suite = platform::UserDefaults::suite(suiteName());
    if (!suite) {
        platform::fatalError(platform::format("failed to load suite named %@", suiteName()));
    }
    return suite;
}

PropertyValue::Dictionary AppStorable::storage() const {
    const auto stored = defaults()->object(appId_);
    if (stored) {
        if (const auto* dictionary = stored->getIf<PropertyValue::Dictionary>()) {
            return *dictionary;
        }
    }
    return {};
}

void AppStorable::clear() const {
    CoreLogger::debug(platform::format("clearing storage suite: %@ with app id: %@.", suiteName(), appId_));
    const auto userDefaults = defaults();
    userDefaults->removePersistentDomain(userDefaults->name());
}

bool AppStorable::writeStorage(PropertyValue::Dictionary dictionary) const {
    const auto userDefaults = defaults();
    userDefaults->set(appId_, std::move(dictionary));
    return userDefaults->synchronize();
}

}  // namespace velmora
